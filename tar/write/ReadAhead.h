// Small files of a tree, opened, examined and read by workers before their turn in the archive comes, and the
// directories that they are in.
//
// The walk goes on as it does without: entry by entry, in order. Beside it, what lies ahead in each directory
// that it is in is looked at: files by the batch, and directories with their names and their first files,
// because a worker that is in a directory finds its files there. What was found is taken when the walk comes
// to it. What could not be found as usual is left for its turn, to be found and told there.
// It knows nothing of archives, filters or events, and gives what it found to nobody but the writer. Whether
// files may be opened before their turn is the writer's question.
#pragma once

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "runtime/fs/DirListing.h"
#include "runtime/fs/mvFileInfo.h"
#include "runtime/parallel/WorkerPool.h"

namespace morvane {

class ClsDirTree;

// One for the walk of a tree that follows no links, on its thread, and gone before the walk is: workers use
// its open directories. A look belongs to its worker from submit until the pool has finished or dropped it:
// nothing in it needs a lock. A worker that finds no memory leaves the rest for its turn.
class ReadAhead {
 public:
  // Files of more bytes are read in their turn.
  static constexpr unsigned kMostBytes = 64 * 1024;

  // A regular file that was read whole: it had exactly the bytes that it stated.
  struct Found {
    mvFileInfo info;
    const char* bytes = nullptr;  // info.m_size of them; null: it was not read
  };

  // `workers` is not 0.
  explicit ReadAhead(unsigned workers);

  // The walk stands on its next entry: what was found of it, or null. Good until the next call. Called for
  // each entry, in order; a directory that was read is handed to the walk. Throws std::bad_alloc. The bytes
  // are in the look, and go with the piece that it belongs to.
  const Found* enter(ClsDirTree& tree);
  // Hands in what follows the walk's entry, in its directory and in those that this lies in, where half of
  // what was handed in before is used up. It hands in no more than has room; entries that were looked at and
  // given up are handed in again.
  void lookAhead(const ClsDirTree& tree);

 private:
  // Entries of one directory, in their order; or a directory, and the first of its entries.
  struct Look : WorkerPool::Task {
    // The first is what a worker does; the others are its steps. lookAt and read are false where there is no
    // room left.
    void work() override;
    void makeRoom();
    void lookAtFiles();
    void lookIntoDirectory();
    bool lookAt(int directory, const char* name);
    bool read(const OsFile& file, Found& into);

    // Borrowed: the open directory that the names, or the directory, are in.
    int parent = -1;
    unsigned mostFiles = 0;
    std::string directoryName;       // empty: entries of the parent
    std::vector<std::string> names;  // an empty one is passed over
    // What was found: of the directory; of the entries, as many as were looked at. By the worker, and looked
    // at by the first thread once the look is done.
    bool isListed = false;
    DirListing listing;
    std::vector<Found> found;
    // Made by the worker that first needs it, and kept.
    std::unique_ptr<char[]> room;
    size_t roomSize = 0, used = 0;  // the names of a directory have no more room either
  };
  struct Level;
  // A look at entries of one directory, from the `first` on.
  struct Piece {
    size_t first = 0, count = 0;
    bool isDirectory = false;  // the one entry is a directory; the look is at it and into it
    std::unique_ptr<Look> look;
    std::unique_ptr<Level> inside;  // of a directory that was read: what is behind its first entries
  };
  // A directory that the walk is in, or will come to.
  struct Level {
    // In order and without a gap: each begins where the one before ends.
    std::deque<Piece> pieces;
    size_t lookedTo = 0;  // the first entry that is in no piece
  };

  // Levels are made and given up as the walk goes in and out.
  void followWalk(const ClsDirTree& tree);
  void enterDirectory(Level& level, ClsDirTree& tree);
  // `rank` is the depth that work is ordered by, `left` the number of looks that may still be kept; it is
  // taken from.
  void lookAheadIn(Level& level, const DirListing& listing, size_t rank, size_t& left);
  void lookAtDirectory(Level& level, const DirListing& listing, size_t rank);
  void lookAtFiles(Level& level, const DirListing& listing, size_t rank);
  // False where nothing is farther away than what wants the room.
  bool makeRoom(size_t nearest);
  std::unique_ptr<Look> makeLook(const DirListing& listing);
  // Hands a piece in; giveUp takes one back, with what is inside of it.
  void submit(Level& level, Piece piece, size_t rank, size_t weight);
  void finishAll(Level& level);
  // Waits for a worker that is in it; what it found is lost.
  void giveUp(Piece piece);

  // By the number of workers, and of files that the process may open.
  const unsigned m_mostLooks, m_mostFiles;
  const size_t m_roomSize;
  unsigned m_looks = 0;       // under way or kept, in all levels
  size_t m_usualSize = 4096;  // of files, in bytes: so many fit into a look
  unsigned m_entries = ~0u;   // since what lies ahead was last looked at
  // One for each directory that the walk is in, the base's first.
  std::deque<Level> m_levels;
  Piece m_entered;  // of the directory that the walk stands on and may go into
  // Looks that are not in use, for their memory.
  std::vector<std::unique_ptr<Look>> m_spare;
  // Last: it waits for what is being done to the looks.
  WorkerPool m_pool;
};

}  // namespace morvane
