// What an archive is, told by its content, because names lie: plain tar by its first header block, the
// compressions by their magic, and what is none of these by signatures worth a sentence to the person who
// mistook it.
#include "tar/format/ArchiveContent.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "runtime/io/_mvDataSource.h"
#include "tar/format/TarBlock.h"
#include "tar/format/TarNumber.h"

namespace morvane {

namespace {

using namespace std::string_view_literals;

bool startsWith(const unsigned char* bytes, unsigned n, const char* signature, unsigned length) {
  return n >= length && std::memcmp(bytes, signature, length) == 0;
}

bool isPlainBlock(const unsigned char* bytes, unsigned n) {
  return n >= kBlockSize && (looksLikeHeader(bytes) ||
                             std::all_of(bytes, bytes + kBlockSize, [](unsigned char b) { return b == 0; }));
}

// The magic alone, which ustar and GNU's form have in common, and the forms before them have not.
bool beginsLikeHeader(const unsigned char* bytes, unsigned n) {
  constexpr unsigned kMagicAlone = 5;
  return n >= kMagicField.offset + kMagicAlone &&
         std::memcmp(bytes + kMagicField.offset, kUstarMagic, kMagicAlone) == 0;
}

}  // namespace

// Tar first: a header's first bytes are a member's name, and a name may begin with any signature. A valid
// checksum is not met with by chance.
std::optional<Compression> recogniseArchive(const unsigned char* bytes, unsigned n) {
  if (isPlainBlock(bytes, n)) return Compression::None;
  return compressionByContent(bytes, n);
}

// The longer signature stands in front of the shorter one that it begins with. A literal that holds NULs is a
// string_view with its length. A cut literal keeps an escape from taking the digit behind it for its own.
const char* foreignContent(const unsigned char* bytes, unsigned n) {
  // Before the loop below, since no bytes at all would also be text.
  if (n == 0) return "The archive is empty.";
  static constexpr struct {
    std::string_view signature;
    const char* sentence;
  } kForeign[] = {
      {"\x04\x22\x4D\x18"sv, "This is lz4-compressed, which cannot be read."},
      {"LZIP"sv, "This is lzip-compressed, which cannot be read."},
      {"PK\3\4"sv, "This is a ZIP archive, no tar."},
      {"PK\5\6"sv, "This is a ZIP archive, no tar."},
      {"7z\xBC\xAF\x27\x1C"sv, "This is a 7z archive, no tar."},
      {"Rar!\x1A\7"sv, "This is a RAR archive, no tar."},
      {"!<arch>\ndebian-binary"sv,
       "This is a Debian package, no tar; its tarballs are members of an ar archive."},
      {"!<arch>\n"sv, "This is an ar archive, no tar."},
      // Of all its textual forms (070701, 070702, 070707).
      {"07070"sv, "This is a cpio archive, no tar."},
      {"\xED\xAB\xEE\xDB"sv, "This is an RPM package, no tar."},
  };
  for (const auto& [signature, sentence] : kForeign) {
    if (startsWith(bytes, n, signature.data(), static_cast<unsigned>(signature.size()))) return sentence;
  }
  // Printable bytes, white space and everything from 0x80 on, which is most of what any character set writes.
  // All n bytes must be text.
  const auto isText = [](unsigned char c) {
    return c >= 0x20 ? c != 0x7F : c == '\t' || (c >= '\n' && c <= '\r');
  };
  if (std::all_of(bytes, bytes + n, isText)) return "This is text, no archive.";
  return beginsLikeHeader(bytes, n) ? nullptr : "This is no archive of a known kind.";
}

// One block is enough for a header and far more than enough for a magic.
bool detectArchive(_mvDataSource& source, std::optional<Compression>& found, ProgressMonitor* pm,
                   LogBase& log) {
  const char* bytes = nullptr;
  unsigned n = 0;
  // Peeked and not read: whoever reads the archive begins at its first byte.
  if (!source.peekBytes(kBlockSize, bytes, n, pm, log)) return false;
  found = recogniseArchive(reinterpret_cast<const unsigned char*>(bytes), n);
  return true;
}

const char* foreignContent(_mvDataSource& source, ProgressMonitor* pm, LogBase& log) {
  const char* bytes = nullptr;
  unsigned n = 0;
  if (!source.peekBytes(kBlockSize, bytes, n, pm, log)) return nullptr;
  return foreignContent(reinterpret_cast<const unsigned char*>(bytes), n);
}

}  // namespace morvane
