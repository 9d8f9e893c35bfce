#include "tar/format/ArFormat.h"

namespace morvane {

namespace {

std::string padded(std::string_view text, size_t width) {
  std::string field(text.substr(0, width));
  return field.append(width - field.size(), ' ');
}

}  // namespace

std::string arMemberHeader(std::string_view name, long long mtime, unsigned long long size) {
  return padded(name, 16) + padded(std::to_string(mtime), 12) + padded("0", 6) + padded("0", 6) +
         padded("100644", 8) + padded(std::to_string(size), 10) + "`\n";
}

}  // namespace morvane
