// The 60 bytes in front of each member of an ar archive, in the common form that dpkg reads (ar(5), deb(5)).
// There is no standard for it; the layout has not changed in decades.
#include "tar/format/ArFormat.h"

namespace morvane {

namespace {

// Fields are text, flush left. A name or number that is too long for its field is cut rather than refused:
// the callers write names of their own, and no size of 11 digits gets this far, because a package is held in
// memory.
std::string padded(std::string_view text, size_t width) {
  std::string field(text.substr(0, width));
  return field.append(width - field.size(), ' ');
}

}  // namespace

// Name, time, owner, group, mode and size have 16, 12, 6, 6, 8 and 10 bytes; the mode is octal, everything
// else decimal. Two bytes end the header, so that a reader sees at once when it has lost its place.
std::string arMemberHeader(std::string_view name, long long mtime, unsigned long long size) {
  return padded(name, 16) + padded(std::to_string(mtime), 12) + padded("0", 6) + padded("0", 6) +
         padded("100644", 8) + padded(std::to_string(size), 10) + "`\n";
}

}  // namespace morvane
