// What a path is called in an archive.
#pragma once

#include <string>

namespace mvtar {

// UTF-8 or whatever bytes the path has; nothing is decoded. A value, made by archiveNameOf alone; the sources
// of a command, names that --transform made and the members of -d all go by it.
struct ArchiveName {
  std::string name;  // without a slash at the end; empty for "." and "/": the members are named below it
  std::string
      removed;  // what was left off and is worth a notice: leading slashes, or everything up to the last ".."
};

// A leading "./" is left off, and so are doubled slashes and "." parts; unless `keep` is set, leading slashes
// and whatever stands before and with the last ".." go too.
// Slashes at the end are left off in either case. The file system is not asked.
ArchiveName archiveNameOf(const std::string& path, bool keep);

// The two joined by a "/"; either may be empty. A prefix that ends in a slash gets no second one.
std::string joinNames(const std::string& prefix, const std::string& name);

}  // namespace mvtar
