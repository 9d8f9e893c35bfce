// Pax records as text (IEEE 1003.1, "pax Extended Header File Format"): "LENGTH KEYWORD=VALUE\n", where the
// decimal length counts the whole record, its own digits and the newline.
#include "tar/format/PaxRecordText.h"

namespace morvane {

namespace {

// The record's length counts the digits of the record's length. Grows by a digit at most twice on the way: 99
// bytes without digits need a length of 3 digits, not 2. So the loop ends.
size_t exactRecordLength(size_t withoutDigits) {
  size_t length = withoutDigits;
  for (size_t previous = 0; length != previous;) {
    previous = length;
    length = withoutDigits + std::to_string(length).size();
  }
  return length;
}

}  // namespace

// No byte of the value is escaped, because the length tells where it ends.
void appendPaxRecord(std::string_view keyword, std::string_view value, std::string& records) {
  constexpr size_t kBlankEqualsAndNewline = 3;
  records += std::to_string(exactRecordLength(kBlankEqualsAndNewline + keyword.size() + value.size()));
  records.append(1, ' ').append(keyword).append(1, '=').append(value).append(1, '\n');
}

// Both characters have to be escaped: the first because it ends a keyword, the second because it begins an
// escape. Anything else may stand in a keyword as it is.
std::string escapedKeyword(std::string_view name) {
  std::string escaped;
  for (const char c : name) {
    if (c == '=' || c == '%') {
      escaped += c == '=' ? "%3D" : "%25";
    } else {
      escaped += c;
    }
  }
  return escaped;
}

// A "%" in front of anything else stands for itself, as writers that escape nothing mean it.
std::string unescapedKeyword(std::string_view name) {
  std::string plain;
  while (!name.empty()) {
    const std::string_view escape = name.substr(0, 3);
    const bool isEscape = escape == "%3D" || escape == "%25";
    plain += escape == "%3D" ? '=' : name.front();
    name.remove_prefix(isEscape ? escape.size() : 1);
  }
  return plain;
}

// What the length is short of: " path=" and the newline are 7 bytes, and the digits three, or four from 990
// bytes on. From 9,989 bytes on there are five digits, which the short rule does not know. It is kept,
// because equal input is to give equal archives in every version; FullExtensions.cpp forgives the missing
// one, and a reader that goes by lines does not see it.
std::string paxPathRecord(std::string_view path, bool exact) {
  std::string record;
  if (exact) {
    appendPaxRecord("path", path, record);
    return record;
  }
  constexpr size_t kFourDigitsFrom = 990;
  record = std::to_string(path.size() < kFourDigitsFrom ? path.size() + 10 : path.size() + 11);
  return record.append(" path=").append(path).append(1, '\n');
}

// -1 second and 500,000,000 nanoseconds is "-0.5": half a second before 1970. Zeros at the end of a fraction
// say nothing and are left out. The 1 is added before the sign changes, so that even -2^63 seconds do not
// overflow.
std::string paxTimeText(const TarTime& time) {
  if (time.nanoseconds == 0) return std::to_string(time.seconds);
  // The fraction counts forward from the second; in text, before 1970, it counts away from zero.
  const bool isNegative = time.seconds < 0;
  constexpr unsigned kSecond = 1000000000;
  const unsigned fraction = isNegative ? kSecond - time.nanoseconds : time.nanoseconds;
  const long long whole = isNegative ? -(time.seconds + 1) : time.seconds;
  std::string digits = std::to_string(fraction + kSecond).substr(1);
  digits.erase(digits.find_last_not_of('0') + 1);
  return (isNegative ? "-" : "") + std::to_string(whole) + "." + digits;
}

}  // namespace morvane
