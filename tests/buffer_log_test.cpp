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
      const unsigned at = below(model.size()), n = below(random() % 8 == 0 ? 5000 : 60);
      const unsigned part = std::min<unsigned>(n, static_cast<unsigned>(model.size()) - at);
      const unsigned removed = random() % 4 == 0 ? 0xFFFFFFFFu : n;
      switch (random() % 12) {
        case 0:
          if (model.size() > 100'000) break;
          ASSERT_TRUE(buffer.append(buffer));
          model += std::string(model);
          break;
        case 1:
          ASSERT_TRUE(buffer.append(buffer.getData2() + at, part));  // its own bytes
          model += model.substr(at, part);
          break;
        case 2:
          buffer.removeChunk(at, removed);
          model.erase(at, removed);
          break;
        case 3:
          buffer.truncate(at);
          model.resize(at);
          break;
        case 4:
          buffer.borrowData(reinterpret_cast<const unsigned char*>(lent.data()), n);
          model = lent.substr(0, n);
          break;
        case 5:
          n % 2 ? buffer.weakClear() : buffer.clear();
          model.clear();
          break;
        case 6:
          ASSERT_TRUE(buffer.reserveMore(n) && buffer.appendChar('c') && buffer.appendStr("text"));
          model += "ctext";
          break;
        case 7:
        case 8:
          buffer.removeChunk(0, n);
          model.erase(0, n);
          break;
        default:
          ASSERT_TRUE(buffer.append(lent.data(), n));
          model.append(lent, 0, n);
      }
      ASSERT_EQ(model, contentsOf(buffer)) << "seed " << seed << ", step " << step;
    }
    ASSERT_EQ(noise(5000, seed), lent) << "lent bytes are never written";
  }
}

// A queue of any length costs the same per byte: what is moved is paid for by what was eaten.
TEST(DataBuffer, IsEatenFromTheFrontWithoutMovingTheRest) {
  constexpr unsigned kPiece = 512;
  const std::string piece = noise(kPiece, 1);
  for (unsigned queued = 1 << 20; queued < 2 << 20; queued += queued / 50) {
    DataBuffer queue;
    while (queue.getSize() < queued) ASSERT_TRUE(queue.append(piece.data(), kPiece));
    unsigned long long moved = 0, eaten = 0;
    for (; eaten < 10'000'000; eaten += kPiece) {
      const unsigned char* const before = queue.getData2();
      queue.removeChunk(0, kPiece);
      ASSERT_EQ(before + kPiece, queue.getData2()) << "removing moves nothing";
      ASSERT_TRUE(queue.append(piece.data(), kPiece));
      if (queue.getData2() != before + kPiece) moved += queue.getSize();
    }
    EXPECT_LE(moved, 3 * eaten) << queued;
  }
}

TEST(DataBuffer, BorrowsUntilItIsChanged) {
  const unsigned char bytes[] = "borrowed";
  DataBuffer buffer;
  buffer.borrowData(bytes, 8);
  buffer.removeChunk(0, 3);
  EXPECT_EQ(bytes + 3, buffer.getData2()) << "removing from an end needs no copy";
  EXPECT_TRUE(buffer.append(buffer));
  EXPECT_EQ("rowedrowed", contentsOf(buffer));
  // As many bytes as a buffer can ever hold; none of them is looked at.
  buffer.borrowData(bytes, 0xFFFFFFFFu);
  EXPECT_FALSE(buffer.appendChar('x') || buffer.append(buffer) || buffer.reserveMore(0xFFFFFFFFu));
  EXPECT_TRUE(buffer.getSize() == 0xFFFFFFFFu && buffer.getData2() == bytes) << "a failure changes nothing";
  buffer.clear();
  EXPECT_NE(nullptr, buffer.getData2());
}

