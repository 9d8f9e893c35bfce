// A worker's calls are those of the ordinary way, without its detours: what is in the way, a missing parent
// or a full disk are met again by whoever does it in order.
#include "tar/place/WriteBehind.h"

#include <cerrno>
#include <string_view>

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

// FNV-1a.
unsigned long long WriteBehind::hashOf(std::string_view path) {
  unsigned long long hash = 0xCBF29CE484222325ULL;
  for (const char c : path) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001B3ULL;
  return hash;
}

bool WriteBehind::meets(const std::string& path) const {
  const unsigned count = m_ring.underWay();
  for (size_t end = path.find('/'); count > 0; end = path.find('/', end + 1)) {
    const unsigned long long hash = hashOf(std::string_view(path).substr(0, end));
    for (unsigned i = 0; i < count; ++i) {
      if (m_underWay[(m_oldest + i) % m_underWay.size()] == hash) return true;
    }
    if (end == std::string::npos) return false;
  }
  return false;
}

void WriteBehind::submit() {
  File& file = m_ring.next();
  m_underWay[(m_oldest + m_ring.underWay()) % m_underWay.size()] = hashOf(file.path);
  file.isDone = false;
  m_ring.submit(file.data.getSize() + 4096);
}

WriteBehind::File* WriteBehind::nextUndone(bool waitsForAll) {
  while (!m_ring.isEmpty() && (waitsForAll || m_ring.isFull() || m_ring.oldestIsDone())) {
    File& file = m_ring.take();
    m_oldest = (m_oldest + 1) % m_underWay.size();
    if (!file.isDone) return &file;
  }
  return nullptr;
}

void WriteBehind::waitForAll() {
  while (nextUndone(true)) {
  }
}

void WriteBehind::File::work() {
  OsFile made(target->createNew(path, mode));
  isDone = made.isOpen() && writeWhole(made, data.getData2(), data.getSize()) &&
           settlement.apply(made.fd()) && made.close() == 0;
}

}  // namespace morvane
