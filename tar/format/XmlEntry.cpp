// An XML element for each header of an archive (docs/xml-listing.md). It must be well-formed whatever bytes a
// name has, must show every byte of a path, and must be quick, because listings have millions of elements: so
// most of this is about telling early that a text needs no care.
#include "tar/format/XmlEntry.h"

#include <charconv>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string>
#include <string_view>

#include "runtime/fs/MorvaneFileTime.h"
#include "runtime/log/LogBase.h"
#include "runtime/text/CharsetDecoder.h"
#include "runtime/text/StringBuffer.h"
#include "runtime/text/Utf8.h"
#include "runtime/text/XString.h"
#include "tar/format/Member.h"
#include "tar/format/NameDecoder.h"
#include "tar/format/TarBlock.h"

namespace morvane {

namespace {

// What XML 1.0 allows as a character; everything else has no way to be written, not even as a reference. A
// byte that is no UTF-8 comes as a character beyond kInvalidByte, and so is none either.
bool isXmlCharacter(char32_t c) {
  if (c < 0x20) return c == '\t' || c == '\n' || c == '\r';
  return c < kInvalidByte && c != 0xFFFE && c != 0xFFFF;
}

// Whether every character can be written, by itself or as a reference. nextUtf8 goes on by at least a byte,
// so that the loop ends for any bytes.
bool isPlainXml(std::string_view text) {
  for (size_t at = 0; at < text.size();) {
    if (!isXmlCharacter(nextUtf8(text, at))) return false;
  }
  return true;
}

// Text that stands for itself, as most names do. One pass over the bytes, and then they are appended as they
// are.
bool needsNoCare(std::string_view text) {
  for (const char c : text) {
    // Bytes from 0x80 on may be UTF-8 or not, which takes the longer way to tell.
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte >= 0x7F || c == '&' || c == '<' || c == '>' || c == '"') return false;
  }
  return true;
}

// Upper case and two digits, so that it is told where the byte ends.
void appendHex(unsigned char byte, std::string& out) {
  char text[8];
  std::snprintf(text, sizeof text, "\\x%02X", byte);
  out += text;
}

// In text that holds anything XML cannot, such bytes become \xHH and a back slash two of them. `escaped` says
// that the element is marked so, and only then is a back slash two: elsewhere one is a back slash.
void appendXmlText(std::string_view text, bool escaped, std::string& out) {
  for (size_t at = 0; at < text.size();) {
    const size_t start = at;
    const char32_t c = nextUtf8(text, at);
    switch (c) {
      case '&':
        out += "&amp;";
        continue;
      case '<':
        out += "&lt;";
        continue;
      case '>':
        out += "&gt;";
        continue;
      // The same function writes the attributes, which are quoted.
      case '"':
        out += "&quot;";
        continue;
      // As references, for a parser turns them into blanks or line ends of its own.
      case '\t':
        out += "&#9;";
        continue;
      case '\n':
        out += "&#10;";
        continue;
      case '\r':
        out += "&#13;";
        continue;
      default:
        break;
    }
    // Only where the element is marked: there a back slash begins an escape.
    if (escaped && c == '\\') {
      out += "\\\\";
    } else if (isXmlCharacter(c)) {
      out.append(text, start, at - start);
    } else {
      for (size_t i = start; i < at; ++i) appendHex(static_cast<unsigned char>(text[i]), out);
    }
  }
}

// The three texts of an element, ready to be appended: its start, its start where the text is escaped, its
// end. Lines end in CR LF.
struct Element {
  std::string_view start, escapedStart, end;
};

#define MORVANE_ELEMENT(name) \
  { "\t\t<" name ">", "\t\t<" name " escaped=\"true\">", "</" name ">\r\n" }
// Path, user and group are in every entry, link and data only where there are such.
constexpr Element kPathElement = MORVANE_ELEMENT("path");
constexpr Element kUserElement = MORVANE_ELEMENT("user");
constexpr Element kGroupElement = MORVANE_ELEMENT("group");
constexpr Element kLinkElement = MORVANE_ELEMENT("link");
constexpr Element kDataElement = MORVANE_ELEMENT("data");
#undef MORVANE_ELEMENT

// Whether anything has to be escaped is asked first, because the mark stands in front of the text.
void appendElement(const Element& element, std::string_view text, std::string& out) {
  if (needsNoCare(text)) {
    out.append(element.start).append(text);
  } else {
    const bool escaped = !isPlainXml(text);
    out.append(escaped ? element.escapedStart : element.start);
    appendXmlText(text, escaped, out);
  }
  out.append(element.end);
}

// A word for people and scripts that do not know type flags; the flag itself is an attribute beside it.
// Devices, FIFOs and types that nobody knows are all "other".
std::string_view kindOf(const Member& member) {
  if (member.isDirectory) return "directory";
  switch (member.typeFlag) {
    case kTypeRegular:
    case kTypeOldRegular:
      return "file";
    case kTypeHardLink:
      return "hardlink";
    case kTypeSymbolicLink:
      return "symlink";
    case kTypePax:
    case kTypePaxGlobal:
    case kTypeLongName:
    case kTypeLongLink:
      return "record";
    default:
      return "other";
  }
}

// The start of an entry, put together apart and appended in one go: there is one for each of a million
// members. Growing the listing's own string piece by piece would check its room a dozen times for each of
// them.
class EntryStart {
 public:
  // There is room, see m_text.
  void text(std::string_view text) {
    std::memcpy(m_end, text.data(), text.size());
    m_end += text.size();
  }
  // Zeros in front up to a number of digits: modes have four octal ones, times two of each part. to_chars,
  // because it needs no format text and no locale.
  void number(std::string_view label, long long value, int base = 10, unsigned leastDigits = 1) {
    text(label);
    char digits[24];
    const auto n = static_cast<unsigned>(std::to_chars(digits, std::end(digits), value, base).ptr - digits);
    for (unsigned i = n; i < leastDigits; ++i) text("0");
    text(std::string_view(digits, n));
  }
  // ISO 8601 in UTC; nothing for a year that has no four digits.
  void isoTime(std::string_view label, long long seconds, std::string_view behind) {
    // The first second of the year 1, and that of the year 10000. Asked before the calendar is: a time may be
    // anything that 63 bits hold.
    constexpr long long kYear0001 = -62135596800, kYear10000 = 253402300800;
    if (seconds < kYear0001 || seconds >= kYear10000) return;
    const MorvaneSysTime time = MorvaneSysTime::fromFileTime(MorvaneFileTime::fromUnixTime64(seconds));
    number(label, time.year, 10, 4);
    number("-", time.month, 10, 2);
    number("-", time.day, 10, 2);
    number("T", time.hour, 10, 2);
    number(":", time.minute, 10, 2);
    number(":", time.second, 10, 2);
    text(behind);
  }
  // The one append of all of it.
  void appendTo(std::string& out) const { out.append(m_text, static_cast<size_t>(m_end - m_text)); }