TEST(DataBuffer, IsLoadedAndSaved) {
  ScratchDir dir;
  for (const unsigned size : {0u, 1u, 65536u, 262144u, 262145u, 1'000'003u}) {
    DataBuffer buffer, loaded;
    _mvLogger log;
    const std::string contents = noise(size, 3);
    ASSERT_TRUE(buffer.append(contents.data(), size) &&
                buffer.saveToFileUtf8((dir / "file").c_str(), nullptr));
    ASSERT_TRUE(loaded.appendStr("replaced") && loaded.loadFileUtf8((dir / "file").c_str(), nullptr));
    EXPECT_EQ(contents, contentsOf(loaded));
    EXPECT_EQ(size == 0, buffer.saveToFileUtf8("/dev/full", &log)) << "also when it shows in the last flush";
    EXPECT_EQ(size == 0, log.text().find("path: /dev/full\n") == std::string::npos);
  }
  DataBuffer buffer;
  ASSERT_TRUE(buffer.loadFileUtf8("/proc/self/status", nullptr)) << "a file that says it is empty";
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
  Counted kept(alive);
  {
    ExtPtrArray owning, other;
    other.setOwnsObjects(false);
    EXPECT_TRUE(other.appendPtr(&kept) && owning.appendPtr(new Counted(alive)));
    EXPECT_TRUE(owning.elementAt(0) && !owning.elementAt(1) && !owning.elementAt(-1));
    owning.removeAllObjects();
    EXPECT_TRUE(alive == 1 && owning.getSize() == 0);
    EXPECT_TRUE(owning.appendPtr(new Counted(alive)) && alive == 2);
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
  }
  log.enterContext("shown");
  log.showContexts();
  log.showContexts();
  log.LeaveContext();
  log.LeaveContext();  // one too many does nothing
  log.LogDataX("x", XString("v"));
  log.LogDataSb("sb", StringBuffer("w"));
  EXPECT_EQ(
      "a:\n    b:\n        c:\n            deep\n            n: -7\n    b:\n        tag: [ x ]\n"
      "shown:\nx: v\nsb: w\n",
      log.text());
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
  EXPECT_EQ(2, std::count(text.begin(), text.end(), '\n'));
  for (const char byte : text) EXPECT_TRUE(static_cast<unsigned char>(byte) >= 0x20 || byte == '\n');
  EXPECT_EQ(0u, text.find("path: \\001\\002"));
  EXPECT_NE(std::string::npos, text.find("\\t\\n\\013\\014\\r\\016"));
  EXPECT_NE(std::string::npos, text.find("~\\177" + all.substr(0x7F))) << "every other byte is kept";
}

TEST(Log, OfALongLogBothEndsAreKept) {
  constexpr size_t kEnd = 512 * 1024, kAll = 2 * kEnd;
  std::mt19937 random(11);
  for (const size_t longestLine : {1u, 80u, 5000u, 100'000u, 600'000u}) {
    for (const size_t total : {kEnd, kAll - 200'000, kAll, kAll + 1, kAll + 200'000, 3 * kEnd, 7 * kEnd}) {
      _mvLogger log;
      std::string whole;
      while (whole.size() < total) {
        const std::string line(1 + random() % longestLine, static_cast<char>('a' + random() % 26));
        log.LogInfo(line.c_str());
        whole += line + "\n";
      }
      log.LogInfo("Success.");
      whole += "Success.\n";
      const std::string text = log.text();
      const size_t mark = text.find("... "), markEnd = text.find("\n", mark) + 1;
      ASSERT_EQ(whole.size() <= kAll, mark == std::string::npos) << longestLine << ", " << total;
      if (mark == std::string::npos) {
        ASSERT_EQ(whole, text);
        continue;
      }
      const std::string head = text.substr(0, mark), tail = text.substr(markEnd);
      const std::string leftOut = std::to_string(whole.size() - head.size() - tail.size());
      EXPECT_EQ("... " + leftOut + " bytes of the log left out ...\n", text.substr(mark, markEnd - mark));
      EXPECT_TRUE(whole.substr(0, head.size()) == head && whole.substr(whole.size() - tail.size()) == tail);
      // Whole lines, so each end may fall short by one.
      EXPECT_TRUE(head.size() <= kEnd && head.size() + longestLine + 2 > kEnd) << head.size();
      EXPECT_TRUE(tail.size() <= kEnd && tail.size() + longestLine + 2 > kEnd) << tail.size();
    }
  }
  LogNull nothing;
  nothing.LogError("lost");
  EXPECT_EQ(0u, nothing.contextDepth());
}

}  // namespace
}  // namespace morvane::testing
