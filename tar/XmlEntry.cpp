#include "tar/XmlEntry.h"

#include <charconv>
#include <cstdio>
#include <string>

#include "runtime/fs/MorvaneFileTime.h"
#include "runtime/log/LogBase.h"
#include "runtime/text/CharsetDecoder.h"
#include "runtime/text/StringBuffer.h"
#include "runtime/text/Utf8.h"
#include "runtime/text/XString.h"
#include "tar/NameDecoder.h"
#include "tar/TarBlock.h"
#include "tar/TarHeader.h"

namespace morvane {

namespace {

// What XML 1.0 allows as a character; everything else has no way to be written, not even as a reference.
bool isXmlCharacter(char32_t c) {
  if (c < 0x20) return c == '\t' || c == '\n' || c == '\r';
  return c < kInvalidByte && c != 0xFFFE && c != 0xFFFF;
}

bool isPlainXml(std::string_view text) {
  for (size_t at = 0; at < text.size();) {
    if (!isXmlCharacter(nextUtf8(text, at))) return false;
  }
  return true;
}

// Text that stands for itself, as most names do.
bool needsNoCare(std::string_view text) {
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte >= 0x7F || c == '&' || c == '<' || c == '>' || c == '"') return false;
  }
  return true;
}

void appendHex(unsigned char byte, std::string& out) {
  char text[8];
  std::snprintf(text, sizeof text, "\\x%02X", byte);
  out += text;
}

// In text that holds anything XML cannot, such bytes become \xHH and a back slash two of them.
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
    if (escaped && c == '\\') {
      out += "\\\\";
    } else if (isXmlCharacter(c)) {
      out.append(text, start, at - start);
    } else {
      for (size_t i = start; i < at; ++i) appendHex(static_cast<unsigned char>(text[i]), out);
    }
  }
}

void appendElement(const char* name, std::string_view text, std::string& out) {
  const bool plain = needsNoCare(text);
  const bool escaped = !plain && !isPlainXml(text);
  out.append("\t\t<").append(name).append(escaped ? " escaped=\"true\">" : ">");
  if (plain) {
    out.append(text);
  } else {
    appendXmlText(text, escaped, out);
  }
  out.append("</").append(name).append(">\r\n");
}

const char* kindOf(const TarHeader& header) {
  if (header.m_isDirectory) return "directory";
  switch (header.m_typeFlag) {
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

// At least `width` decimal digits.
void appendDigits(int value, unsigned width, std::string& out) {
  const size_t start = out.size();
  out.append(width, '0');
  for (unsigned i = width; i-- > 0; value /= 10) out[start + i] = static_cast<char>('0' + value % 10);
}

// ISO 8601 in UTC; nothing for a year that has no four digits.
void appendIsoTime(long long seconds, std::string& out) {
  constexpr long long kYear0001 = -62135596800, kYear10000 = 253402300800;
  if (seconds < kYear0001 || seconds >= kYear10000) return;
  const MorvaneSysTime time = MorvaneSysTime::fromFileTime(MorvaneFileTime::fromUnixTime64(seconds));
  const auto part = [&out](int value, unsigned width, char behind) {
    appendDigits(value, width, out);
    out.push_back(behind);
  };
  out += " modified=\"";
  part(time.year, 4, '-');
  part(time.month, 2, '-');
  part(time.day, 2, 'T');
  part(time.hour, 2, ':');
  part(time.minute, 2, ':');
  part(time.second, 2, 'Z');
  out.push_back('"');
}

void appendNumber(const char* name, long long value, int base, std::string& out) {
  char digits[24];
  const auto end = std::to_chars(digits, digits + sizeof digits, value, base).ptr;
  out.append(name);
  constexpr long kModeDigits = 4;
  if (base == 8 && end - digits < kModeDigits)
    out.append(static_cast<size_t>(kModeDigits - (end - digits)), '0');
  out.append(digits, static_cast<size_t>(end - digits)).push_back('"');
}

std::string quotedPrintable(const unsigned char* bytes, unsigned n) {
  std::string text;
  for (unsigned i = 0; i < n; ++i) {
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

constexpr const char* kFieldNames[] = {"name",     "mode",     "uid",      "gid",   "size",  "mtime",
                                       "chksum",   "typeflag", "linkname", "magic", "uname", "gname",
                                       "devmajor", "devminor", "prefix",   "tail"};
static_assert(sizeof kFieldNames / sizeof *kFieldNames == sizeof kAllFields / sizeof *kAllFields);

// A field without the NULs at its end.
std::string fieldText(const unsigned char* block, const Field& field) {
  unsigned n = field.width;
  while (n > 0 && block[field.offset + n - 1] == 0) --n;
  return quotedPrintable(block + field.offset, n);
}

}  // namespace

void toXmlEntry(const TarHeader& header, XString& xml, const char* extensionData, CharsetDecoder& decoder) {
  std::string& out = xml.buffer();
  std::string decoded;
  const auto appendName = [&](const char* element, std::string_view bytes) {
    if (decoder.isUtf8()) {
      appendElement(element, bytes, out);
      return;
    }
    decoded.clear();
    decoder.append(bytes, decoded);
    appendElement(element, decoded, out);
  };
  out += "\t<entry type=\"";
  appendXmlText(std::string_view(&header.m_typeFlag, 1), true, out);
  out.append("\" kind=\"").append(kindOf(header)).append("\"");
  appendNumber(" size=\"", header.m_size, 10, out);
  appendNumber(" mode=\"", header.m_mode, 8, out);
  appendNumber(" uid=\"", header.m_uid, 10, out);
  appendNumber(" gid=\"", header.m_gid, 10, out);
  appendNumber(" mtime=\"", header.m_exactMtime.seconds, 10, out);
  appendIsoTime(header.m_exactMtime.seconds, out);
  out += ">\r\n";
  appendName("path", header.m_path.str());
  appendName("user", header.userName());
  appendName("group", header.groupName());
  if (*header.linkPath() != '\0') appendName("link", header.linkPath());
  if (extensionData) appendName("data", extensionData);
  out += "\t</entry>\r\n";
}

void TarHeader::toXmlEntry(XString& xml, const char* extensionData, const char* charset, ProgressMonitor*,
                           LogBase& log) const {
  NameDecoder names;
  morvane::toXmlEntry(*this, xml, extensionData, names.forCharset(charset, log));
}

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
