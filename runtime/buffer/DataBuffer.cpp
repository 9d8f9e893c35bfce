// A buffer that is filled at its end and eaten from its front, for pieces on their way between codecs,
// streams and memory.
//
// m_capacity says whose the bytes are: 0 while they are borrowed (or none), else the size of an allocation of
// ours. Nothing is written without makeRoom, which turns borrowed bytes into our own first. malloc and
// realloc are used because a large block can be grown in place, without a copy.
#include "runtime/buffer/DataBuffer.h"

#include <cstdlib>
#include <cstring>
#include <limits>

namespace morvane {

namespace {

// Less is not worth a second allocation a few bytes later.
constexpr unsigned kSmallestAllocation = 64;
constexpr unsigned long long kLargestSize = std::numeric_limits<unsigned>::max();

}  // namespace

DataBuffer::~DataBuffer() { clear(); }

// Text and bytes are the same here; the two forms only spare callers the cast.
bool DataBuffer::append(const char* bytes, unsigned n) {
  return append(reinterpret_cast<const unsigned char*>(bytes), n);
}

bool DataBuffer::append(const unsigned char* bytes, unsigned n) {
  if (n == 0) return true;
  // The bytes may be our own; making room moves them, so remember where they are. Borrowed ones stay.
  const unsigned char* const begin = m_bytes + m_start;
  const bool ours = m_capacity > 0 && bytes >= begin && bytes < begin + m_size;
  const size_t ownOffset = ours ? static_cast<size_t>(bytes - begin) : 0;
  if (!makeRoom(n)) return false;
  std::memmove(m_bytes + m_start + m_size, ours ? m_bytes + m_start + ownOffset : bytes, n);
  m_size += n;
  return true;
}

// Of the buffer itself too: the overlap is seen to above.
bool DataBuffer::append(const DataBuffer& other) { return append(other.getData2(), other.m_size); }

bool DataBuffer::appendStr(const char* text) {
  const size_t length = std::strlen(text);
  return length <= kLargestSize && append(text, static_cast<unsigned>(length));
}

// The first reservation of an empty buffer gets exactly what it asks for (see makeRoom).
bool DataBuffer::reserveMore(unsigned n) { return makeRoom(n); }

// Callers hand the pointer to functions that want one even for no bytes.
const unsigned char* DataBuffer::getData2() const {
  static const unsigned char kEmpty[1] = {0};
  return m_bytes ? m_bytes + m_start : kEmpty;
}

// Borrowed bytes are only let go.
void DataBuffer::clear() {
  if (m_capacity > 0) std::free(m_bytes);
  m_bytes = nullptr;
  m_start = m_size = m_capacity = 0;
}

void DataBuffer::weakClear() {
  if (m_capacity == 0) {
    clear();  // borrowed bytes are not ours to keep
    return;
  }
  m_start = m_size = 0;
}

// From the front by moving the start, from the end by moving the size; only out of the middle are bytes
// moved, and then borrowed ones become our own. Without memory for that nothing is removed.
void DataBuffer::removeChunk(unsigned offset, unsigned n) {
  if (offset >= m_size) return;
  if (n > m_size - offset) n = m_size - offset;
  if (offset == 0) {
    m_start += n;
  } else if (offset + n < m_size) {
    if (m_capacity == 0 && !makeRoom(0)) return;
    unsigned char* const hole = m_bytes + m_start + offset;
    std::memmove(hole, hole + n, m_size - offset - n);
  }
  m_size -= n;
  if (m_size == 0 && m_capacity > 0) m_start = 0;
}

// Nothing is written, so that borrowed bytes stay borrowed.
void DataBuffer::truncate(unsigned size) {
  if (size < m_size) m_size = size;
}

// Capacity 0 is the mark of borrowed bytes.
void DataBuffer::borrowData(const unsigned char* bytes, unsigned n) {
  clear();
  m_bytes = const_cast<unsigned char*>(bytes);  // never written: every change goes through makeRoom first
  m_size = n;
}

// Afterwards the bytes are our own and `more` bytes fit behind them. Capacity grows by half, so that
// appending costs the same per byte however long it goes on. False leaves everything as it was.
bool DataBuffer::makeRoom(unsigned long long more) {
  const unsigned long long needed = m_size + more;
  if (needed > kLargestSize) return false;
  const bool owned = m_capacity > 0;
  if (owned && m_start + needed <= m_capacity) return true;
  if (owned && needed <= m_capacity && m_start >= m_size) {
    // At least as much was eaten as is left, so moving the rest down is paid for by what was eaten. The two
    // places do not overlap for the same reason, so memcpy will do.
    std::memcpy(m_bytes, m_bytes + m_start, m_size);
    m_start = 0;
    return true;
  }
  unsigned long long capacity = needed + needed / 2;
  if (capacity < kSmallestAllocation) capacity = kSmallestAllocation;
  if (capacity > kLargestSize) capacity = kLargestSize;
  // A first reservation is taken at its word: no slack behind a buffer whose final size is known.
  if (!owned && m_size == 0 && needed >= kSmallestAllocation) capacity = needed;
  // realloc would copy the eaten part along.
  const bool plainGrowth = owned && m_start == 0;
  auto* const grown =
      static_cast<unsigned char*>(plainGrowth ? std::realloc(m_bytes, capacity) : std::malloc(capacity));
  if (!grown) return false;
  if (!plainGrowth) {
    if (m_size > 0) std::memcpy(grown, m_bytes + m_start, m_size);
    if (owned) std::free(m_bytes);
  }
  m_bytes = grown;
  m_start = 0;
  m_capacity = static_cast<unsigned>(capacity);
  return true;
}

}  // namespace morvane
