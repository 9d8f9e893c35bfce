// bzip2 streams one behind the other, and what expands one of them.
#pragma once

#include <memory>

namespace morvane {

class _mvDataSource;
class _mvOutput;
struct Io;

// The bytes that go into a step, and the room for what comes out of it.
struct Bzip2Step {
  const char* bytes;
  unsigned left;  // of them: both are moved on
  char* out;
  unsigned room;
  unsigned produced = 0;
};

// Expands one stream at a time, in the way of libbzip2: a step goes on until its input is used up, its room
// is full or the stream has ended, and says so by that library's codes.
class Bzip2Stream {
 public:
  virtual ~Bzip2Stream();
  // Begins a stream with the next byte that a step is given. False when there is no memory.
  virtual bool begin() = 0;
  virtual int step(Bzip2Step& step) = 0;
  // Lets go of a stream. Does nothing where none is begun.
  virtual void end() = 0;
  // The next piece of input is about to be read.
  virtual void beforeRead() {}
};

// libbzip2 itself.
class LibBzip2Stream : public Bzip2Stream {
 public:
  LibBzip2Stream();
  ~LibBzip2Stream() override;
  bool begin() override;
  int step(Bzip2Step& step) override;
  void end() override;

 private:
  // The library's state lies behind a pointer, so that its header is seen by source files only.
  struct State;
  std::unique_ptr<State> m_state;  // null: none is begun
};

// Expands all consecutive streams of the source, as MorvaneBzip2::DecompressStream says.
bool expandBzip2Streams(Bzip2Stream& stream, _mvDataSource& source, _mvOutput& out, const Io& io);

}  // namespace morvane
