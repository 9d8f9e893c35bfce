// A worker does what needs no order: open, look, read, close. The first thread keeps, for each directory on
// the walk's way, the looks at what comes behind; the deeper the directory the sooner they are wanted.
#include "tar/write/ReadAhead.h"

#include <dirent.h>

#include <algorithm>
#include <utility>

#include "runtime/fs/ClsDirTree.h"

namespace morvane {

namespace {

// Enough to keep all workers busy, some of them in directories that the walk is about to come to. Each may
// have a directory open. There are fewer where the process may open few files (filesToSpare).
constexpr unsigned kFewestLooks = 32, kMostLooks = 64, kLooksForWorker = 8;
// Bytes of files that were read, in all looks together; with the most looks each still has room for one file
// of the largest size.
constexpr size_t kBytes = 4 * 1024 * 1024;
// What lies ahead is looked at once in so many entries, so that threads are not woken for each.
constexpr unsigned kEntriesBetween = 8;
// The walk closes directories that it is far below; so nothing may be under way in them by then.
constexpr size_t kDeepest = 24;
// Worth a thread (see WorkerPool::submit): some dozens of files, or a few directories.
constexpr size_t kWeightOfFile = 16 * 1024, kWeightOfDirectory = 128 * 1024;

// Where the file system tells no type, the entry is examined in its turn.
bool mayBeDirectory(unsigned char type) { return type == DT_DIR || type == DT_UNKNOWN; }

}  // namespace

// A room holds a file of the largest size and the one byte more by which its end is seen.
ReadAhead::ReadAhead(unsigned workers)
    : m_mostLooks(std::min(std::clamp(workers * kLooksForWorker, kFewestLooks, kMostLooks), filesToSpare())),
      m_mostFiles(itemsInTask(workers)),
      m_roomSize(std::max<size_t>(kBytes / std::max(m_mostLooks, kFewestLooks), kMostBytes + 1)),
      m_pool(workers) {}

// What lies before the walk's entry has been passed and gives its place to others. Waiting is for the look at
// this very entry only; the first thread does it by itself if nobody has begun.
const ReadAhead::Found* ReadAhead::enter(ClsDirTree& tree) {
  followWalk(tree);
  Level& level = m_levels.back();
  const size_t index = tree.currentIndex();
  level.lookedTo = std::max(level.lookedTo, index + 1);
  while (!level.pieces.empty() && level.pieces.front().first + level.pieces.front().count <= index) {
    giveUp(std::move(level.pieces.front()));
    level.pieces.pop_front();
  }
  if (level.pieces.empty() || level.pieces.front().first > index) return nullptr;
  const Piece& piece = level.pieces.front();
  m_pool.finish(*piece.look);
  if (piece.isDirectory) {
    enterDirectory(level, tree);
    return nullptr;
  }
  const size_t at = index - piece.first;
  if (at >= piece.look->found.size()) return nullptr;
  const Found& found = piece.look->found[at];
  const auto size = static_cast<size_t>(std::clamp<long long>(found.info.m_size, 0, kMostBytes));
  // A moving mean: looks are to end about where their room does.
  m_usualSize = (m_usualSize * 7 + size) / 8;
  return found.bytes ? &found : nullptr;
}

// The levels here are those of the walk. A directory that it went into brings along what was seen of it.
void ReadAhead::followWalk(const ClsDirTree& tree) {
  while (m_levels.size() > tree.depth()) {
    for (Piece& piece : m_levels.back().pieces) giveUp(std::move(piece));
    m_levels.pop_back();
  }
  const bool isInside = m_levels.size() < tree.depth();
  while (m_levels.size() < tree.depth()) m_levels.emplace_back();
  if (!m_entered.look) return;
  // The directory was empty, or the walk passed it by.
  if (!isInside) {
    giveUp(std::move(m_entered));
    return;
  }
  Level& level = m_levels.back();
  if (m_entered.inside) level = std::move(*m_entered.inside);
  const size_t count = m_entered.look->found.size();
  level.lookedTo = std::max(level.lookedTo, count);
  level.pieces.push_front({0, count, false, std::move(m_entered.look), nullptr});
  // What lies ahead in the new directory is looked at without waiting for more entries.
  m_entries = ~0u;
}

// One that could not be read is read again by the walk, which tells why. The names go to the walk, which
// keeps the directory open at least until the next entry. The piece is kept meanwhile, because its first
// files are found in it once the walk is inside.
void ReadAhead::enterDirectory(Level& level, ClsDirTree& tree) {
  Piece piece = std::move(level.pieces.front());
  level.pieces.pop_front();
  if (!piece.look->isListed || !tree.get_IsDirectory()) {
    giveUp(std::move(piece));
    return;
  }
  tree.prepareWith(std::exchange(piece.look->listing, DirListing()));
  m_entered = std::move(piece);
}

// From the deepest directory up, since its entries are wanted first. Very deep down the walk goes on alone.
void ReadAhead::lookAhead(const ClsDirTree& tree) {
  if (tree.depth() > kDeepest) {
    for (Level& level : m_levels) finishAll(level);
  } else if (m_entries++ >= kEntriesBetween) {
    m_entries = 1;
    size_t left = m_mostLooks / 2;
    for (size_t i = m_levels.size(); i-- > 0;) lookAheadIn(m_levels[i], tree.listing(i), i, left);
  }
}

// They are done but kept: what was found is still of use when the walk comes back.
void ReadAhead::finishAll(Level& level) {
  for (Piece& piece : level.pieces) {
    m_pool.finish(*piece.look);
    if (piece.inside) finishAll(*piece.inside);
  }
}

// Half of the looks that nearer directories leave. Only once half of that is used up, so that threads are not
// woken for each. Then into the directories that were read.
void ReadAhead::lookAheadIn(Level& level, const DirListing& listing, size_t rank, size_t& left) {
  const size_t most = (left + 1) / 2;
  const bool isLow = level.pieces.size() <= most / 2;
  while (isLow && level.pieces.size() < most && level.lookedTo < listing.entries.size() && makeRoom(rank)) {
    const bool isDirectory = listing.typeOf(level.lookedTo) == DT_DIR;
    isDirectory ? lookAtDirectory(level, listing, rank) : lookAtFiles(level, listing, rank);
  }
  left -= std::min(left, level.pieces.size());
  for (Piece& piece : level.pieces) {
    if (left == 0) return;
    if (!piece.isDirectory || !m_pool.isDone(*piece.look) || !piece.look->isListed) continue;
    if (!piece.inside) {
      piece.inside = std::make_unique<Level>();
      piece.inside->lookedTo = piece.look->found.size();
    }
    lookAheadIn(*piece.inside, piece.look->listing, rank, left);
  }
}

// At the cost of what is farthest away, when too much is kept: it is looked at again later. `nearest` is the
// level that wants room, or that has what wants it inside.
bool ReadAhead::makeRoom(size_t nearest) {
  if (m_looks < m_mostLooks) return true;
  for (size_t i = 0; i < nearest; ++i) {
    Level& level = m_levels[i];
    if (level.pieces.empty()) continue;
    // Given up from the end, so that what is looked at stays one stretch.
    level.lookedTo = level.pieces.back().first;
    giveUp(std::move(level.pieces.back()));
    level.pieces.pop_back();
    return true;
  }
  return false;
}

// A piece of its own, because it is listed and gone into. A type that is not known counts as none.
void ReadAhead::lookAtDirectory(Level& level, const DirListing& listing, size_t rank) {
  std::unique_ptr<Look> look = makeLook(listing);
  look->directoryName = listing.nameOf(level.lookedTo);
  submit(level, {level.lookedTo, 1, true, std::move(look), nullptr}, rank, kWeightOfDirectory);
}

// Up to the next directory. What is no regular file is left for its turn, and so is what may be none.
void ReadAhead::lookAtFiles(Level& level, const DirListing& listing, size_t rank) {
  const size_t fitting = std::clamp<size_t>(m_roomSize / (m_usualSize + 1), 1, m_mostFiles);
  std::unique_ptr<Look> look = makeLook(listing);
  size_t end = level.lookedTo, files = 0;
  for (; end < listing.entries.size() && look->names.size() < m_mostFiles && files < fitting &&
         listing.typeOf(end) != DT_DIR;
       ++end) {
    const bool isRegular = listing.typeOf(end) == DT_REG;
    look->names.emplace_back(isRegular ? listing.nameOf(end) : "");
    // Others cost nothing but a place in the list.
    files += isRegular;
  }
  submit(level, {level.lookedTo, end - level.lookedTo, false, std::move(look), nullptr}, rank,
         files * kWeightOfFile);
}

// Used ones keep their room. The parent's descriptor is borrowed, from the walk or from the look that listed
// the directory, and stays open until this look is finished or dropped.
std::unique_ptr<ReadAhead::Look> ReadAhead::makeLook(const DirListing& listing) {
  std::unique_ptr<Look> look;
  if (m_spare.empty()) {
    look = std::make_unique<Look>();
    look->roomSize = m_roomSize;
    look->mostFiles = m_mostFiles;
  } else {
    look = std::move(m_spare.back());
    m_spare.pop_back();
  }
  look->parent = listing.directory.fd();
  look->directoryName.clear();
  look->names.clear();
  look->found.clear();
  return look;
}

// Kept before it is handed in: it must not go while somebody works at it.
void ReadAhead::submit(Level& level, Piece piece, size_t rank, size_t weight) {
  ++m_looks;
  level.lookedTo = piece.first + piece.count;
  level.pieces.push_back(std::move(piece));
  m_pool.submit(*level.pieces.back().look, static_cast<unsigned>(rank), weight);
}

// What is inside first, because it needs the directory to be open.
void ReadAhead::giveUp(Piece piece) {
  if (piece.inside) {
    for (Piece& each : piece.inside->pieces) giveUp(std::move(each));
  }
  m_pool.drop(*piece.look);
  piece.look->listing = DirListing();
  --m_looks;
  m_spare.push_back(std::move(piece.look));
}

// In a worker: it touches nothing but the look and, by their descriptors, open directories. It stops where
// the room is full, or memory is; what it did not come to is left for its turn, which needs less.
void ReadAhead::Look::work() {
  used = 0;
  isListed = false;
  try {
    directoryName.empty() ? lookAtFiles() : lookIntoDirectory();
  } catch (const std::bad_alloc&) {  // what was found before is good
  }
}

void ReadAhead::Look::makeRoom() {
  if (!room) room.reset(new char[roomSize]);
}

void ReadAhead::Look::lookAtFiles() {
  makeRoom();
  for (const std::string& name : names) {
    if (!lookAt(parent, name.c_str())) return;
  }
}

// Its own event comes later, and may yet exclude it.
void ReadAhead::Look::lookIntoDirectory() {
  isListed = listing.readAheadIn(parent, directoryName.c_str(), roomSize) == 0;
  if (!isListed) return;
  makeRoom();
  for (size_t n = 0; n < listing.entries.size() && n < mostFiles; ++n) {
    const unsigned char type = listing.typeOf(n);
    // Files behind the first directory are wanted only after all that is in it.
    if (mayBeDirectory(type) || !lookAt(listing.directory.fd(), type == DT_REG ? listing.nameOf(n) : ""))
      return;
  }
}

// False when there is no more room. Nothing stays open: a process may have few files open, and of a file that
// was not read whole little is lost by opening it again.
bool ReadAhead::Look::lookAt(int directory, const char* name) {
  found.emplace_back();
  if (*name == '\0') return true;
  const OsFile file(osOpenSource(directory, name));
  struct stat status;
  if (!file.isOpen() || file.status(status) != 0 || !S_ISREG(status.st_mode)) return true;
  Found& into = found.back();
  into.info.setFromStatus(status);
  // Holes are looked for in the open file.
  if (into.info.m_size > kMostBytes || into.info.m_storedSize < into.info.m_size) return true;
  if (read(file, into)) return true;
  found.pop_back();
  return false;
}

// One byte more is asked for: a read that stops in front of it has met the end. A file that has changed, or
// cannot be read, is read in its turn.
bool ReadAhead::Look::read(const OsFile& file, Found& into) {
  const auto size = static_cast<size_t>(into.info.m_size);
  // It is asked without an overflow: `used` never passes roomSize.
  if (size + 1 > roomSize - used) return false;
  const ssize_t got = file.readSomeAt(room.get() + used, size + 1, 0);
  if (got < 0 || static_cast<size_t>(got) != size) return true;
  into.bytes = room.get() + used;
  used += size;
  return true;
}

}  // namespace morvane