 private:
  // Nothing is checked against its size, because no text of an archive comes here: labels are constants, and
  // a number of 64 bits has 22 digits at most.
  char m_text[384];  // the labels have 90, six numbers at most 23 each, the time and the kind 30
  char* m_end = m_text;
};

// After RFC 2045, without its line breaks: plain ASCII stands for itself, everything else is "=HH".
std::string quotedPrintable(const unsigned char* bytes, unsigned n) {
  std::string text;
  for (unsigned i = 0; i < n; ++i) {
    // Bytes, not characters: whoever looks at a raw block wants to see what is there.
    const unsigned char byte = bytes[i];
    // "]" and ">" too, so that no CDATA section is ended, and what separates the fields.
    const bool plain =
        byte >= 0x20 && byte < 0x7F && byte != '=' && byte != ']' && byte != '>' && byte != ';';
    if (plain) {
      text.push_back(static_cast<char>(byte));
    } else {
      char escape[8];
      std::snprintf(escape, sizeof escape, "=%02X", byte);
      text += escape;
    }
  }
  return text;
}

// In the order of kAllFields, by the names that POSIX gives them; it has none for the last.
constexpr const char* kFieldNames[] = {"name",     "mode",     "uid",      "gid",   "size",  "mtime",
                                       "chksum",   "typeflag", "linkname", "magic", "uname", "gname",
                                       "devmajor", "devminor", "prefix",   "tail"};
// A field that is added to the block needs its name here.
static_assert(sizeof kFieldNames / sizeof *kFieldNames == sizeof kAllFields / sizeof *kAllFields);

// A field without the NULs at its end. Blanks stay, for they tell one writer from another. A field of NULs
// alone is empty text.
std::string fieldText(const unsigned char* block, const Field& field) {
  unsigned n = field.width;
  while (n > 0 && block[field.offset + n - 1] == 0) --n;
  return quotedPrintable(block + field.offset, n);
}

}  // namespace

