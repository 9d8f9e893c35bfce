// Raw deflate (RFC 1951, no zlib or gzip framing), compressed and decompressed as a stream.
#pragma once

#include <memory>

#include "runtime/base/Export.h"

namespace morvane {

// Why a compressor cannot begin, and why it cannot go on.
constexpr char kNoMemoryToDeflate[] = "Out of memory for deflate compression.";
constexpr char kDeflateFailed[] = "Deflate compression failed.";

class DataBuffer;
class LogBase;
class ProgressMonitor;
class _mvDataSource;
class _mvOutput;

// An object compresses one stream at a time and holds some hundred KiB while it does; inflating keeps
// nothing in it. It may be used by one thread at a time. gzip's framing is put around it elsewhere
// (GzipFormat).
class MORVANE_API MorvaneDeflate {
 public:
  MorvaneDeflate();
  ~MorvaneDeflate();
  MorvaneDeflate(const MorvaneDeflate&) = delete;
  MorvaneDeflate& operator=(const MorvaneDeflate&) = delete;

  // For the next Begin: 0 is zlib's default level, 1 (fastest) to 3 trade size for speed. Where the build
  // has FastDeflate, levels 1 to 3 are its; elsewhere zlib's. No other number may be given.
  void setFast(int level) { m_fastLevel = level; }

  // Begin, any number of More, End; each takes the whole input and appends what became ready of the output,
  // which may be nothing: pieces are gathered inside. End brings out the rest. After a failure only Begin may
  // follow. `pm` is not asked: whoever writes the output is. Memory that runs out while `out` grows is
  // std::bad_alloc.
  bool BeginCompress(const DataBuffer& in, DataBuffer& out, LogBase& log, ProgressMonitor* pm);
  // Pieces of any size; nothing is kept of `in` itself.
  bool MoreCompress(const DataBuffer& in, DataBuffer& out, LogBase& log, ProgressMonitor* pm);
  // Without a Begin before it, or behind another End, it fails. The library's memory is given back in any
  // case.
  bool EndCompress(DataBuffer& out, LogBase& log, ProgressMonitor* pm);

  // Inflates the deflate stream at the source's position into the output. Stops behind the stream's last byte
  // when the source lends its bytes (canLend); another source may be left further on. False for damaged data,
  // data that end before the stream does, or when the output refuses a write. The flags have no meaning here.
  // What came out before a failure has been written. The monitor may be null.
  static bool inflateFromSourcePM(bool, _mvDataSource& source, _mvOutput& out, bool, ProgressMonitor* pm,
                                  LogBase& log);

 private:
  // Null until Begin and after End.
  struct Compressor;
  std::unique_ptr<Compressor> m_compressor;
  // 0 to 3.
  int m_fastLevel = 0;
};

}  // namespace morvane
