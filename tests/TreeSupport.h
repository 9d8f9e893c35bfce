// What the tests of fidelity share: a tree with every kind of member, and all that can be seen of a tree.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include "TestSupport.h"

namespace morvane::testing {

inline bool isRoot() { return geteuid() == 0; }

// Makes t in the scratch directory: every kind of thing, as far as the user may make it.
void makeTree(const ScratchDir& dir);
// Gives t/key and t/d attributes and access lists. False where the file system has none.
bool addAttributes(const ScratchDir& dir);

// What one path of a tree is. Access and change times, and numbers of inodes, are of no interest.
struct Fact {
  mode_t mode = 0;  // with the type
  uid_t uid = 0;
  gid_t gid = 0;
  dev_t device = 0;
  long long seconds = 0, nanoseconds = 0;  // of the modification
  std::string contents;                    // a digest of a large file's; a link's text
  std::string attributes;                  // names and values
  std::string firstName;                   // of the names that this file has in the tree
  bool operator==(const Fact& other) const;
};
using Facts = std::map<std::string, Fact>;
// Of the directory itself (under the name ".") and everything below it.
Facts factsOf(const std::string& dir);
// The paths that are not the same in both, or only in one.
std::vector<std::string> differences(const Facts& one, const Facts& other);

}  // namespace morvane::testing
