// Small files of a directory, opened, examined and read by workers before their turn in the archive comes.
//
// A walk tells what follows in its directory; that is as far as is looked ahead, because what becomes of a
// directory is decided when its turn comes. The turns stay the first thread's: what was found is taken there,
// in the walk's order, and told there.
#pragma once

#include <deque>
#include <memory>
#include <string>

#include "runtime/fs/OsFile.h"
#include "runtime/fs/mvFileInfo.h"
#include "runtime/parallel/OrderedRing.h"

namespace morvane {

class ClsDirTree;

// One for the walk of a tree, on one thread, and gone before the walk is: workers use its open directories.
class ReadAhead {
 public:
  // Files of more bytes are only examined, and read in their turn.
  static constexpr unsigned kMostBytes = 64 * 1024;

  // What there is of one file.
  struct Found {
    bool isThere = false;  // a regular file could be examined; else everything waits for its turn
    mvFileInfo info;
    bool isWhole = false;           // the file had exactly the bytes that it states
    std::unique_ptr<char[]> bytes;  // info.m_size of them
  };

  // `workers` is not 0.
  explicit ReadAhead(unsigned workers);

  // The walk stands on its next entry: what was found of it, null if it was not looked at. Good until the
  // next call. Called for each entry, in order. Throws std::bad_alloc.
  Found* enter();
  // Hands in the files that follow the walk's entry.
  void lookAhead(const ClsDirTree& tree);

 private:
  struct Job : OrderedRing::Job {
    void work() override;
    void read(const OsFile& file);

    int directory = -1;
    std::string name;
    Found found;
  };

  // Entries behind the current one that were looked at: whether each was handed in.
  std::deque<bool> m_entries;
  RingOf<Job> m_ring;
};

}  // namespace morvane
