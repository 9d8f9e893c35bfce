// What the tests share: a scratch directory for each test, files and trees, commands, and sources and outputs
// that misbehave on purpose.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

// Inner types that tests of every kind name.
#include "runtime/fs/OsFile.h"
#include "runtime/fs/mvFileInfo.h"
#include "runtime/progress/ProgressMonitor.h"
#include "tar/ClsTar.h"

namespace morvane::testing {

namespace fs = std::filesystem;
using namespace std::string_literals;

inline bool has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// A new empty directory that is removed with everything in it.
class ScratchDir {
 public:
  ScratchDir();
  ~ScratchDir();
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  const std::string& path() const { return m_path; }
  std::string operator/(const std::string& name) const { return m_path + "/" + name; }

 private:
  std::string m_path;
};

// Directories above the file are made.
void writeFile(const std::string& path, const std::string& contents);
std::string readFile(const std::string& path);
bool exists(const std::string& path);  // of the path itself, a dangling link included
void setMtime(const std::string& path, long long seconds);
long long mtimeOf(const std::string& path);

// Every path below a directory, relative, with what is there: "dir", "link TARGET", "file CONTENTS"
// (contents over 64 bytes as size and a hash) or "neither".
std::map<std::string, std::string> treeOf(const std::string& dir);

// n bytes that do not compress well and are the same for the same seed.
std::string noise(size_t n, unsigned seed);

struct CommandResult {
  int status = -1;  // exit status, 128 + n for signal n
  std::string out, err;
};
// Runs a program with the shell's PATH and waits for it.
CommandResult run(const std::vector<std::string>& command, const std::string& standardInput = "",
                  const std::string& workingDir = "");
// Has bash run a script in a directory; mvtar, where it is built, is a command in it. A pipe fails when any
// part of it does.
std::string withMvtar(const std::string& script);
CommandResult shell(const ScratchDir& dir, const std::string& script);
// A step that a test builds on.
void must(const ScratchDir& dir, const std::string& script);

// A component with option words, and with a target unless that is empty.
struct TarWith : ClsTar {
  explicit TarWith(const std::string& words, const std::string& target = "") {
    put_UncommonOptions(words.c_str());
    if (!target.empty()) put_UntarFromDir(target);
  }
};

std::string logOf(ClsTar& tar);
// How often a text stands in the log.
int countInLog(ClsTar& tar, const std::string& text);
inline bool logHas(ClsTar& tar, const std::string& text) { return countInLog(tar, text) > 0; }

// A tar archive in memory, written block by block: for archives that no writer would make.
class ArchiveBuilder {
 public:
  struct Member {
    std::string name;
    std::string data;
    char typeFlag = '0';
    std::string linkName = "";
    std::string prefix = "";
    bool gnu = false;
    unsigned mtime = 1700000000;
    long long statedSize = -1;  // -1: the size of the data
  };
  ArchiveBuilder& add(const Member& member);
  std::string bytes(int endBlocks = 2) const;

 private:
  std::string m_bytes;
};

// "LENGTH KEYWORD=VALUE\n" with the exact length.
std::string paxRecord(const std::string& keyword, const std::string& value);

// An output that keeps what it is given and fails after a number of bytes.
class LimitedOutput : public _mvOutput {
 public:
  explicit LimitedOutput(size_t limit = static_cast<size_t>(-1)) : m_limit(limit) {}
  bool _writeBytes(const char* bytes, unsigned int n, _mvIoParams& io, LogBase& log) override;
  std::string bytes;
  unsigned largest = 0;  // the largest piece

 private:
  size_t m_limit;
};

// A source over a string that cannot seek and returns pieces of at most `most` bytes.
class TricklingSource : public _mvDataSource {
 public:
  TricklingSource(std::string bytes, unsigned most) : m_bytes(std::move(bytes)), m_most(most) {}
  bool readSourcePM(char* buffer, unsigned int n, unsigned int& numRead, ProgressMonitor* pm,
                    LogBase& log) override;

 private:
  const std::string m_bytes;
  const unsigned m_most;
  size_t m_at = 0;
};

// Records events and answers as told.
class RecordingEvent : public ProgressEvent {
 public:
  void onAbortCheck(bool& abort) override { abort = ++questions == abortAtQuestion; }
  void onProgress(int percent, bool& abort) override {
    percents.push_back(percent);
    abort = percent == abortAtPercent;
  }
  void onInfo(const char* name, const char* value) override {
    infos.push_back(std::string(name) + "=" + value);
  }
  void onTarEntry(const char* path, long long size, bool isDirectory, bool& skip) override {
    entries.push_back(std::string(path) + " " + (isDirectory ? "dir" : std::to_string(size)));
    skip = skipEntry == path;
    if (act) act(path);
  }
  void onTarHeader(const TarMemberInfo& member) override {
    headers.push_back(std::string(1, member.typeFlag) + " " + member.path + " " +
                      std::to_string(member.size) + " " + std::to_string(member.headerPosition));
  }

  std::function<void(const std::string& path)> act;  // what is done when an entry is announced
  int abortAtQuestion = 0;                           // the n-th onAbortCheck answers yes; 0 never
  int abortAtPercent = -1;
  std::string skipEntry;  // the onTarEntry path that is skipped
  int questions = 0;
  std::vector<int> percents;
  std::vector<std::string> infos;    // "name=value"
  std::vector<std::string> entries;  // "path size" or "path dir"
  std::vector<std::string> headers;  // "type path size position"
};

}  // namespace morvane::testing
