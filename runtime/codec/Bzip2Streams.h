// bzip2 streams one behind the other, and what expands one of them. The loop is the same for one thread and
// for several; they differ in the Bzip2Stream that it is given.
#pragma once

#include <memory>

namespace morvane {

class _mvDataSource;
class _mvOutput;
struct Io;

// The bytes that go into a step, and the room for what comes out of it. All pointers are the caller's.
struct Bzip2Step {
  // Compressed, and not null while any are left.
  const char* bytes;
  unsigned left;  // of them: both are moved on
  char* out;
  // From `out` on, of which `produced` bytes are filled.
  unsigned room;
  // Moved on by each step, so that several may fill one buffer.
  unsigned produced = 0;
};

// Expands one stream at a time, in the way of libbzip2: a step goes on until its input is used up, its room
// is full or the stream has ended, and says so by that library's codes. One thread. After `end`, or before
// any `begin`, no step may be made.
class Bzip2Stream {
 public:
  virtual ~Bzip2Stream();
  // Begins a stream with the next byte that a step is given. False when there is no memory. The stream
  // before, if any, has been ended.
  virtual bool begin() = 0;
  // BZ_OK: go on. BZ_STREAM_END: the stream was whole, and its checksum right. Anything else is negative
  // and a failure, behind which only `end` may follow; what was produced before it counts.
  virtual int step(Bzip2Step& step) = 0;
  // Lets go of a stream. Does nothing where none is begun.
  virtual void end() = 0;
  // The next piece of input is about to be read. For a stream that wants to look further ahead first.
  virtual void beforeRead() {}
};

// libbzip2 itself. It takes some 4 MB for as long as a stream is begun.
class LibBzip2Stream : public Bzip2Stream {
 public:
  LibBzip2Stream();
  ~LibBzip2Stream() override;
  // A new state each time, because the library has no way to use one again.
  bool begin() override;
  int step(Bzip2Step& step) override;
  void end() override;

 private:
  // The library's state lies behind a pointer, so that its header is seen by source files only.
  struct State;
  std::unique_ptr<State> m_state;  // null: none is begun
};

// Expands all consecutive streams of the source, as MorvaneBzip2::DecompressStream says. The stream may be
// begun and ended any number of times, and is ended when this returns.
bool expandBzip2Streams(Bzip2Stream& stream, _mvDataSource& source, _mvOutput& out, const Io& io);

}  // namespace morvane
