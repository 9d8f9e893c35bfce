#include <isa-l/igzip_lib.h>

#include <new>

#include "runtime/buffer/DataBuffer.h"
#include "runtime/codec/FastDeflate.h"

namespace morvane {

namespace {

constexpr unsigned kOut = 64 * 1024;

unsigned workspaceFor(int level) {
  switch (level) {
    case 1:
      return ISAL_DEF_LVL1_DEFAULT;
    case 2:
      return ISAL_DEF_LVL2_DEFAULT;
    default:
      return ISAL_DEF_LVL3_DEFAULT;
  }
}

}  // namespace

struct FastDeflate::Engine {
  isal_zstream stream;
  std::unique_ptr<unsigned char[]> workspace;
  unsigned char out[kOut];
};

FastDeflate::FastDeflate() = default;
FastDeflate::~FastDeflate() = default;

bool FastDeflate::isAvailable() { return true; }

bool FastDeflate::begin(int level) {
  const unsigned size = workspaceFor(level);
  m_engine.reset(new (std::nothrow) Engine());
  if (!m_engine) return false;
  m_engine->workspace.reset(new (std::nothrow) unsigned char[size]);
  if (!m_engine->workspace) return false;
  isal_zstream& stream = m_engine->stream;
  isal_deflate_init(&stream);
  stream.level = static_cast<unsigned>(level);
  stream.level_buf = m_engine->workspace.get();
  stream.level_buf_size = size;
  return true;
}

bool FastDeflate::run(const unsigned char* bytes, unsigned n, bool last, DataBuffer& to) {
  isal_zstream& stream = m_engine->stream;
  stream.next_in = const_cast<unsigned char*>(bytes);
  stream.avail_in = n;
  stream.end_of_stream = last;
  do {
    stream.next_out = m_engine->out;
    stream.avail_out = kOut;
    if (isal_deflate(&stream) != COMP_OK) return false;
    if (!to.append(m_engine->out, kOut - stream.avail_out)) throw std::bad_alloc();
  } while (stream.avail_out == 0 || stream.avail_in > 0);
  return !last || stream.internal_state.state == ZSTATE_END;
}

}  // namespace morvane
