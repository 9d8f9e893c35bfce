// RawInflate over ISA-L, which inflates faster than zlib; for builds that found it.
#include <isa-l/igzip_lib.h>

#include <new>

#include "runtime/codec/RawInflate.h"

namespace morvane {

// The library allocates nothing and has nothing to be freed.
struct RawInflate::Engine {
  inflate_state state;
};

RawInflate::RawInflate() = default;
RawInflate::~RawInflate() = default;

// isal_inflate_init sets raw deflate, which is what is wanted here.
bool RawInflate::begin() {
  m_engine.reset(new (std::nothrow) Engine());
  if (!m_engine) return false;
  isal_inflate_init(&m_engine->state);
  return true;
}

// The library does not write to its input; its interface merely lacks the const.
void RawInflate::setInput(const char* bytes, unsigned n) {
  m_engine->state.next_in = reinterpret_cast<unsigned char*>(const_cast<char*>(bytes));
  m_engine->state.avail_in = n;
}

// The library reads whole words into a register. Before the end what lies there is still to be used; at the
// end it belongs to what follows the stream.
unsigned RawInflate::inputLeft() const {
  const inflate_state& state = m_engine->state;
  if (state.block_state != ISAL_BLOCK_FINISH) return state.avail_in;
  // Whole bytes that it took in beforehand and found to lie behind the stream.
  return state.avail_in + static_cast<unsigned>(state.read_in_length) / 8;
}

// Negative results are damage of every kind. A dictionary is zlib's framing alone and cannot be asked for by
// raw data; if it were, nobody has it. The state tells the end, because the call that finds it may return
// before all output has been handed out.
RawInflate::State RawInflate::step(char* out, unsigned room, unsigned& produced) {
  inflate_state& state = m_engine->state;
  state.next_out = reinterpret_cast<unsigned char*>(out);
  state.avail_out = room;
  const int result = isal_inflate(&state);
  produced = room - state.avail_out;
  if (result < 0 || result == ISAL_NEED_DICT) return State::Damaged;
  return state.block_state == ISAL_BLOCK_FINISH ? State::Finished : State::GoesOn;
}

}  // namespace morvane
