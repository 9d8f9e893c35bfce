// One row for each compression: whoever asks how something is compressed or expanded asks this table.
//
// A new compression is a value of Compression, a row in Codec.cpp, and files for its encoder and decoder.
#pragma once

#include <memory>

#include "runtime/codec/Compression.h"

// What Threads is where no word says it. Only tests build the library with another number than 1.
#ifndef MORVANE_TAR_THREADS
#define MORVANE_TAR_THREADS 1
#endif

namespace morvane {

class AheadSource;
class DataBuffer;
class _mvDataSource;
class _mvOutput;
struct Io;

// What an application may ask of a codec; each row takes what concerns it. Plain values, taken over when a
// run begins; the defaults are what happens without any option word.
struct CodecOptions {
  long long level = 0;           // zstd, xz: 0 is each one's own default; higher is smaller and slower
  long long maxWindowBytes = 0;  // zstd, xz read: the most that data may claim; 0 is each one's own default
  long long fastDeflate =
      0;  // gzip written: 0 is zlib's default level, 1 (fastest) to 3 trade size for speed
  // How many threads may work on it; 0 is as many as the process has processors. Compressed bytes depend on
  // whether that is one thread, and on no other number; those of zstd and xz also on whether the system gives
  // any thread.
  long long threads = MORVANE_TAR_THREADS;
  bool verifyGzip = false;      // gzip read: the trailer's checksum and size are compared
  bool gzipAllMembers = false;  // gzip read: what follows the first member is read too
};

// Compresses one archive. Calls come in the order in which they stand here; each may fail, with its reason in
// the log. The bytes of add are the archive's, in any pieces; what becomes ready of the output is appended to
// `ready`, which is often nothing, for pieces are gathered inside.
class Encoder {
 public:
  // Behind so many bytes `finish` leaves the rest to the next call: a library with threads may hold a hundred
  // times as many.
  static constexpr unsigned kEnoughReady = 1024 * 1024;

  virtual ~Encoder();
  // Whether there is anything to compress with; false, with the reason in the log, in a build without it.
  // Asked before the output is made, because an archive that is there must not be emptied in vain.
  virtual bool isThere(const Io& io);
  // Writes what stands in front of the compressed data.
  virtual bool begin(_mvOutput& out, const Io& io);
  virtual bool add(const unsigned char* bytes, unsigned n, DataBuffer& ready, const Io& io) = 0;
  // Brings out what is still gathered, behind the last add. It is called again until it says that all of it
  // `isOut`, so that what becomes ready at a time is little, and goes out in between. Nothing may be added
  // after the first call.
  virtual bool finish(DataBuffer& ready, bool& isOut, const Io& io) = 0;
  // Writes what stands behind them; `size` counts the bytes that were added.
  virtual bool end(_mvOutput& out, long long size, const Io& io);
};

// One that has nothing to be written in front of the compressed data or behind them.
class UnframedEncoder : public Encoder {
 public:
  bool begin(_mvOutput& out, const Io& io) final { return Encoder::begin(out, io); }
  bool end(_mvOutput& out, long long size, const Io& io) final { return Encoder::end(out, size, io); }
};

// Expands the source from where it stands into the output. Returns false, with the reason in the log, for
// data that are damaged or cut, and when the output refuses a write or the monitor aborts. Where the source
// stands afterwards is each codec's own: what follows the data matters to gzip alone. It uses nothing but
// what it is given, so that it may run in any thread.
using Decode = bool (*)(_mvDataSource& source, _mvOutput& out, const CodecOptions& options, const Io& io);

// One compression. The functions hold no state of their own: any number of runs may use a row at a time.
struct Codec {
  Compression compression;
  // What a person calls it, lower case.
  const char* name;
  // Separated by blanks; a name that ends in one promises this compression.
  const char* suffixes;
  // Whether the first bytes of a content begin one; n may be smaller than any signature, and then it is none.
  bool (*hasMagic)(const unsigned char* bytes, unsigned n);
  // Null where it can only be read.
  std::unique_ptr<Encoder> (*makeEncoder)(const CodecOptions& options);
  // Reads what stands in front of the compressed data; null where the decoder does that. The source takes
  // bytes back.
  bool (*readHeader)(_mvDataSource& source, const Io& io);
  Decode decode;
  // The same with several threads, as ExpandAhead.h has it; null: that one serves.
  bool (*decodeAhead)(AheadSource& ahead, _mvDataSource& heard, _mvOutput& out, const CodecOptions& options,
                      const Io& io);
};

// The row of a compression other than None. None has none and must not be asked for. The row lives as long as
// the process.
const Codec& codecOf(Compression compression);

}  // namespace morvane
