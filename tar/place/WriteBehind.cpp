// A worker's calls are those of the ordinary way, without its detours: what is in the way, a missing parent
// or a full disk are met again by whoever does it in order.
#include "tar/place/WriteBehind.h"

#include <algorithm>
#include <cerrno>
#include <functional>
#include <utility>

namespace morvane {

namespace {

// Where so many bytes of files are under way, the oldest are waited for.
constexpr unsigned kBytes = 4 * 1024 * 1024;
// So many bytes are kept in rooms that wait for the next files.
constexpr unsigned kSpareBytes = 2 * 1024 * 1024;
constexpr unsigned kBatches = 16;
constexpr size_t kDirectories = 4096;
// Fewer are not worth a batch of their own.
constexpr unsigned kWorthBatch = 8;

size_t hashOf(const std::string& path) { return std::hash<std::string>()(path); }

bool areInOneDirectory(const std::string& a, const std::string& b) {
  const size_t slash = a.rfind('/'), length = slash == std::string::npos ? 0 : slash;
  return b.rfind('/') == slash && a.compare(0, length, b, 0, length) == 0;
}

bool writeWhole(const OsFile& file, const char* bytes, size_t n) {
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

// As many batches as keep all workers busy.
WriteBehind::WriteBehind(unsigned workers)
    : m_batches(std::max(kBatches, workers * 2)),
      m_filesInBatch(itemsInTask(workers)),
      m_bytesInBatch(kBytes / m_batches),
      m_hashes(static_cast<size_t>(m_batches + 2) * m_filesInBatch),
      m_ring(workers, m_batches + 1) {}

void WriteBehind::noteOwnDirectory(const std::string& path) {
  if (m_ownDirectories.size() >= kDirectories) {
    std::unordered_set<std::string> kept;
    for (size_t slash = path.find('/'); slash != std::string::npos; slash = path.find('/', slash + 1)) {
      if (isOwnDirectory(path.substr(0, slash))) kept.insert(path.substr(0, slash));
    }
    m_ownDirectories = std::move(kept);
  }
  m_ownDirectories.insert(path);
}

bool WriteBehind::meets(const std::string& path) const {
  return !isEmpty() && std::find(m_hashes.begin(), m_hashes.end(), hashOf(path)) != m_hashes.end();
}

// A large file begins a batch, so that a worker has what came before while its bytes arrive. One that fills
// it is handed in at once: that is the second batch without anything taken in between.
WriteBehind::File& WriteBehind::next(ConfinedDir& target, std::string path, unsigned size) {
  Batch* batch = &m_ring.next();
  const bool isOtherPlace =
      batch->count >= kWorthBatch && !areInOneDirectory(batch->files[batch->count - 1].path, path);
  if (batch->count > 0 && (isOtherPlace || size >= m_bytesInBatch)) {
    handIn();
    batch = &m_ring.next();
  }
  if (batch->files.empty()) batch->files.resize(m_filesInBatch);
  if (!batch->room) batch->room = takeRoom();
  File& file = batch->files[batch->count];
  const File* const before = batch->count > 0 ? &batch->files[batch->count - 1] : nullptr;
  const unsigned used = before ? before->start + before->size : 0;
  DataBuffer& data = batch->room->data;
  data.truncate(used);
  if (used == 0 && size > batch->room->most) data.clear();  // an empty buffer takes exactly what it needs
  (void)data.reserveMore(size);  // without memory for all at once it grows as far as it can
  batch->target = &target;
  file.data = &data;
  file.start = used;
  file.path = std::move(path);
  file.isDone = false;
  return file;
}

void WriteBehind::submit(File& file) {
  file.takeSize();
  m_hashes[m_submitted++ % m_hashes.size()] = hashOf(file.path);
  Batch& batch = m_ring.next();
  ++batch.count;
  if (batch.count == m_filesInBatch || batch.bytes() >= m_bytesInBatch) handIn();
}

std::unique_ptr<WriteBehind::Room> WriteBehind::takeRoom() {
  if (m_spareRooms.empty()) return std::make_unique<Room>();
  std::unique_ptr<Room> room = std::move(m_spareRooms.back());
  m_spareRooms.pop_back();
  m_spareBytes -= room->most;
  return room;
}

void WriteBehind::giveBack(std::unique_ptr<Room> room) {
  room->most = std::max<size_t>(room->most, room->data.getSize());
  if (m_spareBytes + room->most > kSpareBytes) return;
  m_spareBytes += room->most;
  room->data.weakClear();
  m_spareRooms.push_back(std::move(room));
}

// The weight of a batch is that of its calls, too.
void WriteBehind::handIn() {
  Batch& batch = m_ring.next();
  if (batch.count == 0) return;
  m_bytesUnderWay += batch.bytes();
  m_ring.submit(batch.bytes() + batch.count * size_t{32 * 1024});
  m_ring.next().count = 0;
}

WriteBehind::File* WriteBehind::nextUndone(bool waitsForAll) {
  if (waitsForAll) handIn();
  while (true) {
    while (m_done && m_doneTaken < m_done->count) {
      File& file = m_done->files[m_doneTaken++];
      m_hashes[m_taken % m_hashes.size()] = 0;
      if (m_taken++ >= m_againBefore && file.isDone) continue;
      m_againBefore = m_submitted;
      return &file;
    }
    if (m_done) {
      if (m_lastRoom) giveBack(std::move(m_lastRoom));
      m_lastRoom = std::move(m_done->room);
    }
    m_done = nullptr;
    const bool isFull = m_ring.underWay() >= m_batches || m_bytesUnderWay >= kBytes;
    const bool takes = !m_ring.isEmpty() && (waitsForAll || isFull || m_ring.oldestIsDone());
    if (!takes) return nullptr;
    m_done = &m_ring.take();
    m_doneTaken = 0;
    m_bytesUnderWay -= m_done->bytes();
  }
}

void WriteBehind::waitForAll() {
  while (nextUndone(true)) {
  }
}

void WriteBehind::Batch::work() {
  for (unsigned i = 0; i < count; ++i) make(files[i]);
}

void WriteBehind::Batch::make(File& file) {
  OsFile made(target->createNew(file.path, file.mode));
  if (!made.isOpen()) return;
  file.isDone =
      writeWhole(made, file.bytes(), file.size) && file.settlement.apply(made.fd()) && made.close() == 0;
  // Half of a file would pass for one if nobody came back to it.
  if (!file.isDone) target->removeNew(file.path);
}

}  // namespace morvane
