// One file or directory on its way into an archive: examined, opened, its data at hand.
#pragma once

#include "runtime/fs/FileMetadata.h"
#include "runtime/fs/mvFileInfo.h"
#include "runtime/io/_mvFileDataSource.h"
#include "runtime/text/XString.h"
#include "tar/format/SparseMap.h"
#include "tar/write/ReadAhead.h"

namespace morvane {

class MemoryFile;

// Where a member's source is: its path and, from a directory walk, its name in an open directory; or memory.
// It borrows what it points at: path and name are good until the walk goes on. The directory is the walk's
// and is not closed here.
struct SourcePlace {
  // In front of everything that is said to people.
  const XString& fullPath;
  int directory = -1;  // -1: the path alone
  const char* name = nullptr;
  bool isRegular = false;              // as the directory says
  const MemoryFile* memory = nullptr;  // the member's data, when they are not on the disk
  bool followsLinks = false;           // a link stands for what it points at
};

// One object serves all members of a write, so that its buffer is made once. Closed by the next examination,
// or by the destructor. Sizes and positions are bytes. One thread; what workers read comes in by take. It
// reads and never writes, and follows a link only where the place says so.
class SourceFile {
 public:
  // Examines the place. With `mayOpen`, a regular file of a walk is opened with it: one look then serves
  // both. Where something may happen to its name before it is read, that is not allowed. False, with the
  // reason in the log, when the system does not say what it is.
  bool examine(const SourcePlace& place, bool mayOpen, mvFileInfo& info, LogBase& log);
  // The same by what a worker found already. `found` must stay until the next examination.
  void take(const ReadAhead::Found& found, mvFileInfo& info);
  // All of the file's bytes, as many as it states, where they have been read; else null.
  const char* wholeBytes() const { return m_wholeBytes; }
  // Opens the data of what was examined, unless they are open. Never waits for a FIFO.
  bool open(const SourcePlace& place, const mvFileInfo& info, LogBase& log);
  // Reads the first data now. False when that fails.
  bool readFirst(LogBase& log);
  bool isOpen() const { return m_open; }
  // The size that the open file states now; -1 if that cannot be told. In bytes.
  long long sizeNow();
  // Whether the file, of which `size` bytes were read, has more by now, or had them all the time, as files
  // that the system makes up do. Asks the system only if it has not said so.
  bool hasMoreThan(long long size) { return !m_wholeBytes && !m_data.endWasSeen() && m_data.hasByteAt(size); }
  // Where nothing is open it only forgets what take() brought.
  void close();

  // The open file, to be read from where it stands. Of no use where nothing is open.
  _mvFileDataSource& data() { return m_data; }

  // The text of a symbolic link, of any length. False, with the reason in the log. Nothing is opened.
  static bool readLink(const SourcePlace& place, std::string& text, LogBase& log);
  // The extended attributes of what was examined. Of the open file where there is one. False, with the reason
  // in the log.
  bool readAttributes(const SourcePlace& place, FileMetadata::Attributes& attributes, LogBase& log);
  // The ranges of the open file that are no holes, of `size` bytes in all; the map stays empty where there
  // are none, or where the file system does not tell.
  void findRanges(long long size, SparseMap& map);

 private:
  // Opened and closed for each file; its buffer stays.
  _mvFileDataSource m_data;
  bool m_open = false;
  const char* m_wholeBytes = nullptr;  // then nothing is open
};

}  // namespace morvane
