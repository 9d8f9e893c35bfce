// Names into UTF-8 through the system's iconv. What iconv cannot convert is kept byte for byte, because a
// member with a broken name is still a member.
//
// Character sets with a state (ISO-2022, UTF-7) and those that hold a character back until the next one is
// known (Vietnamese, Hebrew and some East Asian ones) make this more than a loop: see convert and flush.
#include "runtime/text/CharsetDecoder.h"

#include <iconv.h>
#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

namespace morvane {

namespace {

// Names of many megabytes come from hostile archives: they are converted in pieces of this size. The memory
// for a name is then that of its result, and no second copy.
constexpr size_t kPiece = 4096;

// An empty name counts as one, too. Bytes are then not looked at.
bool meansUtf8(const char* name) {
  return *name == '\0' || strcasecmp(name, "utf-8") == 0 || strcasecmp(name, "utf8") == 0;
}

// Null for a character set that the system does not know. Memory that runs out inside may look the same: so
// it is tried again, and a character set that needs no file of the system's tells whether there is any.
void* openConverter(const char* charsetName) {
  const auto open = [](const char* name) {
    const iconv_t opened = iconv_open("UTF-8", name);
    return opened == reinterpret_cast<iconv_t>(-1) ? nullptr : static_cast<void*>(opened);
  };
  void* opened = open(charsetName);
  if (!opened) opened = open(charsetName);
  if (opened) return opened;
  void* const known = open("US-ASCII");
  if (!known) throw std::bad_alloc();
  iconv_close(static_cast<iconv_t>(known));
  return nullptr;
}

// Whether a character may be held back, because the next one may combine with it: then its bytes are taken,
// nothing comes out, and a flush brings it. These are such characters, one for each character set that has
// any. Asked once a decoder. It decides whether something must be flushed in front of a byte that does not
// convert.
bool holdsBack(void* converter) {
  for (std::string_view probe : {"A", "\xE5", "\xA4\xAB", "\x82\xA9", "\x88\x66"}) {
    const auto cd = static_cast<iconv_t>(converter);
    iconv(cd, nullptr, nullptr, nullptr, nullptr);
    char out[64];
    char* in = const_cast<char*>(probe.data());
    char* outAt = out;
    size_t inLeft = probe.size(), outLeft = sizeof out;
    if (iconv(cd, &in, &inLeft, &outAt, &outLeft) != 0 || inLeft > 0 || outAt != out) continue;
    iconv(cd, nullptr, nullptr, &outAt, &outLeft);
    if (outAt != out) return true;
  }
  return false;
}

}  // namespace

// An unknown name is no failure here: the caller asks isKnown, and the bytes are copied.
CharsetDecoder::CharsetDecoder(const char* charsetName) {
  if (meansUtf8(charsetName)) return;
  m_converter = openConverter(charsetName);
  m_known = m_converter != nullptr;
  m_holdsBack = m_known && holdsBack(m_converter);
}

CharsetDecoder::~CharsetDecoder() {
  if (m_converter) iconv_close(static_cast<iconv_t>(m_converter));
}

// Throws std::bad_alloc only; `utf8` then ends in part of the name. A character that a piece's end cuts is
// kept for the next piece; its bytes have had their replacement already, so only new ones get it.
void CharsetDecoder::append(std::string_view bytes, char from, char to, std::string& utf8) {
  if (isUtf8()) {
    const size_t start = utf8.size();
    utf8.append(bytes);
    const bool hasAny = from != to && bytes.find(from) != std::string_view::npos;
    if (hasAny) std::replace(utf8.begin() + static_cast<std::ptrdiff_t>(start), utf8.end(), from, to);
    return;
  }
  // Each name starts in the initial state.
  iconv(static_cast<iconv_t>(m_converter), nullptr, nullptr, nullptr, nullptr);
  utf8.reserve(utf8.size() + bytes.size());
  char piece[kPiece];
  size_t held = 0;  // of the piece before: the beginning of a character
  do {
    const size_t n = std::min(bytes.size(), kPiece - held);
    bytes.copy(piece + held, n);
    if (from != to) std::replace(piece + held, piece + held + n, from, to);
    bytes.remove_prefix(n);
    const size_t left = convert(piece, held + n, bytes.empty(), utf8);
    std::memmove(piece, piece + held + n - left, left);
    held = left;
  } while (held > 0 || !bytes.empty());
  flush(utf8);
}

// What could not be taken yet, for it goes on in the next piece; nothing if this is the last one. The bytes
// are taken in order; after each that does not convert iconv goes on behind it. E2BIG is no failure: the
// output is short on purpose, and each round makes room again. Every other error costs at least one byte,
// so that the loop ends.
size_t CharsetDecoder::convert(char* bytes, size_t n, bool last, std::string& utf8) {
  while (n > 0) {
    char out[512];
    char* outAt = out;
    size_t outLeft = sizeof out;
    const size_t result = iconv(static_cast<iconv_t>(m_converter), &bytes, &n, &outAt, &outLeft);
    // Read at once, because appending may allocate and change errno.
    const int error = result == static_cast<size_t>(-1) ? errno : 0;
    utf8.append(out, sizeof out - outLeft);
    if (error == 0 || error == E2BIG) continue;
    // With its shift sequences. What is longer is no beginning of one.
    constexpr size_t kLongestCharacter = 32;
    if (error == EINVAL && !last && n < kLongestCharacter) return n;
    // What is held back stands in front of the byte that does not convert. Elsewhere nothing is flushed, for
    // that also forgets the shift state that the bytes before have brought about.
    if (m_holdsBack) flush(utf8);
    utf8.push_back(*bytes++);
    --n;
  }
  return 0;
}

// Brings out what a stateful character set holds back. The result is not looked at: what cannot be brought
// out is not there.
void CharsetDecoder::flush(std::string& utf8) {
  char out[512];
  char* outAt = out;
  size_t outLeft = sizeof out;
  iconv(static_cast<iconv_t>(m_converter), nullptr, nullptr, &outAt, &outLeft);
  utf8.append(out, sizeof out - outLeft);
}

}  // namespace morvane
