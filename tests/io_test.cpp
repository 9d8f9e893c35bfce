// Sources and outputs: every sequence of reads and seeks against one model, errors that stay, pipes, and what
// signals and full disks do.
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <cstring>
#include <fstream>
#include <numeric>
#include <thread>

#include "TestSupport.h"
#include "runtime/io/BufferedDataSource.h"

namespace morvane::testing {
namespace {

// A pipe whose other end is written by a thread.
class ServedPipe {
 public:
  explicit ServedPipe(const std::string& bytes) {
    signal(SIGPIPE, SIG_IGN);
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) ADD_FAILURE() << "no pipe";
    ours.reset(fds[0]);
    m_thread = std::thread([bytes, theirs = OsFile(fds[1])] {
      for (size_t at = 0; at < bytes.size(); at += 1000) {
        if (write(theirs.fd(), bytes.data() + at, std::min<size_t>(1000, bytes.size() - at)) < 0) return;
      }
    });
  }
  ~ServedPipe() {
    ours.close();
    m_thread.join();
  }
  OsFile ours;

 private:
  std::thread m_thread;
};

// Random reads, loans, looks ahead and seeks; the same as on a string.
void agreesWithAString(_mvDataSource& source, const std::string& bytes, size_t at, bool backwards,
                       bool shortReads, unsigned seed) {
  std::mt19937 random(seed);
  _mvLogger log;
  const size_t kSpans[] = {1, 512, 20'000, 131'071, 131'072, 300'000};
  std::string buffer(300'000, '\0');
  for (int step = 0; step < 400; ++step) {
    SCOPED_TRACE("seed " + std::to_string(seed) + ", step " + std::to_string(step));
    const unsigned span = static_cast<unsigned>(random() % (kSpans[random() % 6] + 1));
    const size_t left = at < bytes.size() ? bytes.size() - at : 0;
    unsigned got = 0;
    const char* found = buffer.data();
    size_t used = 0;
    switch (random() % (source.canLend() ? 5 : 3)) {
      case 0:
        ASSERT_TRUE(source.readSourcePM(&buffer[0], span, got, nullptr, log)) << log.text();
        ASSERT_TRUE(shortReads || got == std::min<size_t>(span, left)) << "a short read is only at the end";
        ASSERT_TRUE(got <= span && (got > 0 || left == 0 || span == 0));
        used = got;
        break;
      case 1:
        ASSERT_TRUE(source.readFully(&buffer[0], span, got, nullptr, log));
        ASSERT_EQ(std::min<size_t>(span, left), got);
        used = got;
        break;
      case 2:
        if (!backwards) {
          ASSERT_TRUE(source.skip(span, nullptr, log));
          at += std::min<size_t>(span, left);
        } else {
          at = random() % 3 == 0 ? random() % (bytes.size() + 5000) : at + span % 5000;
          ASSERT_TRUE(source.fseekAbsolute64(static_cast<long long>(at), log));
        }
        break;
      case 3: {
        ASSERT_TRUE(source.lendBytes(span + 1, found, got, nullptr, log));
        ASSERT_TRUE(got <= span + 1 && (got > 0 || left == 0));
        const unsigned unused = static_cast<unsigned>(random() % (got + 1));
        source.takeBack(unused);
        used = got - unused;
        break;
      }
      case 4:
        ASSERT_TRUE(source.peekBytes(span % 513, found, got, nullptr, log));
        ASSERT_EQ(std::min<size_t>(span % 513, left), got);
    }
    ASSERT_TRUE(got == 0 || bytes.compare(at, got, found, got) == 0);
    at += used;
    ASSERT_TRUE(!backwards || source.ftell64() == static_cast<long long>(at));
    // A pipe tells its end only to who reads there.
    ASSERT_TRUE(source.endOfStream() == (at >= bytes.size()) || (!backwards && at >= bytes.size()));
  }
}

TEST(Sources, AllAgreeWithAString) {
  ScratchDir dir;
  const std::string bytes = noise(700'001, 1);
  writeFile(dir / "file", bytes);
  _mvLogger log;
  for (unsigned seed = 1; seed <= 12; ++seed) {
    _mvFileDataSource file;
    ASSERT_TRUE(file.openDataSourceFile(XString(dir / "file"), log));
    EXPECT_EQ(700'001, file.getFileSize64(log));
    agreesWithAString(file, bytes, 0, true, false, seed);
    OsFile inside(open((dir / "file").c_str(), O_RDONLY));
    ASSERT_EQ(300'000, inside.seek(300'000, SEEK_SET));
    ASSERT_TRUE(file.adopt(std::move(inside), "inside", log));
    agreesWithAString(file, bytes, 300'000, true, false, seed);
    _mvMemoryDataSource memory;
    memory.initializeMemSource(reinterpret_cast<const unsigned char*>(bytes.data()), 700'001);
    EXPECT_EQ(700'001, memory.sizeIfKnown());
    agreesWithAString(memory, bytes, 0, true, false, seed);

    ServedPipe served(bytes);
    _mvFileDataSource pipe;
    ASSERT_TRUE(pipe.adopt(std::move(served.ours), "pipe", log));
    EXPECT_TRUE(pipe.ftell64() == -1 && pipe.sizeIfKnown() == -1 && pipe.getFileSize64(log) == 0);
    agreesWithAString(pipe, bytes, 0, false, false, seed);
    pipe.close();

    TricklingSource trickle(bytes, 1 + seed * seed * 97), below(bytes, 1 + seed * 1000);
    agreesWithAString(trickle, bytes, 0, false, true, seed);
    BufferedDataSource buffered(below);
    agreesWithAString(buffered, bytes, 0, false, true, seed);
  }
  EXPECT_EQ("", log.text());
}

// What random sequences do not meet: the ends of the numbers, and the way back in a pipe.
TEST(FileSource, SeekRules) {
  ScratchDir dir;
  _mvLogger log;
  const std::string digits = "0123456789";
  writeFile(dir / "file", digits);
  std::string bytes(200'000, '\0');
  const auto readAt = [&](_mvFileDataSource& source, long long at, unsigned size) -> std::string {
    unsigned got = 0;
    const bool sought = source.fseekAbsolute64(at, log);
    const bool ok = source.readSourcePM(&bytes[0], size, got, nullptr, log);
    EXPECT_EQ(sought, ok) << "later reads fail too";
    return ok ? bytes.substr(0, got) : "failed";
  };
  _mvFileDataSource file, pipe;
  ASSERT_TRUE(file.openDataSourceFile(XString(dir / "file"), log));
  for (const unsigned size : {1u, 200'000u}) {  // through the window and past it
    for (const long long at : {LLONG_MAX, LLONG_MAX - 200'000, 11LL}) {
      EXPECT_EQ("", readAt(file, at, size)) << at;
      EXPECT_EQ(digits.substr(3, size), readAt(file, 3, size)) << at;
    }
  }
  ServedPipe served(digits);
  ASSERT_TRUE(pipe.adopt(std::move(served.ours), "pipe", log));
  EXPECT_EQ("4", readAt(pipe, 4, 1));
  EXPECT_EQ("", readAt(pipe, 1000, 1) + log.text());
  EXPECT_EQ("failed", readAt(pipe, 4, 1));
  EXPECT_EQ("failed", readAt(file, LLONG_MIN, 1));
  const char* lent = nullptr;
  unsigned got = 0;
  EXPECT_FALSE(file.lendBytes(1, lent, got, nullptr, log) || file.peekBytes(1, lent, got, nullptr, log));
  EXPECT_FALSE(_mvMemoryDataSource().fseekAbsolute64(-1, log));
}

// A file that is written while it is archived ends where it ended when its copy began: when it was opened or
// first read.
TEST(FileSource, AGrowingFileIsCopiedUpToWhereItEnded) {
  for (const size_t seen : {0u, 100u, 59'999u, 60'000u, 60'001u, 500'000u}) {
    for (const size_t grown : {0u, 50u, 100'000u}) {
      SCOPED_TRACE(std::to_string(seen) + " + " + std::to_string(grown));
      ScratchDir dir;
      const std::string all = noise(seen + grown + 50'000, 2), path = dir / "file";
      writeFile(path, all.substr(0, seen));
      _mvFileDataSource file;
      file.adoptForCopy(OsFile(open(path.c_str(), O_RDONLY)), "file", static_cast<long long>(seen));
      std::ofstream growing(path, std::ios::app | std::ios::binary);
      growing.write(all.data() + seen, static_cast<long>(grown)).flush();  // before the first read
      LogNull log;
      std::string copied, buffer(20'000, '\0');
      unsigned got = 1;
      for (size_t end = seen + grown; got > 0 && end + 1000 <= all.size(); end += 1000) {
        ASSERT_TRUE(file.readSourcePM(&buffer[0], copied.empty() ? 1 : 20'000, got, nullptr, log));
        copied.append(buffer, 0, got);
        growing.write(all.data() + end, 1000).flush();  // behind every read
      }
      EXPECT_TRUE(copied.size() == seen || copied.size() == seen + grown) << copied.size();
      EXPECT_EQ(all.substr(0, copied.size()), copied);
      EXPECT_TRUE(file.endOfStream());
    }
  }
}

// Pieces around the buffer's sizes into a disk that has room for all or for less: an error stays, is said
// once, and shows by the end.
TEST(OutputFile, PiecesOfEverySizeIntoAnyRoom) {
  ScratchDir dir;
  signal(SIGXFSZ, SIG_IGN);
  constexpr unsigned kSizes[] = {0,      1,      511,     16'383,  16'384, 16'385,
                                 20'000, 65'536, 262'143, 262'144, 262'145};
  rlimit before;
  ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &before));
  for (unsigned seed = 0; seed < 600; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    std::vector<unsigned> pieces(1 + random() % (seed % 3 ? 8 : 40));
    for (unsigned& piece : pieces) piece = kSizes[random() % (1 + seed % 11)];
    const size_t total = std::accumulate(pieces.begin(), pieces.end(), size_t{0});
    const size_t rooms[] = {total, total, 0, 1, 16'384, total / 2, std::max<size_t>(total, 1) - 1};
    const size_t room = rooms[random() % 7];
    const std::string bytes = noise(total, seed);
    _mvLogger log;
    const std::unique_ptr<OutputFile> file(OutputFile::createFileUtf8((dir / "file").c_str(), log));
    const rlimit limit = {room, before.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));
    bool written = true;
    size_t at = 0;
    for (const unsigned piece : pieces) {
      const char* from = bytes.data() + at;
      unsigned spare = 0;
      const bool asks = seed % 4 == 0 && piece <= OutputFile::kMostSpare;
      if (char* const inPlace = asks ? file->spareRoom(piece, spare, nullptr, log) : nullptr) {
        ASSERT_GE(spare, piece);
        from = static_cast<const char*>(std::memcpy(inPlace, from, piece));
      }
      const bool ok =
          file->writeBytesPM(from, piece, nullptr, log) && (random() % 8 > 0 || file->flush(nullptr, log));
      EXPECT_TRUE(written || !ok || piece == 0) << "an error stays";
      written = written && ok;
      at += piece;
      EXPECT_TRUE(!written || file->ftell64() == static_cast<long long>(at));
    }
    const auto time = MorvaneFileTime::fromUnixTime64(-7, 5);
    const bool timed = seed % 2 ? file->setFileTimeUtc(time, &log) : true;
    const bool closed = file->closeHandle(&log);
    EXPECT_EQ(closed, file->closeHandle(&log));
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &before));
    const bool fits = total <= room;
    EXPECT_TRUE(fits == closed && fits == (written && timed && closed));
    const std::string found = readFile(dir / "file"), text = log.text();
    EXPECT_TRUE(found.size() <= room && bytes.compare(0, found.size(), found) == 0);
    EXPECT_EQ(fits, found.size() == total && text.empty());
    EXPECT_EQ(text.find("path: "), text.rfind("path: ")) << "said once: " << text;
    if (!fits) continue;
    EXPECT_TRUE(file->setFileTimeUtc(time, &log)) << "also when it is closed";
    EXPECT_EQ(-7, mtimeOf(dir / "file")) << "the last bytes do not change the time again";
    EXPECT_FALSE(file->writeBytesPM("x", 1, nullptr, log));
  }
}

TEST(OutputFile, WhatIsDroppedCounts) {
  ScratchDir dir;
  _mvLogger log;
  const std::unique_ptr<OutputFile> file(OutputFile::createFileUtf8((dir / "file").c_str(), log));
  file->dropAfterOwnFailure();
  file->failAlone();
  EXPECT_TRUE(file->writeBytesPM("abc", 3, nullptr, log) && file->passHole(10, nullptr, log));
  EXPECT_EQ(13, file->ftell64());
}

// Opening never waits. (What signals do to waits is shown by the command, and with calls that fail.)
TEST(Waiting, NobodyReadsAFifo) {
  ScratchDir dir;
  const std::string fifo = dir / "fifo";
  _mvLogger log;
  must(dir, "mkfifo fifo");
  EXPECT_FALSE(OutputFile::createFileUtf8(fifo.c_str(), log));
  const OsFile reader(open(fifo.c_str(), O_RDONLY | O_NONBLOCK));
  const std::unique_ptr<OutputFile> file(OutputFile::createFileUtf8(fifo.c_str(), log));
  ASSERT_TRUE(file && file->writeBytesPM("data", 4, nullptr, log) && file->closeHandle(&log));
  char bytes[5] = "";
  EXPECT_TRUE(read(reader.fd(), bytes, 4) == 4 && std::string(bytes) == "data");
}

}  // namespace
}  // namespace morvane::testing
