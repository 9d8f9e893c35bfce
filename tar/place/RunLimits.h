// What one run may take of an archive before it gives up on it: how many members, how many bytes, how deep a
// path.
//
// At a limit the run ends: "Limit reached." is in the log with the word and its value, and the event has
// heard the same. What was extracted before stays. Finding out and telling are two steps, because files of
// earlier members may be under way, and one of those that fails is what ended the run.
#pragma once

#include <string_view>

namespace morvane {

struct Io;
struct TarOptions;

// How many parts a path has; empty ones do not count.
long long depthOf(std::string_view path);

// Says that a limit is reached. False, for the caller to return.
bool failAtLimit(const char* word, long long value, const Io& io);

// The questions are false at a limit; which one it is, fail() knows until the next question.
class RunLimits {
 public:
  void clear() { *this = RunLimits(); }

  // One more member, also one that filters leave out: how many there are, and how deep, where that was asked
  // for.
  [[nodiscard]] bool takeMember(std::string_view entryPath, const TarOptions& options);
  // A member that is to be made on the disk, asked before it is announced. Unless a depth was asked for, its
  // limit holds only here: a tree that is too deep for other programs to remove does no harm while it is
  // listed or filtered out.
  [[nodiscard]] bool mayMake(std::string_view entryPath, const TarOptions& options);
  // Whether a member with so many bytes of data may be extracted, asked before it is announced; and that it
  // was.
  [[nodiscard]] bool mayTakeData(long long size, const TarOptions& options);
  void tookData(long long size);
  // failAtLimit with what was reached last.
  bool fail(const Io& io) const { return failAtLimit(m_word, m_value, io); }

 private:
  bool isNoDeeper(std::string_view path, long long depth);
  // Notes what is reached; false.
  bool reach(const char* word, long long value);

  const char* m_word = "";  // a literal
  long long m_value = 0;
  long long m_members = 0;
  long long m_totalBytes = 0;
};

}  // namespace morvane
