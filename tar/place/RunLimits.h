// What one run may take of an archive before it gives up on it: how many members, how many bytes, how deep a
// path.
//
// Each of these fails when a limit is reached: "Limit reached." is in the log with the word and its value,
// the event has heard the same, and the run is to end. What was extracted before stays.
#pragma once

#include <string_view>

namespace morvane {

struct Io;
struct TarOptions;

// How many parts a path has; empty ones do not count.
long long depthOf(std::string_view path);

// Says that a limit is reached. False, for the caller to return.
bool failAtLimit(const char* word, long long value, const Io& io);

class RunLimits {
 public:
  void clear() { *this = RunLimits(); }

  // One more member, also one that filters leave out: how many there are, and how deep, where that was asked
  // for.
  [[nodiscard]] bool takeMember(std::string_view entryPath, const TarOptions& options, const Io& io);
  // A member that is to be made on the disk, asked before it is announced. Unless a depth was asked for, its
  // limit holds only here: a tree that is too deep for other programs to remove does no harm while it is
  // listed or filtered out.
  [[nodiscard]] static bool mayMake(std::string_view entryPath, const TarOptions& options, const Io& io);
  // Whether a member with so many bytes of data may be extracted, asked before it is announced; and that it
  // was.
  [[nodiscard]] bool mayTakeData(long long size, const TarOptions& options, const Io& io) const;
  void tookData(long long size);

 private:
  long long m_members = 0;
  long long m_totalBytes = 0;
};

}  // namespace morvane
