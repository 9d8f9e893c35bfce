// A worker's calls are those of the ordinary way, without its detours: what is in the way, a missing parent
// or a full disk are met again by whoever does it in order.
#include "tar/place/WriteBehind.h"

#include <algorithm>
#include <cerrno>

namespace morvane {

namespace {

// So many files are under way at most: 4 MiB with all their data.
constexpr unsigned kFiles = 64;

bool writeWhole(const OsFile& file, const unsigned char* bytes, size_t n) {
  while (n > 0) {
    const ssize_t written = file.writeSome(bytes, n);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    bytes += written;
    n -= static_cast<size_t>(written);
  }
  return true;
}

}  // namespace

WriteBehind::WriteBehind(unsigned workers) : m_underWay(kFiles), m_ring(workers, kFiles) {}

bool WriteBehind::meets(const std::string& path) const {
  const unsigned count = m_ring.underWay();
  for (unsigned i = 0; i < count; ++i) {
    const std::string& other = m_underWay[(m_oldest + i) % m_underWay.size()];
    const bool isAtOrAbove = path.compare(0, other.size(), other) == 0 &&
                             (path.size() == other.size() || path[other.size()] == '/');
    if (isAtOrAbove) return true;
  }
  return false;
}

void WriteBehind::submit() {
  File& file = m_ring.next();
  m_underWay[(m_oldest + m_ring.underWay()) % m_underWay.size()] = file.path;
  file.isDone = false;
  m_ring.submit(file.data.getSize() + 4096);
}

WriteBehind::File* WriteBehind::nextUndone(bool waitsForAll) {
  while (!m_ring.isEmpty() && (waitsForAll || m_ring.isFull() || m_ring.oldestIsDone())) {
    File& file = m_ring.take();
    m_oldest = (m_oldest + 1) % m_underWay.size();
    const bool isToBeDoneAgain = m_again > 0;
    if (isToBeDoneAgain) --m_again;
    if (file.isDone && !isToBeDoneAgain) continue;
    m_again = std::max(m_again, m_ring.underWay());
    return &file;
  }
  return nullptr;
}

void WriteBehind::waitForAll() {
  while (nextUndone(true)) {
  }
}

void WriteBehind::File::work() {
  OsFile made(target->createNew(path, mode));
  if (!made.isOpen()) return;
  isDone =
      writeWhole(made, data.getData2(), data.getSize()) && settlement.apply(made.fd()) && made.close() == 0;
  // Half of a file would pass for one if nobody came back to it.
  if (!isDone) target->removeNew(path);
}

}  // namespace morvane
