// A source over a file, a pipe or a device.
//
// It reads ahead while what is asked for lies close together and reads little after a long jump, so that
// walking an archive of small members costs few system calls and one of large members few bytes. A pipe
// cannot be moved back; it is moved forward by reading.
#pragma once

#include <memory>

#include "runtime/io/_mvDataSource.h"

namespace morvane {

class OsFile;
class XString;
struct mvFileInfo;

// It owns its descriptor. Memory: little until it is needed, then 256 KiB.
class MORVANE_API _mvFileDataSource : public _mvDataSource {
 public:
  _mvFileDataSource();
  ~_mvFileDataSource() override;
  // Opens a file for reading; a FIFO is waited for. False, with the reason in the log, on failure. An
  // interrupt ends the wait if the monitor's event says so. Directories are refused, and so is a path that
  // holds a NUL.
  bool openDataSourceFile(const XString& path, LogBase& log, ProgressMonitor* pm = nullptr);
  // Takes over an open descriptor and reads on from where it stands; `path` is what messages call it. The
  // descriptor is closed when this fails. It may be a pipe or a socket.
  bool adopt(OsFile file, const char* path, LogBase& log);

  // The same for a regular file to be copied whole, whose size was `sizeSeen` when it was opened. The copy
  // ends where the file ends when its reading begins, however fast it grows.
  void adoptForCopy(OsFile file, const char* path, long long sizeSeen);
  // A second source over the file that another one has open, from a position on, whatever has become of that
  // one. One that could not be had fails its first read, too.
  bool adoptFrom(const _mvFileDataSource& other, long long position, LogBase& log);
  void close();
  // For what is asked of the open file itself. -1 when it is closed.
  int descriptor() const;
  // The open file, whose positions are the source's: others may read it by position, on any thread, as long
  // as the source is open. Null where it has no positions, and behind a failure. A derived class may give
  // other bytes than its file has.
  const OsFile* sharedFile() const;

  // The bytes handed out since it was adopted, also where there is no position to tell; the position
  // elsewhere.
  long long bytesPassed() const;
  // Whether the system itself said that there is no more, rather than a limit of ours. For copies: whether
  // what is missing is missing in the file.
  bool endWasSeen() const;
  // Whether the file has a byte at a position, whatever size it states. Never waits; nothing is passed. Files
  // of /proc state a size of 0, so that their size answers nothing.
  bool hasByteAt(long long position) const;

  long long getFileSize64(LogBase& log);  // 0 when there is none to know
  // The identity of the open file.
  bool getFileInfo(mvFileInfo& info, LogBase& log) const;
  bool readSourcePM(char* buffer, unsigned int n, unsigned int& numRead, ProgressMonitor* pm,
                    LogBase& log) override;
  // Reads up to n bytes as the system gives them, without reading ahead and without telling a monitor. None
  // is the end.
  bool readOnce(char* buffer, unsigned n, unsigned& got, LogBase& log);
  // The buffer that lending and peeking take, made now. False, with the reason in the log, without memory.
  bool makeWindow(LogBase& log);
  bool endOfStream() override;
  // Any position from 0 on; reads past the end yield nothing. After a failed seek every read fails.
  bool fseekAbsolute64(long long position, LogBase& log) override;
  long long ftell64() override;
  long long sizeIfKnown() override;
  // A file on a disk always; a pipe when something lies in it.
  bool readsAtOnce() override;
  bool canLend() override { return true; }
  bool lendBytes(unsigned most, const char*& bytes, unsigned& n, ProgressMonitor* pm, LogBase& log) override;
  void takeBack(unsigned n) override;
  bool canPeek() override { return true; }
  bool peekBytes(unsigned n, const char*& bytes, unsigned& got, ProgressMonitor* pm, LogBase& log) override;

 private:
  // The open file, where it stands, and the bytes that were read ahead.
  struct State;

  // Every read of the system passes here. False, logged, when it fails; the source has then failed for good.
  bool readSystem(char* buffer, unsigned n, unsigned& got, ProgressMonitor* pm, LogBase& log);
  // Reads the next piece into the window, which must be used up.
  bool fillWindow(ProgressMonitor* pm, LogBase& log);
  bool mayGoOn(unsigned moved, ProgressMonitor* pm, LogBase& log);
  // Learns from a read of a file that is copied where the copy is to end.
  void noteCopyEnd(unsigned wanted, unsigned got);

  const std::unique_ptr<State> m_state;
};

}  // namespace morvane
