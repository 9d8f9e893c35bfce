// The kinds of members, as the command shows and compares them.
#pragma once

namespace morvane {
struct TarMemberInfo;
}

namespace mvtar {

// Type flags (POSIX ustar) of members that are more than a name and data, for those who have to tell them
// from files; the other flags stand in the table of MemberKind.cpp alone.
constexpr char kHardLink = '1', kSymbolicLink = '2', kDirectory = '5';
// GNU tar: the rest of a file that begins in another volume.
constexpr char kContinuation = 'M';

// A row of a table, of which there is one for each kind; it is referred to and never copied or changed.
struct MemberKind {
  char letter;       // as ls shows it; "h" for a hard link, which ls does not know
  const char* name;  // in JSON; null for a type flag that nobody knows, which stands for itself
  unsigned type;     // of what it becomes on the disk: S_IFREG and its like

  bool isDevice() const;
  bool isSpecial() const;  // a FIFO or a device
  // Whether it has data of its own: neither a link nor a special file nor a directory.
  // What the header states as its size does not count.
  bool hasData() const;
};

// By the type flag, but for directories, which old headers have as files. A flag that nobody knows is a file,
// as POSIX asks of readers. The result is valid for ever.
const MemberKind& kindOf(const morvane::TarMemberInfo& member);

}  // namespace mvtar
