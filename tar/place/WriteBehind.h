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
    std::string path;  // below the target, clean
    unsigned mode = 0;
    FileSettlement settlement;
    DataBuffer data;
    Member member;  // for doing it again
    bool isDone = false;
  };

  // `workers` is not 0.
  explicit WriteBehind(unsigned workers);

  // A directory that the run has made, or that was empty when it began: "" for the target.
  void noteOwnDirectory(const std::string& path) { m_ownDirectories.insert(hashOf(path)); }
  void forgetOwnDirectory(const std::string& path) { m_ownDirectories.erase(hashOf(path)); }
  bool isOwnDirectory(const std::string& path) const { return m_ownDirectories.count(hashOf(path)) > 0; }
  // Whether the path, or one that it lies below, is that of a file under way. A wrong yes is possible, and
  // does no harm.
  bool meets(const std::string& path) const;

  // The file to be filled in and handed over, where there is room.
  File& next() { return m_ring.next(); }
  void submit();
  bool isFull() const { return m_ring.isFull(); }
  bool isEmpty() const { return m_ring.isEmpty(); }
  // The oldest file that is not done though it was its turn, or null: of all, for which it waits, or of those
  // that need no waiting. Good until the next call.
  File* nextUndone(bool waitsForAll);
  // Waits until nothing is under way; what is not done is left so.
  void waitForAll();

 private:
  static unsigned long long hashOf(std::string_view path);

  std::unordered_set<unsigned long long> m_ownDirectories;
  // Of the paths of files under way, in their order: the oldest stands at m_oldest.
  std::vector<unsigned long long> m_underWay;
  size_t m_oldest = 0;
  RingOf<File> m_ring;
};

}  // namespace morvane
