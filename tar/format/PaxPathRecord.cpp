#include "tar/format/PaxPathRecord.h"

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

std::string paxPathRecord(std::string_view path, bool exact) {
  constexpr std::string_view kKeyword = " path=";
  constexpr size_t kFourDigitsFrom = 990;
  const size_t stated = path.size() < kFourDigitsFrom ? path.size() + 10 : path.size() + 11;
  const size_t length = exact ? exactRecordLength(kKeyword.size() + path.size() + 1) : stated;
  std::string record = std::to_string(length);
  return record.append(kKeyword).append(path).append(1, '\n');
}

}  // namespace morvane
