// Small files made by workers, behind the run that reads them: created, written, settled, closed.
//
// The run stays in order: it parses, asks, chooses and makes directories and links. A file is handed over
// only where nothing but the system can keep it from being made as it should: an ordinary file, in a
// directory that the run itself has made. What a worker could not do as it should is given back, and the run
// does it again in the ordinary way, which finds out why and says so.
#pragma once

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

// One for a run, on its thread, and gone before the target is: workers make files beneath that.
class WriteBehind {
 public:
  // Larger files are written in their turn.
  static constexpr long long kMostBytes = 64 * 1024;

  struct File : OrderedRing::Job {
    void work() override;

    ConfinedDir* target = nullptr;
    std::string path;       // below the target, clean
    std::string entryPath;  // the same as the member has it
    unsigned mode = 0;
    FileSettlement settlement;
    DataBuffer data;
    // For doing it again: the target, and of the member what a plain file needs.
    XString targetDir;
    Member member;
    int arrival = 0;  // a push engine's, for its messages
    bool isDone = false;
  };

  // `workers` is not 0.
  explicit WriteBehind(unsigned workers);

  // A directory that the run has made: nothing is in it but what the run puts there.
  void noteOwnDirectory(const std::string& path) { m_ownDirectories.insert(path); }
  // Something else has been put in its place.
  void forgetOwnDirectory(const std::string& path) { m_ownDirectories.erase(path); }
  void forgetOwnDirectories() { m_ownDirectories.clear(); }
  bool isOwnDirectory(const std::string& path) const { return m_ownDirectories.count(path) > 0; }
  // Whether the path, or one that it lies below, is that of a file under way.
  bool meets(const std::string& path) const;

  // The file to be filled in and handed over, where there is room.
  File& next() { return m_ring.next(); }
  void submit();
  bool isEmpty() const { return m_ring.isEmpty(); }
  // The oldest file that is not done though it was its turn, or null: of all, for which it waits, or of those
  // that need no waiting. Good until the next call. What was handed in behind such a file counts as not done
  // either, because it may have been made before what it was to replace.
  File* nextUndone(bool waitsForAll);
  // Waits until nothing is under way; what is not done is left so.
  void waitForAll();

 private:
  std::unordered_set<std::string> m_ownDirectories;
  // The paths of files under way, in their order: the oldest stands at m_oldest.
  std::vector<std::string> m_underWay;
  size_t m_oldest = 0;
  unsigned m_again = 0;  // so many of the oldest are to be done again
  RingOf<File> m_ring;
};

}  // namespace morvane
