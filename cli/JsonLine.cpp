// Written by hand, since an object of a dozen fields needs no library; what needs care is text that is no
// text.
#include "cli/JsonLine.h"

#include <cstdio>
#include <string_view>

#include "cli/MemberKind.h"
#include "runtime/progress/TarMemberInfo.h"

namespace mvtar {

namespace {

// How many bytes a character of UTF-8 has that begins here; 0 for bytes that are none (RFC 3629: no longer
// form than needed, no surrogates, nothing above U+10FFFF).
size_t utf8Length(std::string_view text) {
  const auto byte = [&](size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0u; };
  const auto follows = [&](size_t i) { return (byte(i) & 0xC0) == 0x80; };
  const unsigned first = byte(0), second = byte(1);
  if (first < 0x80) return 1;
  if (first >= 0xC2 && first <= 0xDF) return follows(1) ? 2 : 0;
  const bool isThree = (first == 0xE0 && second >= 0xA0) || (first == 0xED && second <= 0x9F) ||
                       (first >= 0xE1 && first <= 0xEF && first != 0xED);
  if (isThree) return follows(1) && follows(2) ? 3 : 0;
  const bool isFour = (first == 0xF0 && second >= 0x90) || (first == 0xF4 && second <= 0x8F) ||
                      (first >= 0xF1 && first <= 0xF3);
  return isFour && follows(1) && follows(2) && follows(3) ? 4 : 0;
}

// All codes that come here fit four digits. The mask tells that to the compiler, which would otherwise warn
// that the text may be cut.
void appendEscape(unsigned code, std::string& json) {
  char escape[8];
  std::snprintf(escape, sizeof escape, "\\u%04x", code & 0xFFFF);
  json += escape;
}

// RFC 8259 asks for escapes of quotes, back slashes and what is below U+0020. DEL is escaped beside them,
// because a terminal shows nothing of it. A byte that begins no character is escaped by itself, and reading
// goes on behind it, so that one damaged byte costs no character behind it.
void appendText(std::string_view text, std::string& json) {
  json += '"';
  while (!text.empty()) {
    const auto byte = static_cast<unsigned char>(text[0]);
    const size_t length = utf8Length(text);
    // The lone surrogates U+DC80 to U+DCFF: no text in UTF-8 can have them, so that what was escaped can be
    // told and turned back.
    if (length == 0) {
      appendEscape(0xDC00u + byte, json);
    } else if (byte == '"' || byte == '\\') {
      // Both stand for themselves behind a back slash.
      json += '\\';
      json += text[0];
    } else if (byte < 0x20 || byte == 0x7F) {
      appendEscape(byte, json);
    } else if (length == 2 && byte == 0xC2 && static_cast<unsigned char>(text[1]) < 0xA0) {
      // U+0080 to U+009F: control characters too, which terminals obey.
      appendEscape(static_cast<unsigned char>(text[1]), json);
    } else {
      json += text.substr(0, length);
    }
    text.remove_prefix(length == 0 ? 1 : length);
  }
  json += '"';
}

// With the comma in front: every field but the first comes through here.
void appendField(const char* name, std::string_view text, std::string& json) {
  json += std::string(", \"") + name + "\": ";
  appendText(text, json);
}

void appendField(const char* name, long long number, std::string& json) {
  json += std::string(", \"") + name + "\": " + std::to_string(number);
}

}  // namespace

// A time before 1970 counts back to its second and on from there by its fraction; as one number that is less
// than the seconds say.
std::string jsonLine(const morvane::TarMemberInfo& member) {
  std::string json = "{\"path\": ";
  appendText(member.path, json);
  const MemberKind& kind = kindOf(member);
  appendField("type", kind.name ? kind.name : std::string(1, member.typeFlag), json);
  // Text, because JSON knows no octal numbers.
  char mode[16];
  std::snprintf(mode, sizeof mode, "%04o", member.mode);
  appendField("mode", mode, json);
  // The exact ids: `uid` and `gid` stop where 32 bits end.
  appendField("uid", member.exactUid, json);
  appendField("gid", member.exactGid, json);
  appendField("user", member.userName, json);
  appendField("group", member.groupName, json);
  // Some headers state a size for a directory, which has no data.
  appendField("size", member.isDirectory ? 0 : member.realSize, json);
  long long seconds = member.mtime;
  unsigned nanoseconds = member.mtimeNanoseconds;
  const bool isNegative = seconds < 0 && nanoseconds > 0;
  if (isNegative) {
    ++seconds;
    nanoseconds = 1000000000 - nanoseconds;
  }
  // Half a second before 1970 is -0.5: of its whole seconds, which are 0, the sign would be lost.
  json += std::string(", \"mtime\": ") + (isNegative && seconds == 0 ? "-" : "") + std::to_string(seconds);
  if (nanoseconds > 0) {
    char fraction[16];
    std::snprintf(fraction, sizeof fraction, ".%09u", nanoseconds);
    json += fraction;
  }
  if (member.typeFlag == kHardLink || member.typeFlag == kSymbolicLink)
    appendField("link", member.linkPath, json);
  if (kind.isDevice()) {
    json += ", \"device\": [" + std::to_string(member.deviceMajor) + ", " +
            std::to_string(member.deviceMinor) + "]";
  }
  return json + "}\n";
}

}  // namespace mvtar
