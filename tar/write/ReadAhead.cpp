// A worker does what needs no order: open, look, read, close. The first thread keeps, for each directory on
// the walk's way, the looks at what comes behind; the deeper the directory the sooner they are wanted.
#include "tar/write/ReadAhead.h"

#include <dirent.h>

#include <algorithm>
#include <utility>

#include "runtime/fs/ClsDirTree.h"

namespace morvane {

namespace {

// So many looks for each worker: with those ahead in the directories above, there is always one more.
constexpr unsigned kFewestLooks = 32, kMostLooks = 128, kLooksForWorker = 4;
// Of files that were read, in all looks.
constexpr size_t kBytes = 4 * 1024 * 1024;
constexpr unsigned kFilesInLook = 32;
// A walk is long in a directory that has others in it: the next one beside it is not wanted soon.
constexpr unsigned kDirectoriesWithDirectories = 2;
// The walk closes directories that it is far below; so nothing may be under way in them by then.
constexpr size_t kDeepest = 24;
// Worth a thread (see WorkerPool::submit): some dozens of files, or a few directories.
constexpr size_t kWeightOfFile = 16 * 1024, kWeightOfDirectory = 128 * 1024;

bool mayBeDirectory(unsigned char type) { return type == DT_DIR || type == DT_UNKNOWN; }

}  // namespace

ReadAhead::ReadAhead(unsigned workers)
    : m_mostLooks(std::clamp(workers * kLooksForWorker, kFewestLooks, kMostLooks)),
      m_mostAhead(m_mostLooks / 2),
      m_mostDirectories(std::min(m_mostAhead, filesToSpare())),
      m_roomSize(std::max<size_t>(kBytes / m_mostLooks, kMostBytes + 1)),
      m_pool(workers) {}

const ReadAhead::Found* ReadAhead::enter(ClsDirTree& tree) {
  followWalk(tree);
  Level& level = m_levels.back();
  const size_t index = tree.currentIndex();
  level.lookedTo = std::max(level.lookedTo, index + 1);
  while (!level.pieces.empty() && level.pieces.front().first + level.pieces.front().count <= index) {
    forgetFront(level);
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
  m_usualSize = (m_usualSize * 7 + size) / 8;
  return found.bytes ? &found : nullptr;
}

// The levels here are those of the walk. A directory that it went into brings its first entries along.
void ReadAhead::followWalk(const ClsDirTree& tree) {
  while (m_levels.size() > tree.depth()) {
    while (!m_levels.back().pieces.empty()) forgetFront(m_levels.back());
    m_levels.pop_back();
  }
  const bool isInside = m_levels.size() < tree.depth();
  while (m_levels.size() < tree.depth()) m_levels.emplace_back();
  if (!m_entered) return;
  const size_t count = m_entered->found.size();
  if (isInside && count > 0) {
    Level& level = m_levels.back();
    level.pieces.push_back({0, count, false, std::move(m_entered)});
    level.lookedTo = count;
  } else {
    giveUp(std::move(m_entered));
  }
}

// One that could not be read is read again by the walk, which tells why.
void ReadAhead::enterDirectory(Level& level, ClsDirTree& tree) {
  std::unique_ptr<Look> look = std::move(level.pieces.front().look);
  forgetFront(level);
  if (!look->isListed || !tree.get_IsDirectory()) {
    giveUp(std::move(look));
    return;
  }
  level.mostDirectories = look->hasDirectories ? kDirectoriesWithDirectories : m_mostAhead;
  tree.prepareWith(std::exchange(look->listing, DirListing()));
  m_entered = std::move(look);
}

// Refilled only when half of it is used up, so that threads are not woken for each file.
void ReadAhead::lookAhead(const ClsDirTree& tree) {
  if (tree.depth() > kDeepest) {
    for (Level& level : m_levels) {
      for (Piece& piece : level.pieces) m_pool.finish(*piece.look);
    }
    return;
  }
  Level& level = m_levels.back();
  if (level.pieces.size() > m_mostAhead / 2) return;
  const DirListing& listing = tree.listing();
  while (level.pieces.size() < m_mostAhead && m_looks < m_mostLooks &&
         level.lookedTo < listing.entries.size()) {
    if (listing.typeOf(level.lookedTo) != DT_DIR) {
      lookAtFiles(level, tree);
    } else if (!lookAtDirectory(level, tree)) {
      return;
    }
  }
}

bool ReadAhead::lookAtDirectory(Level& level, const ClsDirTree& tree) {
  if (level.directories >= level.mostDirectories || m_directories >= m_mostDirectories) return false;
  std::unique_ptr<Look> look = makeLook(tree);
  look->directoryName = tree.listing().nameOf(level.lookedTo);
  ++level.directories;
  ++m_directories;
  submit(level, {level.lookedTo, 1, true, std::move(look)}, tree, kWeightOfDirectory);
  return true;
}

// Up to the next directory. What is no regular file is left for its turn, and so is what may be none.
void ReadAhead::lookAtFiles(Level& level, const ClsDirTree& tree) {
  const DirListing& listing = tree.listing();
  const size_t fitting = std::clamp<size_t>(m_roomSize / (m_usualSize + 1), 1, kFilesInLook);
  std::unique_ptr<Look> look = makeLook(tree);
  size_t end = level.lookedTo, files = 0;
  for (; end < listing.entries.size() && files < fitting && listing.typeOf(end) != DT_DIR; ++end) {
    const bool isRegular = listing.typeOf(end) == DT_REG;
    look->names.emplace_back(isRegular ? listing.nameOf(end) : "");
    files += isRegular;
  }
  submit(level, {level.lookedTo, end - level.lookedTo, false, std::move(look)}, tree, files * kWeightOfFile);
}

// Used ones keep their room.
std::unique_ptr<ReadAhead::Look> ReadAhead::makeLook(const ClsDirTree& tree) {
  std::unique_ptr<Look> look;
  if (m_spare.empty()) {
    look = std::make_unique<Look>();
    look->roomSize = m_roomSize;
  } else {
    look = std::move(m_spare.back());
    m_spare.pop_back();
  }
  look->parent = tree.currentDirectory();
  look->directoryName.clear();
  look->names.clear();
  look->found.clear();
  return look;
}

// Kept before it is handed in: it must not go while somebody works at it.
void ReadAhead::submit(Level& level, Piece piece, const ClsDirTree& tree, size_t weight) {
  ++m_looks;
  level.lookedTo = piece.first + piece.count;
  level.pieces.push_back(std::move(piece));
  m_pool.submit(*level.pieces.back().look, static_cast<unsigned>(tree.depth()), weight);
}

void ReadAhead::forgetFront(Level& level) {
  Piece& piece = level.pieces.front();
  if (piece.isDirectory) {
    --level.directories;
    --m_directories;
  }
  if (piece.look) giveUp(std::move(piece.look));
  level.pieces.pop_front();
}

void ReadAhead::giveUp(std::unique_ptr<Look> look) {
  m_pool.drop(*look);
  look->listing = DirListing();
  --m_looks;
  m_spare.push_back(std::move(look));
}

void ReadAhead::Look::work() {
  used = 0;
  if (!room) room.reset(new char[roomSize]);
  if (directoryName.empty()) {
    for (const std::string& name : names) {
      if (!lookAt(parent, name.c_str())) return;
    }
    return;
  }
  isListed = listing.readIn(parent, directoryName.c_str(), false) == 0;
  hasDirectories = false;
  bool goesOn = isListed;
  for (size_t n = 0; isListed && n < listing.entries.size(); ++n) {
    const unsigned char type = listing.typeOf(n);
    hasDirectories |= mayBeDirectory(type);
    goesOn = goesOn && !mayBeDirectory(type) && n < kFilesInLook &&
             lookAt(listing.directory.fd(), type == DT_REG ? listing.nameOf(n) : "");
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
  if (size + 1 > roomSize - used) return false;
  const ssize_t got = file.readSomeAt(room.get() + used, size + 1, 0);
  if (got < 0 || static_cast<size_t>(got) != size) return true;
  into.bytes = room.get() + used;
  used += size;
  return true;
}

}  // namespace morvane