// Texts end at the first NUL, also a name that a pax record gave one, for XML cannot hold it; only the path
// shows it, escaped.
void toXmlEntry(const Member& member, XString& xml, const char* extensionData, CharsetDecoder& decoder) {
  // Built in the listing's own text: a text for each entry would be one more copy of it.
  std::string& out = xml.buffer();
  std::string decoded;
  // UTF-8 is looked at as it is, without a copy.
  const auto appendName = [&](const Element& element, std::string_view bytes) {
    if (decoder.isUtf8()) {
      appendElement(element, bytes, out);
      return;
    }
    decoded.clear();
    decoder.append(bytes, decoded);
    appendElement(element, decoded, out);
  };
  // The type flag may be any byte; it is escaped like a text, and an escape here has no mark of its own.
  out += "\t<entry type=\"";
  appendXmlText(std::string_view(&member.typeFlag, 1), true, out);
  EntryStart start;
  start.text("\" kind=\"");
  start.text(kindOf(member));
  // Decimal but for the mode, which everybody knows in octal.
  start.number("\" size=\"", member.size);
  start.number("\" mode=\"", member.mode, 8, 4);
  start.number("\" uid=\"", member.uid);
  start.number("\" gid=\"", member.gid);
  start.number("\" mtime=\"", member.listedMtime);
  start.isoTime("\" modified=\"", member.listedMtime, "Z");
  start.text("\">\r\n");
  start.appendTo(out);
  appendName(kPathElement, member.path);
  appendName(kUserElement, member.userName.c_str());
  appendName(kGroupElement, member.groupName.c_str());
  // Most members have no link, and get no empty element for it.
  if (*member.linkPath.c_str() != '\0') appendName(kLinkElement, member.linkPath.c_str());
  if (extensionData) appendName(kDataElement, extensionData);
  out += "\t</entry>\r\n";
}

// For a single header; a run over many keeps one decoder for all (morvane::toXmlEntry).
void TarHeader::toXmlEntry(XString& xml, const char* extensionData, const char* charset, ProgressMonitor*,
                           LogBase& log) const {
  // By way of a member, so that there is one function that writes elements.
  Member shown;
  shown.copyHeader(*this);
  // An unknown character set is said here as elsewhere.
  NameDecoder names;
  morvane::toXmlEntry(shown, xml, extensionData, names.forCharset(charset, log));
}

// What parsing made of the fields does not matter: these are the raw bytes.
void TarHeader::getFieldsQP(const unsigned char* block, StringBuffer& out) {
  std::string text;
  for (unsigned i = 0; i < sizeof kAllFields / sizeof *kAllFields; ++i) {
    if (i > 0) text += "; ";
    text.append(kFieldNames[i]).append("=").append(fieldText(block, kAllFields[i]));
  }
  out = text;
}

void TarHeader::debugLogTarHeader(const unsigned char* block, LogBase& log) {
  for (unsigned i = 0; i < sizeof kAllFields / sizeof *kAllFields; ++i) {
    log.LogData(kFieldNames[i], fieldText(block, kAllFields[i]).c_str());
  }
}

}  // namespace morvane
