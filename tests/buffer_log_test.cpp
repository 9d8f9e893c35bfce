// DataBuffer, the owning array and the log.
#include <algorithm>
#include <random>

#include "TestSupport.h"
#include "runtime/log/LogContextExitor.h"

namespace morvane::testing {
namespace {

std::string contentsOf(const DataBuffer& buffer) {
  return std::string(reinterpret_cast<const char*>(buffer.getData2()), buffer.getSize());
}

// Any sequence of operations does what it does to a string.
TEST(DataBuffer, AgreesWithAString) {
  for (unsigned seed = 1; seed <= 300; ++seed) {
    std::mt19937 random(seed);
    const auto below = [&](size_t n) { return static_cast<unsigned>(random() % (n + 1)); };
    const std::string lent = noise(5000, seed);
    DataBuffer buffer;
    std::string model;
    for (int step = 0; step < 200; ++step) {
      const unsigned n = below(random() % 8 == 0 ? 5000 : 60);
      const unsigned at = below(model.size());
      switch (random() % 11) {
        case 0:
        case 1:
        case 2:
          ASSERT_TRUE(buffer.append(lent.data(), n));
          model.append(lent, 0, n);
          break;
        case 3:
          if (model.size() > 100'000) break;
          ASSERT_TRUE(buffer.append(buffer));
          model += std::string(model);
          break;
        case 4: {  // a piece of its own bytes
          const unsigned length = below(model.size() - at);
          ASSERT_TRUE(buffer.append(buffer.getData2() + at, length));
          model += model.substr(at, length);
          break;
        }
        case 5:
        case 6:
          buffer.removeChunk(0, n);
          model.erase(0, n);
          break;
        case 7: {
          const unsigned length = random() % 4 == 0 ? 0xFFFFFFFFu : n;
          buffer.removeChunk(at, length);
          model.erase(at, length);
          break;
        }
        case 8:
          buffer.truncate(at);
          model.resize(at);
          break;
        case 9:
          if (random() % 2) {
            buffer.borrowData(reinterpret_cast<const unsigned char*>(lent.data()), n);
            model = lent.substr(0, n);
          } else if (random() % 2) {
            buffer.weakClear();
            model.clear();
          } else {
            buffer.clear();
            model.clear();
          }
          break;
        case 10:
          ASSERT_TRUE(buffer.reserveMore(n) && buffer.appendChar('c') && buffer.appendStr("text"));
          model += "ctext";
          break;
      }
      ASSERT_EQ(model, contentsOf(buffer)) << "seed " << seed << ", step " << step;
    }
    ASSERT_EQ(noise(5000, seed), lent) << "lent bytes are never written";
  }
}

// A queue of a size that moved its rest down at each removal would move gigabytes here.
TEST(DataBuffer, IsEatenFromTheFrontWithoutMovingTheRest) {
  constexpr unsigned kPiece = 512, kQueued = 4 << 20;
  const std::string piece = noise(kPiece, 1);
  DataBuffer queue;
  while (queue.getSize() < kQueued) ASSERT_TRUE(queue.append(piece.data(), kPiece));
  const unsigned char* before = queue.getData2();
  unsigned long long moved = 0, eaten = 0;
  for (int i = 0; i < 200'000; ++i) {
    queue.removeChunk(0, kPiece);
    ASSERT_EQ(before + kPiece, queue.getData2()) << "removing moves nothing";
    before = queue.getData2();
    ASSERT_TRUE(queue.append(piece.data(), kPiece));
    if (queue.getData2() != before) moved += queue.getSize();
    before = queue.getData2();
    eaten += kPiece;
  }
  EXPECT_EQ(kQueued, queue.getSize());
  EXPECT_LE(moved, 3 * eaten);
}

TEST(DataBuffer, BorrowsUntilItIsChanged) {
  const unsigned char bytes[] = "borrowed";
  DataBuffer buffer;
  buffer.borrowData(bytes, 8);
  EXPECT_EQ(bytes, buffer.getData2());
  buffer.removeChunk(0, 3);
  EXPECT_EQ(bytes + 3, buffer.getData2()) << "removing from an end needs no copy";
  EXPECT_TRUE(buffer.append(buffer));
  EXPECT_EQ("rowedrowed", contentsOf(buffer));
  EXPECT_STREQ("borrowed", reinterpret_cast<const char*>(bytes));

  // As many bytes as a buffer can ever hold; none of them is looked at.
  buffer.borrowData(bytes, 0xFFFFFFFFu);
  EXPECT_FALSE(buffer.appendChar('x'));
  EXPECT_FALSE(buffer.append(buffer));
  EXPECT_FALSE(buffer.reserveMore(0xFFFFFFFFu));
  EXPECT_EQ(0xFFFFFFFFu, buffer.getSize());
  EXPECT_EQ(bytes, buffer.getData2()) << "a failure leaves the buffer as it was";
  buffer.clear();
  EXPECT_NE(nullptr, buffer.getData2());
}

TEST(DataBuffer, IsLoadedAndSaved) {
  ScratchDir dir;
  for (const size_t size : {0u, 1u, 65536u, 262144u, 262145u, 1'000'003u}) {
    DataBuffer buffer, loaded;
    const std::string contents = noise(size, 3);
    ASSERT_TRUE(buffer.append(contents.data(), static_cast<unsigned>(size)));
    ASSERT_TRUE(buffer.saveToFileUtf8((dir / "file").c_str(), nullptr));
    EXPECT_EQ(contents, readFile(dir / "file"));
    ASSERT_TRUE(loaded.appendStr("replaced") && loaded.loadFileUtf8((dir / "file").c_str(), nullptr));
    EXPECT_EQ(contents, contentsOf(loaded));
    if (size == 0) continue;
    _mvLogger log;
    EXPECT_FALSE(buffer.saveToFileUtf8("/dev/full", &log)) << "also when it shows in the last flush";
    EXPECT_NE(std::string::npos, log.text().find("/dev/full"));
  }
  DataBuffer buffer;
  ASSERT_TRUE(buffer.loadFileUtf8("/proc/self/status", nullptr)) << "a file that has no size";
  EXPECT_EQ(0u, contentsOf(buffer).find("Name:"));
  for (const std::string& path : {dir / "missing", dir.path(), dir / "file/below"}) {
    _mvLogger log;
    EXPECT_FALSE(buffer.loadFileUtf8(path.c_str(), &log));
    EXPECT_NE(std::string::npos, log.text().find("path: " + path + "\n")) << log.text();
  }
}

TEST(ExtPtrArray, DeletesWhatItOwns) {
  struct Counted : MorvaneObject {
    explicit Counted(int& count) : m_count(count) { ++m_count; }
    ~Counted() override { --m_count; }
    int& m_count;
  };
  int alive = 0;
  {
    ExtPtrArray array;
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(array.appendPtr(new Counted(alive)));
    EXPECT_NE(nullptr, array.elementAt(2));
    EXPECT_EQ(nullptr, array.elementAt(3));
    EXPECT_EQ(nullptr, array.elementAt(-1));
    array.removeAllObjects();
    EXPECT_EQ(0, alive);
    EXPECT_EQ(0, array.getSize());
    EXPECT_TRUE(array.appendPtr(new Counted(alive)));
  }
  EXPECT_EQ(0, alive);
  Counted kept(alive);
  {
    ExtPtrArray array;
    array.setOwnsObjects(false);
    EXPECT_TRUE(array.appendPtr(&kept));
  }
  EXPECT_EQ(1, alive);
}

TEST(Log, ContextsAppearWithTheirFirstLine) {
  _mvLogger log;
  for (int i = 0; i < 1000; ++i) {
    LogContextExitor outer(log, "silent");
    LogContextExitor inner(log, "inner");
  }
  EXPECT_EQ("", log.text());
  {
    LogContextExitor a(log, "a");
    {
      LogContextExitor b(log, "b");
      LogContextExitor unwanted(log, "unwanted", false);
      LogContextExitor c(log, "c");
      log.LogError("deep");
      log.LogDataLong("n", -7);
    }
    LogContextExitor b(log, "b");
    log.LogBracketed("tag", " x ");
    EXPECT_EQ(2u, log.contextDepth());
  }
  log.LogInfo("flat");
  log.enterContext("shown");
  log.showContexts();
  log.showContexts();
  log.LeaveContext();
  log.LeaveContext();  // one too many does nothing
  log.LogDataX("x", XString("v"));
  log.LogDataSb("sb", StringBuffer("w"));
  log.LogDataInt64("big", -9223372036854775807LL - 1);
  EXPECT_EQ(
      "a:\n"
      "    b:\n"
      "        c:\n"
      "            deep\n"
      "            n: -7\n"
      "    b:\n"
      "        tag: [ x ]\n"
      "flat\n"
      "shown:\n"
      "x: v\n"
      "sb: w\n"
      "big: -9223372036854775808\n",
      log.text());
  log.enterContext("open");
  log.ClearLog();
  log.LogElapsedMs("elapsed", 0);
  EXPECT_EQ(0u, log.text().find("elapsed: ")) << "clearing closes the contexts";
  EXPECT_FALSE(log.verbose());
  log.setVerbose(true);
  EXPECT_TRUE(log.verbose());
}

TEST(Log, ValuesCannotForgeLines) {
  _mvLogger log;
  std::string all;
  for (int byte = 1; byte < 256; ++byte) all.push_back(static_cast<char>(byte));
  log.LogData("path", all.c_str());
  log.LogError("a\nSuccess.\r\x7F");
  const std::string text = log.text();
  EXPECT_EQ(2, std::count(text.begin(), text.end(), '\n'));
  for (const char byte : text) EXPECT_TRUE(static_cast<unsigned char>(byte) >= 0x20 || byte == '\n');
  EXPECT_NE(std::string::npos, text.find("\\001\\002"));
  EXPECT_NE(std::string::npos, text.find("\\t\\n\\013\\014\\r\\016"));
  EXPECT_NE(std::string::npos, text.find(all.substr(0x7F))) << "every other byte is kept";
  EXPECT_NE(std::string::npos, text.find("a\\nSuccess.\\r\\177\n"));
}

TEST(Log, OfALongLogBothEndsAreKept) {
  constexpr size_t kEnd = 512 * 1024, kAll = 2 * kEnd;
  std::mt19937 random(11);
  for (const unsigned longestLine : {1u, 80u, 5000u, 100'000u, 600'000u}) {
    for (const size_t total : {kEnd, kAll - 200'000, kAll, kAll + 1, kAll + 200'000, 3 * kEnd, 7 * kEnd}) {
      _mvLogger log;
      LogContextExitor context(log, "run");
      std::string whole = "run:\n", line;
      log.showContexts();
      const auto put = [&](const std::string& text) {
        log.LogInfo(text.c_str());
        whole += "    " + text + "\n";
      };
      while (whole.size() < total) {
        put(std::string(std::min<size_t>(longestLine, 1 + random() % longestLine),
                        static_cast<char>('a' + random() % 26)));
      }
      put("Success.");
      const std::string text = log.text();
      if (whole.size() <= kAll) {
        ASSERT_EQ(whole, text) << "lines of " << longestLine << ", " << total;
        continue;
      }
      const size_t mark = text.find("... "), markEnd = text.find("\n", mark) + 1;
      ASSERT_NE(std::string::npos, mark) << "lines of " << longestLine << ", " << total;
      const std::string head = text.substr(0, mark), tail = text.substr(markEnd);
      const std::string leftOut = std::to_string(whole.size() - head.size() - tail.size());
      EXPECT_EQ("... " + leftOut + " bytes of the log left out ...\n", text.substr(mark, markEnd - mark));
      EXPECT_EQ(whole.substr(0, head.size()), head);
      EXPECT_EQ(whole.substr(whole.size() - tail.size()), tail);
      EXPECT_LE(text.size(), kAll + 100);
      // Whole lines, so each end may fall short by one.
      EXPECT_GE(head.size() + longestLine + 10, kEnd);
      EXPECT_GE(tail.size() + longestLine + 10, kEnd);
      EXPECT_EQ("    Success.\n", tail.substr(tail.size() - 13));
      log.ClearLog();
      log.LogInfo("new");
      EXPECT_EQ("new\n", log.text());
    }
  }
}

TEST(Log, TheNullLogDiscards) {
  LogNull log;
  log.LogError("lost");
  LogContextExitor context(log, "lost");
  log.LogData("lost", "lost");
  log.showContexts();
  EXPECT_EQ(1u, log.contextDepth());
}

}  // namespace
}  // namespace morvane::testing
