// DataBuffer and the log.
#include "ArchiveSupport.h"
#include "runtime/log/LogContextExitor.h"

namespace morvane::testing {
namespace {

// Any sequence of operations does what it does to a string.
TEST(DataBuffer, AgreesWithAString) {
  for (unsigned seed = 1; seed <= 300; ++seed) {
    std::mt19937 random(seed);
    const auto below = [&](size_t n) { return static_cast<unsigned>(random() % (n + 1)); };
    const std::string lent = noise(5000, seed);
    DataBuffer buffer;
    std::string model;
    for (int step = 0; step < 200; ++step) {
      const unsigned at = random() % 2 ? 0 : below(model.size()), n = below(random() % 8 ? 60 : 5000);
      const unsigned part = std::min<unsigned>(n, static_cast<unsigned>(model.size()) - at);
      const unsigned removed = random() % 4 ? n : 0xFFFFFFFFu, action = random() % 8;
      if (action == 0 && model.size() <= 100'000) {
        ASSERT_TRUE(buffer.append(buffer) && buffer.append(buffer.getData2() + at, part));  // its own bytes
        model += model + model.substr(at, part);
      } else if (action <= 2) {
        buffer.removeChunk(at, removed);
        model.erase(at, removed);
      } else if (action == 3) {
        buffer.truncate(at);
        model.resize(at);
      } else if (action == 4) {
        buffer.borrowData(reinterpret_cast<const unsigned char*>(lent.data()), n);
        model = lent.substr(0, n);
      } else if (action == 5) {
        n % 2 ? buffer.weakClear() : buffer.clear();
        model.clear();
      } else {
        ASSERT_TRUE(buffer.reserveMore(at) && buffer.append(lent.data(), n) && buffer.appendStr("text") &&
                    buffer.appendChar('c'));
        model += lent.substr(0, n) + "textc";
      }
      ASSERT_EQ(model, textOf(buffer)) << "seed " << seed << ", step " << step;
    }
    ASSERT_EQ(noise(5000, seed), lent) << "lent bytes are never written";
  }
}

TEST(DataBuffer, AsManyBytesAsABufferCanEverHold) {
  const unsigned char bytes[] = "borrowed";
  DataBuffer buffer;
  buffer.borrowData(bytes, 0xFFFFFFFFu);  // none of them is looked at
  EXPECT_FALSE(buffer.appendChar('x') || buffer.append(buffer) || buffer.reserveMore(0xFFFFFFFFu));
  EXPECT_TRUE(buffer.getSize() == 0xFFFFFFFFu && buffer.getData2() == bytes) << "a failure changes nothing";
}

TEST(DataBuffer, IsLoadedAndSaved) {
  ScratchDir dir;
  const std::string contents = noise(1'000'003, 3), path = dir / "file";
  DataBuffer buffer, loaded;
  _mvLogger log;
  ASSERT_TRUE(buffer.append(contents.data(), 1'000'003) && loaded.appendStr("replaced"));
  EXPECT_TRUE(buffer.saveToFileUtf8(path.c_str(), &log) && loaded.loadFileUtf8(path.c_str(), &log));
  EXPECT_TRUE(contents == textOf(loaded) && log.text().empty());
  EXPECT_TRUE(buffer.loadFileUtf8("/proc/self/status", nullptr)) << "a file that says it is empty";
  EXPECT_EQ(0u, textOf(buffer).find("Name:"));
  EXPECT_FALSE(buffer.saveToFileUtf8("/dev/full", &log)) << "also when it shows in the last flush";
  EXPECT_FALSE(buffer.loadFileUtf8(dir.path().c_str(), &log) || buffer.loadFileUtf8("/missing", &log));
  EXPECT_TRUE(has(log.text(), "path: /dev/full\n") && has(log.text(), "path: /missing\n")) << log.text();
}

TEST(Log, ContextsAppearWithTheirFirstLine) {
  _mvLogger log;
  {
    LogContextExitor outer(log, "outer"), unwanted(log, "unwanted", false), inner(log, "inner");
    log.LogDataLong("n", -7);
    LogContextExitor silent(log, "silent");
  }
  log.enterContext("shown");
  log.showContexts();
  log.LeaveContext();
  log.LeaveContext();  // one too many does nothing
  log.LogBracketed("tag", " x ");
  log.LogDataSb("sb", StringBuffer("w"));
  EXPECT_EQ("outer:\n    inner:\n        n: -7\nshown:\ntag: [ x ]\nsb: w\n", log.text());
  log.enterContext("open");
  log.ClearLog();
  log.LogElapsedMs("elapsed", 0);
  EXPECT_EQ(0u, log.text().find("elapsed: ")) << "clearing closes the contexts";
}

TEST(Log, ValuesCannotForgeLines) {
  _mvLogger log;
  std::string all;
  for (int byte = 1; byte < 256; ++byte) all.push_back(static_cast<char>(byte));
  log.LogData("path", all.c_str());
  log.LogError("a\nSuccess.");
  const std::string text = log.text();
  EXPECT_EQ(0u, text.find("path: \\001\\002"));
  EXPECT_TRUE(has(text, "\\t\\n\\013\\014\\r\\016"));
  EXPECT_TRUE(has(text, "~\\177" + all.substr(0x7F) + "\na\\nSuccess.\n"));
}

// Of a log over 1 MiB 512 KiB of each end are kept, in whole lines, so each may fall short by one.
TEST(Log, OfALongLogBothEndsAreKept) {
  constexpr size_t kEnd = 512 * 1024;
  std::mt19937 random(11);
  for (const size_t longestLine : {1u, 80u, 5000u, 600'000u}) {
    for (const size_t total : {2 * kEnd - 100, 2 * kEnd, 2 * kEnd + 1, 7 * kEnd}) {
      SCOPED_TRACE(std::to_string(longestLine) + ", " + std::to_string(total));
      _mvLogger log;
      std::string whole;
      while (whole.size() < total) {
        const std::string line(1 + random() % longestLine, static_cast<char>('a' + random() % 26));
        log.LogInfo(line.c_str());
        whole += line + "\n";
      }
      const std::string text = log.text(), head = text.substr(0, text.find("... ")),
                        tail = text.substr(text.find("\n", std::min(head.size(), text.size() - 1)) + 1);
      ASSERT_EQ(whole.size() <= 2 * kEnd, whole == text);
      if (whole == text) continue;
      const std::string leftOut = std::to_string(whole.size() - head.size() - tail.size());
      EXPECT_TRUE(head + "... " + leftOut + " bytes of the log left out ...\n" + tail == text);
      EXPECT_TRUE(whole.find(head) == 0 && whole.substr(whole.size() - tail.size()) == tail);
      for (const size_t kept : {head.size(), tail.size()})
        EXPECT_TRUE(kept <= kEnd && kept + longestLine + 2 > kEnd) << kept;
    }
  }
}

}  // namespace
}  // namespace morvane::testing
