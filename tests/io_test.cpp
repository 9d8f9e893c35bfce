// Sources and outputs: every sequence of reads and seeks against one model, errors that stay, pipes, and what
// signals and full disks do.
#include <fcntl.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <csignal>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <thread>

#include "TestSupport.h"
#include "runtime/io/BufferedDataSource.h"

namespace morvane::testing {
namespace {

// A pipe whose other end is served by a thread, which reads or writes.
class ServedPipe {
 public:
  explicit ServedPipe(const std::function<void(int fd)>& serve, bool reads = false) {
    signal(SIGPIPE, SIG_IGN);
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) ADD_FAILURE() << "no pipe";
    ours.reset(fds[reads ? 1 : 0]);
    m_thread = std::thread([serve, theirs = OsFile(fds[reads ? 0 : 1])] { serve(theirs.fd()); });
  }
  // One that gives the bytes.
  explicit ServedPipe(const std::string& bytes)
      : ServedPipe([bytes](int fd) {
          for (size_t at = 0; at < bytes.size(); at += 1000) {
            if (write(fd, bytes.data() + at, std::min<size_t>(1000, bytes.size() - at)) < 0) return;
          }
        }) {}
  ~ServedPipe() { join(); }
  void join() {
    ours.close();
    if (m_thread.joinable()) m_thread.join();
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
          ASSERT_TRUE(source.skipByReading(span, nullptr, log));
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
    ASSERT_TRUE(!source.endOfStream() || at >= bytes.size());
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
    EXPECT_EQ(700'001, file.sizeIfKnown());
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

TEST(FileSource, SeekRules) {
  ScratchDir dir;
  writeFile(dir / "file", "0123456789");
  struct Seek {
    long long to;
    const char* thenRead;  // "!" fails, "" is the end
  };
  const auto play = [](_mvFileDataSource& source, const std::vector<Seek>& seeks) {
    for (const Seek& each : seeks) {
      for (const unsigned size : {1u, 200'000u}) {  // through the window and past it
        _mvLogger log;
        std::string bytes(size, '\0');
        unsigned got = 0;
        EXPECT_EQ(*each.thenRead != '!', source.fseekAbsolute64(each.to, log)) << each.to;
        const bool ok = source.readSourcePM(&bytes[0], source.ftell64() < 0 ? 1 : size, got, nullptr, log);
        EXPECT_EQ(each.thenRead, ok ? bytes.substr(0, std::min(got, 1u)) : "!") << each.to << log.text();
        EXPECT_EQ(ok, log.text().empty());
        if (source.ftell64() < 0) break;
      }
    }
  };
  for (const long long before : {-1LL, LLONG_MIN}) {
    _mvLogger log;
    _mvFileDataSource file, pipe;
    ASSERT_TRUE(file.openDataSourceFile(XString(dir / "file"), log));
    play(file,
         {{3, "3"}, {9, "9"}, {10, ""}, {11, ""}, {3, "3"}, {1LL << 40, ""}, {LLONG_MAX - 200'000, ""}});
    play(file, {{LLONG_MAX - 1, ""}, {0, "0"}, {LLONG_MAX, ""}, {3, "3"}, {before, "!"}});
    const char* bytes = nullptr;
    unsigned got = 0;
    EXPECT_FALSE(file.readFully(nullptr, 1, got, nullptr, log) ||
                 file.lendBytes(1, bytes, got, nullptr, log) || file.peekBytes(1, bytes, got, nullptr, log))
        << "later reads fail too";
    ServedPipe served(std::string("0123456789"));
    ASSERT_TRUE(pipe.adopt(std::move(served.ours), "pipe", log));
    play(pipe, {{0, "0"}, {4, "4"}, {5, "5"}, {1000, ""}, {4, "!"}});
    pipe.close();
    _mvMemoryDataSource memory;
    EXPECT_FALSE(memory.fseekAbsolute64(before, log));
  }
  for (const std::string& bad : {dir / "missing", dir.path(), dir / "file/below"}) {
    _mvLogger log;
    _mvFileDataSource file;
    EXPECT_FALSE(file.openDataSourceFile(XString(bad), log));
    EXPECT_NE(std::string::npos, log.text().find("path: " + bad + "\n")) << log.text();
  }
}

// A file that is written while it is archived ends where it ended when its copy began.
TEST(FileSource, AGrowingFileIsCopiedUpToWhereItEnded) {
  for (const size_t seen : {0u, 100u, 150u, 59'999u, 60'000u, 60'001u, 500'000u}) {
    for (const size_t grown : {0u, 50u, 100'000u}) {
      SCOPED_TRACE(std::to_string(seen) + " + " + std::to_string(grown));
      ScratchDir dir;
      const std::string all = noise(seen + grown + 300'000, 2);
      const auto append = [&](size_t from, size_t to) {
        const OsFile out(open((dir / "file").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600));
        ASSERT_EQ(static_cast<ssize_t>(to - from), out.writeSome(all.data() + from, to - from));
      };
      append(0, seen);
      _mvFileDataSource file;
      file.adoptForCopy(OsFile(open((dir / "file").c_str(), O_RDONLY)), "file", static_cast<long long>(seen));
      append(seen, seen + grown);  // before the first read
      LogNull log;
      unsigned got = 0;
      std::string copied;
      for (size_t end = seen + grown; copied.size() < all.size();) {
        char buffer[20'000];
        ASSERT_TRUE(file.readSourcePM(buffer, copied.empty() ? 1 : sizeof buffer, got, nullptr, log));
        copied.append(buffer, got);
        if (got == 0) break;
        if (end + 1000 <= all.size()) append(end, end + 1000), end += 1000;  // behind every read
      }
      // Where it ended when it was opened or first read; both are "when its copy began".
      EXPECT_TRUE(copied.size() == seen || copied.size() == seen + grown) << copied.size();
      EXPECT_EQ(all.substr(0, copied.size()), copied);
      EXPECT_TRUE(file.endOfStream());
    }
  }
}

TEST(Copy, ExactlyAsManyBytesAsAsked) {
  const std::string bytes = noise(1000, 4);
  for (const unsigned piece : {1u, 7u, 1000u}) {
    for (const bool lending : {false, true}) {
      for (const size_t n : {0u, 1u, 6u, 7u, 999u, 1000u, 1001u}) {
        for (const size_t limit : {0u, 1u, 500u, 998u, 999u, 1000u}) {
          TricklingSource trickle(bytes, piece);
          BufferedDataSource buffered(trickle);
          _mvDataSource& source = lending ? static_cast<_mvDataSource&>(buffered) : trickle;
          LimitedOutput out(limit);
          _mvLogger log;
          char work[64];
          const bool ok = n % 2 ? source.copyNToOutputPM(out, static_cast<long long>(n), nullptr, log)
                                : source.copyNToOutput2PM(out, static_cast<long long>(n), work, sizeof work,
                                                          nullptr, log);
          EXPECT_EQ(n <= limit && n <= 1000, ok) << n << " of " << limit;
          EXPECT_EQ(ok, log.text().empty());
          EXPECT_EQ(bytes.substr(0, out.bytes.size()), out.bytes);
          EXPECT_TRUE(!ok || out.bytes.size() == n);
        }
      }
    }
  }
  const std::string large = noise(1'000'000, 5);
  _mvMemoryDataSource source;
  source.initializeMemSource(reinterpret_cast<const unsigned char*>(large.data()), 1'000'000);
  RecordingEvent event;
  event.abortAtPercent = 39;  // after the third piece of 128 KiB
  ProgressMonitor monitor(event, 100, 100, 1'000'000);
  LimitedOutput out;
  _mvLogger log;
  EXPECT_FALSE(source.copyNToOutputPM(out, 1'000'000, &monitor, log));
  EXPECT_EQ("Aborted by application.\n", log.text());
  EXPECT_FALSE(out.writeBytesPM("x", 1, &monitor, log)) << "and nothing is written any more";
}

TEST(Outputs, TheBaseDiscardsAndTheBufferKeeps) {
  _mvLogger log;
  _mvOutput nowhere;
  DataBuffer bytes, kept;
  OutputDataBuffer buffer(kept);
  ASSERT_TRUE(bytes.append(" bytes", 6));
  for (_mvOutput* out : {&nowhere, static_cast<_mvOutput*>(&buffer)}) {
    EXPECT_TRUE(out->writeBytesPM("some", 4, nullptr, log) && out->writeDbPM(bytes, nullptr, log) &&
                out->writeLittleEndianUInt32PM(0x81020304, nullptr, log) && out->seekToEnd(log) &&
                out->fseekAbsolute64(1, log) && out->resetOutput(log) && out->announceOutputFinished(log));
  }
  EXPECT_TRUE(nowhere.ftell64() == 0 && buffer.ftell64() == 14 && log.text().empty());
  EXPECT_EQ(0, std::memcmp("some bytes\x04\x03\x02\x81", kept.getData2(), 14));
}

TEST(OutputFile, PiecesOfEverySize) {
  ScratchDir dir;
  constexpr unsigned kSizes[] = {0,      1,      511,    512,     16'383,  16'384,
                                 16'385, 65'535, 65'536, 262'143, 262'144, 262'145};
  const std::string bytes = noise(262'145, 6);
  for (unsigned seed = 0; seed < 40; ++seed) {
    std::mt19937 random(seed);
    _mvLogger log;
    const std::unique_ptr<OutputFile> file(OutputFile::createFileUtf8((dir / "file").c_str(), log));
    std::string expected;
    for (int i = 0; i < 30; ++i) {
      const unsigned n = kSizes[random() % 12];
      ASSERT_TRUE(file->writeBytesPM(bytes.data(), n, nullptr, log));
      expected.append(bytes, 0, n);
      ASSERT_TRUE(random() % 8 > 0 || file->flush(nullptr, log));
      ASSERT_EQ(static_cast<long long>(expected.size()), file->ftell64());
    }
    ASSERT_TRUE(seed % 2 || file->closeHandle(&log));
    ASSERT_TRUE(file->setFileTimeUtc(MorvaneFileTime::fromUnixTime64(-7, 5), &log));
    ASSERT_TRUE(file->closeHandle(&log) && file->closeHandle(&log));
    EXPECT_TRUE(expected == readFile(dir / "file"));
    EXPECT_EQ(-7, mtimeOf(dir / "file")) << "the last bytes do not change the time again";
    mvFileInfo info;
    EXPECT_FALSE(file->writeBytesPM("x", 1, nullptr, log) || file->getFileInfo(info));
    const auto at = MorvaneFileTime::fromUnixTime32;
    ASSERT_TRUE(file->setFileTimeUtc_3({}, at(5, 0), at(9, 0), log) &&
                info.loadFileInfoUtf8((dir / "file").c_str(), log));
    EXPECT_TRUE(info.m_lastAccess.seconds() == 5 && info.m_lastModified.seconds() == 9 && log.text().empty());
  }
}

// The disk is full after every possible number of bytes around the buffer's sizes.
TEST(OutputFile, AFullDiskIsAFalseResultThatStays) {
  ScratchDir dir;
  signal(SIGXFSZ, SIG_IGN);
  const std::string bytes = noise(300'000, 7);
  rlimit before;
  ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &before));
  for (const unsigned total : {1u, 1000u, 16'384u, 16'385u, 100'000u, 300'000u}) {
    for (const unsigned piece : {1000u, 20'000u, 300'000u}) {
      for (const unsigned space : {0u, 1u, 999u, 16'000u, 16'384u, 99'999u, 299'999u, 300'000u}) {
        SCOPED_TRACE(std::to_string(total) + " in " + std::to_string(piece) + " into " +
                     std::to_string(space));
        _mvLogger log;
        const std::unique_ptr<OutputFile> file(OutputFile::createFileUtf8((dir / "file").c_str(), log));
        const rlimit limit = {space, before.rlim_max};
        ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));
        bool written = true;
        for (unsigned at = 0; at < total; at += piece) {
          const bool ok = file->writeBytesPM(bytes.data() + at, std::min(piece, total - at), nullptr, log);
          EXPECT_TRUE(written || !ok) << "an error stays";
          written = written && ok;
        }
        const bool closed = file->closeHandle(&log);
        EXPECT_EQ(closed, file->closeHandle(&log));
        ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &before));
        EXPECT_EQ(total <= space, written && closed);
        EXPECT_EQ(total <= space, closed);
        const std::string found = readFile(dir / "file");
        EXPECT_LE(found.size(), space);
        EXPECT_TRUE(bytes.compare(0, found.size(), found) == 0);
        const std::string text = log.text();
        EXPECT_EQ(total <= space, text.empty());
        EXPECT_EQ(text.find("path: "), text.rfind("path: ")) << "said once: " << text;
      }
    }
  }
  _mvLogger log;
  const std::unique_ptr<OutputFile> full(OutputFile::createFileUtf8("/dev/full", log));
  EXPECT_TRUE(full->writeBytesPM("x", 1, nullptr, log)) << "still in the buffer";
  EXPECT_FALSE(full->announceOutputFinished(log));
  EXPECT_FALSE(full->writeBytesPM("x", 1, nullptr, log) || full->flush(nullptr, log) || full->closeHandle());
  for (const std::string& bad : {dir / "no/such", dir.path(), dir / "file/below"}) {
    log.ClearLog();
    EXPECT_EQ(nullptr, OutputFile::createFileUtf8(bad.c_str(), log));
    EXPECT_NE(std::string::npos, log.text().find("path: " + bad + "\n")) << log.text();
  }
}

// Reads all there is; each piece comes with a signal to the other side.
void drain(int fd, std::string& received, pthread_t signalled) {
  char buffer[3000];
  for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) > 0;
       received.append(buffer, static_cast<size_t>(n))) {
    pthread_kill(signalled, SIGUSR1);
  }
}

// Signals break waits: these go on, unless the application then says that it wants to abort.
TEST(Waiting, FifosSignalsAndAborts) {
  ScratchDir dir;
  struct sigaction interrupt = {};
  interrupt.sa_handler = [](int) {};
  ASSERT_EQ(0, sigaction(SIGUSR1, &interrupt, nullptr));
  const pthread_t self = pthread_self();
  const std::string fifo = dir / "fifo", bytes = noise(300'000, 9);
  _mvLogger log;
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  EXPECT_EQ(nullptr, OutputFile::createFileUtf8(fifo.c_str(), log))
      << "nobody reads it, and opening never waits";
  EXPECT_NE(std::string::npos, log.text().find("path: " + fifo + "\n"));
  {
    const OsFile reader(open(fifo.c_str(), O_RDONLY | O_NONBLOCK));
    ASSERT_EQ(0, reader.setBlocking());
    const std::unique_ptr<OutputFile> file(OutputFile::createFileUtf8(fifo.c_str(), log));
    ASSERT_TRUE(file);
    std::string received;
    std::thread reading([&] { drain(reader.fd(), received, self); });
    EXPECT_TRUE(file->writeBytesPM(bytes.data(), 300'000, nullptr, log) && file->closeHandle(&log))
        << log.text();
    reading.join();
    EXPECT_TRUE(bytes == received);
  }
  {
    ServedPipe served([&, self](int fd) {
      for (size_t at = 0; at < bytes.size() && write(fd, bytes.data() + at, 1000) == 1000; at += 1000) {
        pthread_kill(self, SIGUSR1);
      }
    });
    _mvFileDataSource source;
    LimitedOutput out;
    ASSERT_TRUE(source.adopt(std::move(served.ours), "pipe", log));
    EXPECT_TRUE(source.copyNToOutputPM(out, 300'000, nullptr, log)) << log.text();
    EXPECT_TRUE(bytes == out.bytes);
  }
  for (const bool reads : {true, false}) {
    std::atomic<bool> done{false};
    // The other side neither reads nor writes: only the signals can end this.
    ServedPipe served(
        [&, self](int) {
          for (; !done; std::this_thread::yield()) pthread_kill(self, SIGUSR1);
        },
        !reads);
    RecordingEvent event;
    event.abortAtQuestion = 3;
    ProgressMonitor monitor(event, 100, 100, 0);
    _mvFileDataSource source;
    char byte;
    unsigned got = 0;
    log.ClearLog();
    if (reads) {
      EXPECT_TRUE(source.adopt(std::move(served.ours), "pipe", log));
      EXPECT_FALSE(source.readSourcePM(&byte, 1, got, &monitor, log));
    } else {
      const std::unique_ptr<OutputFile> file(OutputFile::adopt(std::move(served.ours), "pipe"));
      EXPECT_FALSE(file->writeBytesPM(bytes.data(), 300'000, &monitor, log) || file->closeHandle());
    }
    done = true;
    EXPECT_EQ("Aborted by application.\n", log.text());
    EXPECT_EQ(3, event.questions);
  }
  signal(SIGUSR1, SIG_IGN);
}

}  // namespace
}  // namespace morvane::testing
