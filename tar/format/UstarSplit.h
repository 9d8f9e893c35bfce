// The ustar way of storing a long path: cut at a slash into prefix and name.
#pragma once

#include <string>
#include <string_view>

namespace morvane {

// 155 bytes of prefix and 100 of name. A prefix without its slash would allow for one byte more, which is not
// used.
constexpr size_t kLongestUstarPath = 255;
constexpr size_t kLongestNameInBlock = 100;

// Why a path cannot be cut. They stand here for those who refuse a member as well as for those who split.
constexpr char kUstarPathTooLong[] = "Max path length for ustar format is 255 bytes.";
constexpr char kUstarCannotSplit[] =
    "Max lengths for ustar format are 100 bytes for the filename and 155 bytes for the prefix.";

// What is stored in the two fields. It must not outlive the path.
struct UstarSplit {
  const char* error = nullptr;  // null: the split worked
  std::string_view name;
  // With the slash that joins it to the name: unlike what other tars store, and kept for readers of our
  // archives. Not checked against the field's 155 bytes.
  std::string_view prefix;
};

// Cuts at the first slash from the left that leaves a name of 1 to 100 bytes. The views point into `path`. Up
// to 100 bytes all is name.
UstarSplit splitUstarPath(std::string_view path);

}  // namespace morvane
