// Small files made by workers, behind the run that reads them: created, written, settled, closed.
//
// The run stays in order: it parses, asks, chooses and makes directories and links. A file is handed over
// only where nothing but the system can keep it from being made as it should: an ordinary file, in a
// directory that the run itself has made. What a worker could not do as it should is given back, and the run
// does it again in the ordinary way, which finds out why and says so.
// It knows nothing of options, events or the log: which members may go behind is MemberPlacer's to decide
// (PlaceBehind.cpp), and what a failure means the engine's.
#pragma once

#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include "runtime/buffer/DataBuffer.h"
#include "runtime/fs/ConfinedDir.h"
#include "runtime/parallel/OrderedRing.h"
#include "runtime/text/XString.h"
#include "tar/format/Member.h"
#include "tar/place/FileSettlement.h"

namespace morvane {

class LogBase;
class _mvOutput;

// One for a run, on its thread, and gone before the target is: workers make files beneath that. Everything is
// called by that thread but Batch::work. A batch belongs to its worker from handIn until the ring gives it
// back, so that nothing in it needs a lock. Memory: about 4 MiB of data under way, up to 2 MiB of spare room,
// and the batch that is being filled.
class WriteBehind {
 public:
  // Larger files are written in their turn: by piece, because as a whole they would be much to keep.
  static constexpr long long kMostBytes = 1024 * 1024;
  // The same where the worker reads the data: that keeps nothing, but cannot be aborted.
  static constexpr long long kMostUnread = 8 * 1024 * 1024;
  // Where data lie that are not read yet: an open file, read by position. It must outlive the run.
  struct Origin {
    const OsFile* file = nullptr;  // null: they are in memory
    long long at = 0;
  };

  struct File {
    // Its data, at the end of the batch's until another file begins. Not of one with an origin.
    const char* bytes() const { return reinterpret_cast<const char*>(data->getData2()) + start; }
    // What has come of them so far. An origin's size is told as it is passed over.
    void takeSize() {
      if (!origin.file) size = data->getSize() - start;
    }
    unsigned bytesInMemory() const { return origin.file ? 0 : size; }
    // Its data, wherever they are. False where they cannot be read or written to their end; of the reason
    // only the output's is in the log.
    bool writeTo(_mvOutput& out, LogBase& log) const;

    // Set by next(), and by the placer before submit().
    std::string path;       // below the target, clean
    std::string entryPath;  // the same as the member has it
    unsigned mode = 0;
    FileSettlement settlement;
    DataBuffer* data = nullptr;  // of the batch; to be appended to
    unsigned start = 0, size = 0;
    Origin origin;
    // For doing it again: the target, and of the member what a plain file needs.
    XString targetDir;
    // Of the member it has what a plain file is made of (Member::copyPlain).
    Member member;
    int arrival = 0;  // a push engine's, for its messages
    // By the worker, and read once the ring has given the batch back.
    bool isDone = false;
  };

  // `workers` is not 0.
  explicit WriteBehind(unsigned workers);

  // A directory that the run has made: nothing is in it but what the run puts there. Of very many only those
  // noted last are known, and those that these lie in. Paths are clean; a file may be handed over only where
  // one of these holds it, or where the target was empty.
  void noteOwnDirectory(const std::string& path);
  void forgetOwnDirectories() { m_ownDirectories.clear(); }
  bool isOwnDirectory(const std::string& path) const { return m_ownDirectories.count(path) > 0; }
  // Whether files are under way in directories that are not known any more.
  bool hasForgotten() const { return m_taken < m_forgottenAt; }
  // Whether the path is that of a file under way. Of another path too in rare cases, for only hashes are
  // compared.
  bool meets(const std::string& path) const;

  // A file of `size` bytes to be filled in and submitted. One that was not submitted is forgotten with the
  // next. Behind each submit nextUndone is called, because only that makes room. `size` is what the header
  // says, at most kMostBytes, and less may come; or kMostUnread where there is an origin, which is exact.
  // Throws std::bad_alloc.
  File& next(ConfinedDir& target, std::string path, unsigned size, Origin origin);
  void submit(File& file);
  bool isEmpty() const { return m_submitted == m_taken; }
  // The oldest file that is not done though it was its turn, or null: of all, for which it waits, or of those
  // that need no waiting. Good until the next call. What was submitted behind such a file counts as not done
  // either, because it may have been made before what it was to replace. Throws what a worker threw.
  File* nextUndone(bool waitsForAll);
  // For a run that has failed: what no worker has begun is not made, and the rest is waited for. Then nothing
  // is under way.
  void dropAll();

 private:
  // The bytes of a batch. Given back and taken again, the one used last first, so that there are as many as
  // are needed at a time, and not one as large as the largest file for each batch.
  struct Room {
    // One file behind the other.
    DataBuffer data;
    size_t most = 0;  // bytes that were in it at a time: it keeps room for them
  };

  // Files are handed to workers by the batch: those that follow one another in a directory, so that one
  // worker stays in it; for others would wait for the directory's lock.
  struct Batch : OrderedRing::Job {
    void work() override;
    void make(File& file);
    bool fill(const OsFile& made, const File& file);
    size_t bytes() const { return room->data.getSize(); }

    // Shared by all workers and the first thread: of it workers call what any thread may (ConfinedDir).
    ConfinedDir* target = nullptr;
    std::vector<File> files;  // kept for their room; `count` of them are the batch's
    unsigned count = 0;
    size_t unread = 0;              // bytes of those that have an origin
    std::unique_ptr<Room> room;     // from its first file to its last
    std::unique_ptr<char[]> piece;  // for data at an origin; while it is worked at alone
  };

  // Gives the batch that is being filled to the workers, if it has a file.
  void handIn();
  std::unique_ptr<Room> takeRoom();
  void giveBack(std::unique_ptr<Room> room);

  // By the number of workers, so that memory does not grow with it. So many batches are under way, and for a
  // moment one more. Bytes of a batch are a bound that its last file may pass.
  const unsigned m_batches, m_filesInBatch, m_bytesInBatch;
  std::vector<std::unique_ptr<Room>> m_spareRooms;
  // Of the batch done last: a file that was not submitted with it is read from there all the same.
  std::unique_ptr<Room> m_lastRoom;
  size_t m_roomBytes = 0;  // that all rooms keep, by what was noted when they were given back
  // Of batches handed in and not taken: in memory, and at origins.
  size_t m_bytesUnderWay = 0, m_unreadUnderWay = 0;
  std::unordered_set<std::string> m_ownDirectories;
  size_t m_ownBytes = 0;                 // of their paths
  unsigned long long m_forgottenAt = 0;  // files of lower numbers may be in one that was forgotten
  // Of the paths of files under way, by their numbers. A ring; 0 is a free place.
  std::vector<size_t> m_hashes;
  // Numbers of files: so many were submitted, and so many taken.
  unsigned long long m_submitted = 0, m_taken = 0;
  unsigned long long m_againBefore = 0;  // files of lower numbers are to be done again
  Batch* m_done = nullptr;               // the one that files are taken from, and how many were
  unsigned m_doneTaken = 0;
  // Last, because it waits for the workers, which use what stands before it.
  RingOf<Batch> m_ring;
};

}  // namespace morvane
