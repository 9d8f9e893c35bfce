// A worker does what needs no order: open, look, read, close. Whatever is not as usual is left as it is, for
// the ordinary way to find and to tell.
#include "tar/write/ReadAhead.h"

#include "runtime/fs/ClsDirTree.h"

namespace morvane {

namespace {

// So many files are under way at most: enough to keep several workers busy, and 4 MiB with all their bytes.
constexpr unsigned kFiles = 64;

}  // namespace

ReadAhead::ReadAhead(unsigned workers) : m_ring(workers, kFiles) {}

ReadAhead::Found* ReadAhead::enter() {
  if (m_entries.empty()) return nullptr;
  const bool wasHandedIn = m_entries.front();
  m_entries.pop_front();
  return wasHandedIn ? &m_ring.take().found : nullptr;
}

// Up to the next directory, which the walk goes into first. What is no regular file is passed over here.
// Refilled only when half of it is used up, so that threads are not woken for each file.
void ReadAhead::lookAhead(const ClsDirTree& tree) {
  if (m_ring.underWay() > kFiles / 2) return;
  while (!m_ring.isFull() && m_entries.size() < 2 * kFiles) {
    bool isRegular = false;
    const char* const name = tree.nameAhead(m_entries.size() + 1, isRegular);
    if (!name) return;
    m_entries.push_back(isRegular);
    if (!isRegular) continue;
    Job& job = m_ring.next();
    job.directory = tree.currentDirectory();
    job.name = name;
    m_ring.submit(kMostBytes / 4);
  }
}

// Nothing stays open: a process may have few files open, and of a file that was not read whole little is lost
// by opening it again.
void ReadAhead::Job::work() {
  found.isThere = found.isWhole = false;
  const OsFile file(osOpenSource(directory, name.c_str()));
  struct stat status;
  if (!file.isOpen() || file.status(status) != 0 || !S_ISREG(status.st_mode)) return;
  found.info.setFromStatus(status);
  found.isThere = true;
  // Holes are looked for in the open file.
  if (found.info.m_size <= kMostBytes && found.info.m_storedSize >= found.info.m_size) read(file);
}

// One byte more is asked for: a read that stops in front of it has met the end. A file that has changed, or
// cannot be read, is read in its turn.
void ReadAhead::Job::read(const OsFile& file) {
  if (!found.bytes) found.bytes.reset(new char[kMostBytes + 1]);
  const auto size = static_cast<size_t>(found.info.m_size);
  const ssize_t got = file.readSomeAt(found.bytes.get(), size + 1, 0);
  found.isWhole = got >= 0 && static_cast<size_t>(got) == size;
}

}  // namespace morvane
