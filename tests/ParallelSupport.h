// What an application sees of a call with several threads, to be compared with what it sees of one.
#pragma once

#include <thread>

#include "ArchiveSupport.h"
#include "TreeSupport.h"

namespace morvane::testing {

// All that a call shows to an application.
struct Seen {
  int result = 0;
  std::string archive, log, cause;
  Lines events;
  Facts tree;
};

// Hears everything in one row, and stops the call where it is told to.
class RowEvent : public RecordingEvent {
 public:
  void onInfo(const char* name, const char* value) override {
    row("info " + std::string(name) + " " + value);
  }
  void onTarEntry(const char* path, long long size, bool isDirectory, bool& skip) override {
    row("entry " + std::string(path) + " " + std::to_string(size) + (isDirectory ? " dir" : ""));
    skip = has(path, "skipped");
    if (act) act(path);
  }
  void onTarHeader(const TarMemberInfo& member) override { row(std::string("header ") + member.path); }
  void onProgress(int percent, bool& abort) override {
    row("percent " + std::to_string(percent));
    onAbortCheck(abort);
  }

  Lines rows;
  size_t throwAt = 0, abortAt = 0;
  void onAbortCheck(bool& abort) override { abort = abortAt > 0 && rows.size() >= abortAt; }

 private:
  void row(std::string text) {
    rows.push_back(std::move(text));
    if (rows.size() == throwAt) throw std::runtime_error("callback");
  }
};

// Threads that are there now; those that a call made must be gone when it returns. A sanitizer makes one of
// its own beside the first.
inline size_t threadsNow() {
  static const bool isFirstMade = (std::thread([] {}).join(), true);
  (void)isFirstMade;
  size_t count = 0;
  for (const auto& entry : fs::directory_iterator("/proc/self/task")) count += entry.exists();
  return count;
}

// A thread that has been joined is a moment longer in the list of the system.
inline void expectThreads(size_t expected) {
  for (int i = 0; i < 1000 && threadsNow() != expected; ++i) usleep(1000);
  EXPECT_EQ(expected, threadsNow());
}

inline void expectSame(const Seen& one, const Seen& many, const std::string& what) {
  SCOPED_TRACE(what);
  EXPECT_EQ(one.result, many.result);
  EXPECT_TRUE(one.archive == many.archive);
  EXPECT_EQ(one.log, many.log);
  EXPECT_EQ(one.cause, many.cause);
  EXPECT_EQ(one.events, many.events);
  EXPECT_EQ(Lines(), differences(one.tree, many.tree));
}

// The last has batches so small that every second file fills one.
constexpr int kManyThreads[] = {2, 4, 8, 40};

// No question may come by the clock, because two runs would be asked at different places: asked are members
// and parts of the progress.
constexpr int kNotByTheClock = 1000000;

}  // namespace morvane::testing
