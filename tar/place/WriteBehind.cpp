// A worker's calls are those of the ordinary way, without its detours: what is in the way, a missing parent
// or a full disk are met again by whoever does it in order.
#include "tar/place/WriteBehind.h"

#include <algorithm>
#include <cerrno>
#include <functional>
#include <new>
#include <utility>

#include "runtime/io/_mvOutput.h"
#include "runtime/log/LogBase.h"

namespace morvane {

namespace {

// Bytes of files that may be under way; beyond them the oldest are waited for, so that memory does not depend
// on the archive.
constexpr unsigned kBytes = 4 * 1024 * 1024;
// The same of data that workers read, because files under way are waited for whatever an application says.
constexpr size_t kUnreadBytes = 32 * 1024 * 1024;
// In which those are read: what is still in the processor's caches when it is written.
constexpr size_t kPiece = 128 * 1024;
// Bytes that rooms may keep, in use or not, when they are given back; others lose their memory then. A room
// in use may be a large one with little in it.
constexpr unsigned kRoomBytes = 6 * 1024 * 1024;
// Batches under way with a few workers: each has one to do and some in store while the first thread waits for
// data.
constexpr unsigned kBatches = 16;
// Paths of the run's own directories. A tree of millions must not fill memory with them. Files of one that
// was forgotten are made in their turn, and links wait for those that are under way (hasForgotten).
constexpr size_t kDirectories = 4096, kDirectoryBytes = 1024 * 1024;
// Fewer are not worth a batch of their own.
constexpr unsigned kWorthBatch = 8;

size_t hashOf(const std::string& path) { return std::hash<std::string>()(path); }

// Paths are clean, so that equal parents are equal texts.
bool areInOneDirectory(const std::string& a, const std::string& b) {
  const size_t slash = a.rfind('/'), length = slash == std::string::npos ? 0 : slash;
  return b.rfind('/') == slash && a.compare(0, length, b, 0, length) == 0;
}

// Bytes of a file, from its `done`-th on, up to `most`. 0 where they cannot be read.
size_t readAt(const WriteBehind::File& file, unsigned done, char* piece, size_t most) {
  const size_t wanted = std::min<size_t>(most, file.size - done);
  ssize_t got = 0;
  do {
    got = file.origin.file->readSomeAt(piece, wanted, file.origin.at + done);
  } while (got < 0 && errno == EINTR);
  return got < 0 ? 0 : static_cast<size_t>(got);
}

// All bytes of a file with an origin, through `piece`; false where they cannot be read, or `put` says so.
template <class Put>
bool forEachPiece(const WriteBehind::File& file, char* piece, size_t most, Put put) {
  for (unsigned done = 0; done < file.size;) {
    const size_t got = readAt(file, done, piece, most);
    if (got == 0 || !put(got)) return false;
    done += static_cast<unsigned>(got);
  }
  return true;
}

}  // namespace

// In the first thread, and seldom. Small pieces are enough there.
bool WriteBehind::File::writeTo(_mvOutput& out, LogBase& log) const {
  if (!origin.file) return out.writeBytesPM(bytes(), size, nullptr, log);
  char piece[16 * 1024];
  return forEachPiece(*this, piece, sizeof piece, [&](size_t n) {
    return out.writeBytesPM(piece, static_cast<unsigned>(n), nullptr, log);
  });
}

// As many batches as keep all workers busy. The hashes have places for all files that are not taken yet: of
// the batches handed in, of the one that is being filled and of one more. The ring has that one more, because
// a large file may hand in two batches between two calls of nextUndone.
WriteBehind::WriteBehind(unsigned workers)
    : m_batches(std::max(kBatches, workers * 2)),
      m_filesInBatch(itemsInTask(workers)),
      m_bytesInBatch(kBytes / m_batches),
      m_hashes(static_cast<size_t>(m_batches + 2) * m_filesInBatch),
      m_ring(workers, m_batches + 1) {}

// When there are too many, all are forgotten but those on the way to the new one: members come in the order
// of a walk as a rule, and what they need is what is above them.
void WriteBehind::noteOwnDirectory(const std::string& path) {
  if (m_ownDirectories.size() >= kDirectories || m_ownBytes + path.size() > kDirectoryBytes) {
    std::unordered_set<std::string> kept;
    m_ownBytes = 0;
    for (size_t slash = path.find('/'); slash != std::string::npos; slash = path.find('/', slash + 1)) {
      const std::string above = path.substr(0, slash);
      if (m_ownBytes + above.size() > kDirectoryBytes / 2 || !isOwnDirectory(above)) break;
      m_ownBytes += above.size();
      kept.insert(above);
    }
    m_ownDirectories = std::move(kept);
    m_forgottenAt = m_submitted;
    // Those above it were too long to be kept; without them it is in no directory of the run's own.
    const size_t slash = path.rfind('/');
    if (slash != std::string::npos && !isOwnDirectory(path.substr(0, slash))) return;
  }
  if (m_ownDirectories.insert(path).second) m_ownBytes += path.size();
}

// A search from end to end: there are some hundreds of numbers, side by side in memory. A path whose hash is
// 0 is met by every free place, which costs a wait.
bool WriteBehind::meets(const std::string& path) const {
  return !isEmpty() && std::find(m_hashes.begin(), m_hashes.end(), hashOf(path)) != m_hashes.end();
}

// A large file begins a batch, so that a worker has what came before while its bytes arrive. One that fills
// it is handed in at once: that is the second batch without anything taken in between.
WriteBehind::File& WriteBehind::next(ConfinedDir& target, std::string path, unsigned size, Origin origin) {
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
  const unsigned used = before ? before->start + before->bytesInMemory() : 0;
  const unsigned kept = origin.file ? 0 : size;
  DataBuffer& data = batch->room->data;
  // A file that was begun and not submitted has left bytes here.
  data.truncate(used);
  if (used == 0 && kept > batch->room->most) data.clear();  // an empty buffer takes exactly what it needs
  (void)data.reserveMore(kept);  // without memory for all at once it grows as far as it can
  batch->target = &target;
  file.data = &data;
  file.start = used;
  file.size = 0;
  file.origin = origin;
  file.path = std::move(path);
  // The entry is one of an earlier batch, whose other values are set by whoever fills it.
  file.isDone = false;
  return file;
}

// The hash is noted before a worker has the file, so that whatever comes next already meets it.
void WriteBehind::submit(File& file) {
  m_hashes[m_submitted++ % m_hashes.size()] = hashOf(file.path);
  Batch& batch = m_ring.next();
  if (batch.count++ == 0) batch.unread = 0;
  file.takeSize();
  batch.unread += file.size - file.bytesInMemory();
  if (batch.count == m_filesInBatch || batch.bytes() + batch.unread >= m_bytesInBatch) handIn();
}

// The one that was given back last, whose memory is most likely still in the processor's caches.
std::unique_ptr<WriteBehind::Room> WriteBehind::takeRoom() {
  if (m_spareRooms.empty()) return std::make_unique<Room>();
  std::unique_ptr<Room> room = std::move(m_spareRooms.back());
  m_spareRooms.pop_back();
  return room;
}

// A room beyond what may be kept is destroyed with its memory. `most` only grows: a buffer that was emptied
// keeps what it had.
void WriteBehind::giveBack(std::unique_ptr<Room> room) {
  const size_t most = std::max<size_t>(room->most, room->data.getSize());
  m_roomBytes += most - room->most;
  room->most = most;
  if (m_roomBytes > kRoomBytes) {
    m_roomBytes -= most;
    return;
  }
  room->data.weakClear();
  m_spareRooms.push_back(std::move(room));
}

// The weight of a batch is that of its calls, too. 32 KiB stand for the calls that each file takes. The next
// job of the ring still has the count of its last use.
void WriteBehind::handIn() {
  Batch& batch = m_ring.next();
  if (batch.count == 0) return;
  const size_t bytes = batch.bytes(), unread = batch.unread;
  m_ring.submit(bytes + unread + batch.count * size_t{32 * 1024});
  // Only now, because without memory for it the batch is not under way.
  m_bytesUnderWay += bytes;
  m_unreadUnderWay += unread;
  m_ring.next().count = 0;
}

// Files are taken in the order in which they were submitted. Once one was not done, all that are submitted by
// then count as not done (m_againBefore): the ordinary way makes them again in their order and replaces what
// workers have made of them. A batch's room is kept until the next batch is through, because a file that is
// not submitted may lie in it and still be read.
WriteBehind::File* WriteBehind::nextUndone(bool waitsForAll) {
  if (waitsForAll) handIn();
  while (true) {
    while (m_done && m_doneTaken < m_done->count) {
      File& file = m_done->files[m_doneTaken++];
      // From here on nothing of this path is under way.
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
    const bool isFull =
        m_ring.underWay() >= m_batches || m_bytesUnderWay >= kBytes || m_unreadUnderWay >= kUnreadBytes;
    const bool takes = !m_ring.isEmpty() && (waitsForAll || isFull || m_ring.oldestIsDone());
    if (!takes) return nullptr;
    m_done = &m_ring.take();
    m_doneTaken = 0;
    m_bytesUnderWay -= m_done->bytes();
    m_unreadUnderWay -= m_done->unread;
  }
}

// Rooms stay with their batches, which use them again.
void WriteBehind::dropAll() {
  m_ring.dropAll();
  m_ring.next().count = 0;
  m_done = nullptr;
  m_bytesUnderWay = m_unreadUnderWay = 0;
  m_taken = m_submitted;
  std::fill(m_hashes.begin(), m_hashes.end(), 0);
}

// One that fails does not end the batch, as the others may be in good order; the first thread sorts that out.
// Without memory a file is not done, and its turn says so; those behind it are tried all the same.
void WriteBehind::Batch::work() {
  for (unsigned i = 0; i < count; ++i) {
    try {
      make(files[i]);
    } catch (const std::bad_alloc&) {
      files[i].isDone = false;
    }
  }
  piece = nullptr;
}

// In a worker. It touches the file's own values and the target's calls that any thread may make, and nothing
// of the run. Closed before it counts as done, because a network's file system may tell of a failed write
// only then.
void WriteBehind::Batch::make(File& file) {
  // It may throw, and so comes before the file.
  if (file.origin.file && !piece) piece.reset(new char[kPiece]);
  OsFile made(target->createNew(file.path, file.mode));
  if (!made.isOpen()) return;
  file.isDone = fill(made, file) && file.settlement.apply(made.fd()) && made.close() == 0;
  // Half of a file would pass for one if nobody came back to it.
  if (!file.isDone) target->removeNew(file.path);
}

// Data that cannot be read make the file one that is not done: its turn meets the same, and tells it. The
// piece is not on the stack, because that may be the application's, and a small one.
bool WriteBehind::Batch::fill(const OsFile& made, const File& file) {
  if (!file.origin.file) return made.writeWhole(file.bytes(), file.size) == 0;
  return forEachPiece(file, piece.get(), kPiece,
                      [&](size_t n) { return made.writeWhole(piece.get(), n) == 0; });
}

}  // namespace morvane
