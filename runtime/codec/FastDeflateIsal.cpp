// FastDeflate over ISA-L's igzip, for builds that found the library; FastDeflateNone.cpp stands in for it
// elsewhere.
#include <isa-l/igzip_lib.h>

#include <new>

#include "runtime/buffer/DataBuffer.h"
#include "runtime/codec/FastDeflate.h"

namespace morvane {

namespace {

// What comes out at a time, appended to the buffer of the caller and then used again. It need not hold all
// that becomes of an input: the loop below comes back for the rest.
constexpr unsigned kOut = 64 * 1024;

// igzip works in memory that the caller supplies, and each level has a size of its own. Level 0 of igzip is
// not offered: here 0 stands for zlib's default.
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

// Some hundred KiB, with the workspace: on the heap, where missing memory can be told.
struct FastDeflate::Engine {
  isal_zstream stream;
  // As large as `level` wants it.
  std::unique_ptr<unsigned char[]> workspace;
  int level = 0;
  unsigned char out[kOut];

  // A full output may hide more, so the loop ends only with room to spare and nothing left of the input. The
  // library does not write to its input; its interface merely lacks the const.
  bool run(const unsigned char* bytes, unsigned n, DataBuffer& to) {
    stream.next_in = const_cast<unsigned char*>(bytes);
    stream.avail_in = n;
    do {
      stream.next_out = out;
      stream.avail_out = kOut;
      if (isal_deflate(&stream) != COMP_OK) return false;
      if (!to.append(out, kOut - stream.avail_out)) throw std::bad_alloc();
    } while (stream.avail_out == 0 || stream.avail_in > 0);
    return true;
  }
};

FastDeflate::FastDeflate() = default;
FastDeflate::~FastDeflate() = default;

bool FastDeflate::isAvailable() { return true; }

// `new` without exceptions, because the caller has one message for every way in which a compressor can fail
// to begin. Memory of the right size is used again, because blocks of an archive begin many streams of one
// level.
bool FastDeflate::begin(int level) {
  const unsigned size = workspaceFor(level);
  if (!m_engine || m_engine->level != level) {
    m_engine.reset(new (std::nothrow) Engine());
    if (!m_engine) return false;
    m_engine->workspace.reset(new (std::nothrow) unsigned char[size]);
    if (!m_engine->workspace) return false;
    m_engine->level = level;
  }
  isal_zstream& stream = m_engine->stream;
  isal_deflate_init(&stream);
  stream.level = static_cast<unsigned>(level);
  stream.level_buf = m_engine->workspace.get();
  stream.level_buf_size = size;
  return true;
}

// The library copies the dictionary, and does not write to it; its interface merely lacks the const.
bool FastDeflate::beginBehind(int level, const unsigned char* before, unsigned n) {
  if (!begin(level)) return false;
  auto* const dictionary = const_cast<unsigned char*>(before);
  return n == 0 || isal_deflate_set_dict(&m_engine->stream, dictionary, n) == COMP_OK;
}

// A stream is whole once the engine has written its end: anything else behind the last piece is a failure.
bool FastDeflate::run(const unsigned char* bytes, unsigned n, bool last, DataBuffer& to) {
  isal_zstream& stream = m_engine->stream;
  stream.end_of_stream = last;
  return m_engine->run(bytes, n, to) && (!last || stream.internal_state.state == ZSTATE_END);
}

// The flush ends at a byte, with the engine ready for the next header. A sync flush is an empty stored
// block (RFC 1951, 3.2.4), which fills up the last byte.
bool FastDeflate::runBlock(const unsigned char* bytes, unsigned n, bool last, DataBuffer& to) {
  m_engine->stream.flush = last ? NO_FLUSH : SYNC_FLUSH;
  return run(bytes, n, last, to) && (last || m_engine->stream.internal_state.state == ZSTATE_NEW_HDR);
}

}  // namespace morvane
