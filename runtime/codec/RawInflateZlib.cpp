// RawInflate over zlib, for builds without ISA-L.
#include <zlib.h>

#include <new>

#include "runtime/codec/RawInflate.h"
#include "runtime/codec/ZlibRaw.h"

namespace morvane {

// inflateEnd must be called for a stream that was begun and must not be for any other.
struct RawInflate::Engine {
  z_stream stream{};
  bool begun = false;
  ~Engine() {
    if (begun) inflateEnd(&stream);
  }
};

RawInflate::RawInflate() = default;
RawInflate::~RawInflate() = default;

// Without exceptions, because the caller has one message for whatever memory is missing.
bool RawInflate::begin() {
  m_engine.reset(new (std::nothrow) Engine());
  if (!m_engine) return false;
  m_engine->begun = inflateInit2(&m_engine->stream, kRawDeflate) == Z_OK;
  return m_engine->begun;
}

// zlib does not write to its input; its interface lacks the const unless it is asked for.
void RawInflate::setInput(const char* bytes, unsigned n) {
  m_engine->stream.next_in = reinterpret_cast<unsigned char*>(const_cast<char*>(bytes));
  m_engine->stream.avail_in = n;
}

// zlib gives back whole bytes that it took in too early by itself.
unsigned RawInflate::inputLeft() const { return m_engine->stream.avail_in; }

// Z_BUF_ERROR says that nothing could be done without more input or room, which is the caller's to bring.
// The memory that it wants for its window with the first output may be missing. Everything else that is not
// Z_OK is damage.
RawInflate::State RawInflate::step(char* out, unsigned room, unsigned& produced) {
  z_stream& stream = m_engine->stream;
  stream.next_out = reinterpret_cast<unsigned char*>(out);
  stream.avail_out = room;
  const int result = inflate(&stream, Z_NO_FLUSH);
  produced = room - stream.avail_out;
  if (result == Z_MEM_ERROR) throw std::bad_alloc();
  if (result == Z_STREAM_END) return State::Finished;
  return result == Z_OK || result == Z_BUF_ERROR ? State::GoesOn : State::Damaged;
}

}  // namespace morvane
