// mvtar where single calls of the system fail, in any of its threads.
#include "MvtarSupport.h"
#include "TreeSupport.h"

namespace morvane::testing {
namespace {

// Single calls of the system that fail: what is lost by it is said with the right reason, what can be tried
// again is.
TEST(CommandFaults, WhatFailsIsSaidAndWhatIsInterruptedIsTriedAgain) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizers stand in front of these calls";
#endif
  ScratchDir dir;
  must(dir, "mkdir d && echo text > d/f && tar -cf a.tar d && gzip -k a.tar");
  const std::string kTimes =
      "d/f: the times are not kept: Operation not permitted\nARCHIVE: 2 members without their times";
  const struct {
    const char *environment, *line;
    std::string facts, out;
  } kCases[] = {{"FAIL_TIMES=1", "-xf a.tar -C out", kTimes, ""},
                {"FAIL_TIMES=1", "-xf a.tar.gz -C out", kTimes, ""},
                {"FAIL_PREAD=1", "-cf out d", "d/f: Input/output error", ""},
                {"FAIL_USERS=1", "-cf out d",
                 "user database: Input/output error; owners are stored by number alone", ""},
                {"END_PREAD=2", "--deb -f out a.tar.gz a.tar.gz", "a.tar.gz: The file ended early.", ""},
                {"FULL_OPENAT2=2", "-xf a.tar -C out",
                 "d: the mode is not kept: No space left on device\nd/f: No space left on device\na.tar: the "
                 "rest was not extracted",
                 ""},
                {"FULL_OPENAT2=2", "-xf a.tar.gz -C out",
                 "d: the mode is not kept: No space left on device\nd/f: No space left on device\na.tar.gz: "
                 "the rest was not extracted",
                 ""},
                {"INTERRUPT=1", "-xvf a.tar -C out", "", "d/\nd/f\n"},
                {"INTERRUPT=1", "-tf - < <(cat a.tar)", "", "d/\nd/f\n"},
                {"INTERRUPT=1", "-tf a.tar", "", "d/\nd/f\n"}};
  for (const auto& each : kCases) {
    SCOPED_TRACE(std::string(each.environment) + " " + each.line);
    must(dir, "rm -rf out");
    const std::string command =
        std::string(each.environment) + " LD_PRELOAD=" FAILING_CALLS " mvtar " + each.line;
    std::string facts = each.facts;
    if (const size_t at = facts.find("ARCHIVE"); at != std::string::npos)
      facts.replace(at, 7, split(each.line, ' ')[1]);
    expect(shell(dir, command), facts.empty() ? 0 : 2, each.out, facts);
  }
}

// No failed write of an archive passes for a good one where a worker makes it: neither the last nor the only
// one.
TEST(CommandFaults, AFailedWriteOfAWorkerIsAFailure) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizers stand in front of these calls";
#endif
  ScratchDir dir;
  must(dir, "mkdir d && head -c 6000000 /dev/urandom > d/f && head -c 3000000 /dev/urandom > d/g");
  for (const char* const fault : {"FULL_WRITE", "FULL_ONCE"}) {
    int writes = 1;
    for (;; ++writes) {
      SCOPED_TRACE(fault + std::to_string(writes));
      const CommandResult result =
          shell(dir, fault + ("=" + std::to_string(writes)) +
                         " LD_PRELOAD=" FAILING_CALLS " mvtar --threads=4 -cf out d");
      if (result.status == 0) break;
      ASSERT_EQ(2, result.status);
      ASSERT_TRUE(has(result.err, "out: No space left on device")) << result.err;
    }
    EXPECT_GT(writes, 8);
    must(dir, "tar -df out");
  }
}

// Files that workers have to give back come whole although the archive cannot be read on behind them.
TEST(CommandFaults, WhatIsDoneAgainNeedsNoMoreOfABrokenArchive) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizers stand in front of these calls";
#endif
  ScratchDir dir;
  must(dir,
       "mkdir d && for i in $(seq 30 59); do head -c ${i}000 /dev/zero >d/small$i; "
       "head -c 6${i}000 /dev/urandom >d/$i; done && tar -cf a.tar d && mkdir one many");
  std::string error;
  for (const char* const broken : {"18000000", "17000000"}) {
    for (const std::string& where : {"one"s, "many"s}) {
      const std::string threads = where == "one" ? "1" : "4";
      const CommandResult result = shell(dir, "FAIL_TIMES=1 BROKEN_FROM="s + broken +
                                                  " LD_PRELOAD=" FAILING_CALLS " mvtar --threads=" + threads +
                                                  " -xf a.tar -C " + where);
      EXPECT_EQ(2, result.status);
      if (where == "one") error = result.err;
      EXPECT_EQ(error, result.err);
    }
    EXPECT_TRUE(has(error, "Input/output error")) << error;
    must(dir, "diff -r one many && rm -rf one/* many/*");
  }
}

}  // namespace
}  // namespace morvane::testing
