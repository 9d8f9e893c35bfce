// DataBuffer's file operations; they stand here because the buffer itself knows nothing of files.
//
// Both read and write through the streams, so that interrupts, short reads and files that grow are seen to in
// one place.
#include <memory>

#include "runtime/buffer/DataBuffer.h"
#include "runtime/io/OutputDataBuffer.h"
#include "runtime/io/OutputFile.h"
#include "runtime/io/_mvFileDataSource.h"
#include "runtime/log/LogNull.h"
#include "runtime/text/XString.h"

namespace morvane {

// The size that a file states is a hint: one of /proc states 0, and one that is being written grows. So room
// for it is taken at once where there is any, and everything up to the end is read, whatever it said. Fewer
// bytes than stated are a failure, because the file was cut meanwhile.
bool DataBuffer::loadFileUtf8(const char* path, LogBase* log) {
  LogNull unwanted;
  LogBase& to = log ? *log : unwanted;
  clear();
  _mvFileDataSource source;
  if (!source.openDataSourceFile(XString(path), to)) return false;
  const long long size = source.sizeIfKnown();
  // Said before anything is read; a file that grows beyond it fails when it does.
  if (size > 0xFFFFFFFFLL) {
    to.LogError("The file is too large for memory.");
    to.LogData("path", path);
    to.LogDataInt64("size", size);
    return false;
  }
  if (size > 0) (void)reserveMore(static_cast<unsigned>(size));  // else it grows as bytes come
  OutputDataBuffer out(*this);
  _mvIoParams io;
  while (true) {
    const char* bytes = nullptr;
    unsigned n = 0;
    // As much as lies in the source's window, which is 256 KiB at most.
    if (!source.lend(0xFFFFFFFFu, bytes, n, nullptr, to)) return false;
    if (n == 0) break;
    if (!out._writeBytes(bytes, n, io, to)) return false;
  }
  if (m_size >= size) return true;
  to.LogError("The file ended early.");
  to.LogData("path", path);
  to.LogDataInt64("size", size);
  to.LogDataInt64("bytesRead", m_size);
  return false;
}

// Closing may be the first to tell of a full disk; its answer counts. A file that was there is cut and
// written anew, also when that fails half way.
bool DataBuffer::saveToFileUtf8(const char* path, LogBase* log) const {
  LogNull unwanted;
  LogBase& to = log ? *log : unwanted;
  const std::unique_ptr<OutputFile> file(OutputFile::createFileUtf8(path, to));
  if (!file) return false;
  const bool written = file->writeDbPM(*this, nullptr, to);
  return file->closeHandle(&to) && written;
}

}  // namespace morvane
