#include "tar/format/PaxRecordText.h"

namespace morvane {

namespace {

// The record's length counts the digits of the record's length.
size_t exactRecordLength(size_t withoutDigits) {
  size_t length = withoutDigits;
  for (size_t previous = 0; length != previous;) {
    previous = length;
    length = withoutDigits + std::to_string(length).size();
  }
  return length;
}

}  // namespace

void appendPaxRecord(std::string_view keyword, std::string_view value, std::string& records) {
  constexpr size_t kBlankEqualsAndNewline = 3;
  records += std::to_string(exactRecordLength(kBlankEqualsAndNewline + keyword.size() + value.size()));
  records.append(1, ' ').append(keyword).append(1, '=').append(value).append(1, '\n');
}

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
