#include "tar/XmlEntry.h"

#include <cstdio>
#include <string>

#include "runtime/fs/MorvaneFileTime.h"
#include "runtime/log/LogBase.h"
#include "runtime/text/CharsetDecoder.h"
#include "runtime/text/StringBuffer.h"
#include "runtime/text/Utf8.h"
#include "runtime/text/XString.h"
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
  const bool escaped = !isPlainXml(text);
  out.append("\t\t<").append(name).append(escaped ? " escaped=\"true\">" : ">");
  appendXmlText(text, escaped, out);
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

// ISO 8601 in UTC, empty for a year that has no four digits.
std::string isoTime(long long seconds) {
  constexpr long long kYear0001 = -62135596800, kYear10000 = 253402300800;
  if (seconds < kYear0001 || seconds >= kYear10000) return std::string();
  const MorvaneSysTime time = MorvaneSysTime::fromFileTime(MorvaneFileTime::fromUnixTime64(seconds));
  char text[96];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02dZ", time.year, time.month, time.day,
                time.hour, time.minute, time.second);
  return text;
}

void appendAttribute(const char* name, std::string_view value, std::string& out) {
  out.append(" ").append(name).append("=\"").append(value).append("\"");
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
  const auto decoded = [&decoder](std::string_view bytes) {
    std::string utf8;
    decoder.append(bytes, utf8);
    return utf8;
  };
  std::string out = "\t<entry";
  std::string type;
  appendXmlText(std::string_view(&header.m_typeFlag, 1), true, type);
  char mode[16];
  std::snprintf(mode, sizeof mode, "%04o", header.m_mode);
  appendAttribute("type", type, out);
  appendAttribute("kind", kindOf(header), out);
  appendAttribute("size", std::to_string(header.m_size), out);
  appendAttribute("mode", mode, out);
  appendAttribute("uid", std::to_string(header.m_uid), out);
  appendAttribute("gid", std::to_string(header.m_gid), out);
  appendAttribute("mtime", std::to_string(header.m_exactMtime.seconds), out);
  const std::string modified = isoTime(header.m_exactMtime.seconds);
  if (!modified.empty()) appendAttribute("modified", modified, out);
  out += ">\r\n";
  appendElement("path", decoded(header.m_path.str()), out);
  appendElement("user", decoded(header.userName()), out);
  appendElement("group", decoded(header.groupName()), out);
  if (*header.linkPath() != '\0') appendElement("link", decoded(header.linkPath()), out);
  if (extensionData) appendElement("data", decoded(extensionData), out);
  out += "\t</entry>\r\n";
  xml.appendUtf8N(out.data(), static_cast<unsigned>(out.size()));
}

void getFieldsQP(const unsigned char* block, StringBuffer& out) {
  std::string text;
  for (unsigned i = 0; i < sizeof kAllFields / sizeof *kAllFields; ++i) {
    if (i > 0) text += "; ";
    text.append(kFieldNames[i]).append("=").append(fieldText(block, kAllFields[i]));
  }
  out = text;
}

void debugLogTarHeader(const unsigned char* block, LogBase& log) {
  for (unsigned i = 0; i < sizeof kAllFields / sizeof *kAllFields; ++i) {
    log.LogData(kFieldNames[i], fieldText(block, kAllFields[i]).c_str());
  }
}

}  // namespace morvane
