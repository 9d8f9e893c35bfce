// bzip2 streams, compressed (block size 9) and decompressed.
#pragma once

#include <memory>

#include "runtime/base/Export.h"

namespace morvane {

// The largest blocks there are, and what the bzip2 command writes.
constexpr int kBzip2BlockSize100k = 9;
// Why a compressor cannot begin, and why it cannot go on. For one thread and for several.
constexpr char kNoMemoryForBzip2[] = "Out of memory for bzip2 compression.";
constexpr char kBzip2Failed[] = "bzip2 compression failed.";

class DataBuffer;
class LogBase;
class ProgressMonitor;
class _mvDataSource;
class _mvOutput;

// An object compresses one stream at a time; decompressing keeps nothing in it. It may be used by one
// thread at a time. Compressing takes 7.6 MB, expanding 4.
class MORVANE_API MorvaneBzip2 {
 public:
  MorvaneBzip2();
  ~MorvaneBzip2();
  MorvaneBzip2(const MorvaneBzip2&) = delete;
  MorvaneBzip2& operator=(const MorvaneBzip2&) = delete;

  // The protocol of MorvaneDeflate. A stream of no bytes is a valid one. `pm` is not asked: whoever writes
  // the output is.
  bool BeginCompress(const DataBuffer& in, DataBuffer& out, LogBase& log, ProgressMonitor* pm);
  // Pieces of any size; nothing is kept of `in` itself.
  bool MoreCompress(const DataBuffer& in, DataBuffer& out, LogBase& log, ProgressMonitor* pm);
  // Without a Begin before it, or behind another End, it fails. The library's memory is given back in any
  // case.
  bool EndCompress(DataBuffer& out, LogBase& log, ProgressMonitor* pm);

  // Decompresses all consecutive bzip2 streams of the source (parallel compressors write many). Bytes behind
  // the last complete stream that begin no other are ignored with a line in the log. False for damaged data,
  // none at all, data that end inside a stream, or when the output refuses a write. The source is read from
  // where it stands; where behind the data it is left is not promised. What was decompressed before a failure
  // has been written.
  bool DecompressStream(_mvDataSource& source, _mvOutput& out, LogBase& log, ProgressMonitor* pm);

 private:
  // Null until Begin and after End.
  struct Compressor;
  std::unique_ptr<Compressor> m_compressor;
};

}  // namespace morvane
