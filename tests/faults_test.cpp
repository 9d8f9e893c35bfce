// What fails on its own: sources that fail while they are skipped or never end, and callbacks that do what
// they should not. Nothing is then reported as done that is not.
#include "ArchiveSupport.h"
#include "TreeSupport.h"
#include "runtime/io/_mvFileDataSource.h"
#include "runtime/log/LogNull.h"
#include "tar/place/RunLimits.h"

namespace morvane::testing {
namespace {

// ---- Sources

// An archive in the middle of a file.
class SliceSource : public _mvFileDataSource {
 public:
  SliceSource(const std::string& path, long long from) : m_from(from) {
    XString name;
    name.setFromUtf8(path.c_str());
    LogNull unwanted;
    EXPECT_TRUE(openDataSourceFile(name, unwanted) && fseekAbsolute64(0, unwanted));
  }
  bool fseekAbsolute64(long long at, LogBase& log) override {
    return _mvFileDataSource::fseekAbsolute64(m_from + at, log);
  }
  long long ftell64() override { return _mvFileDataSource::ftell64() - m_from; }
  long long sizeIfKnown() override { return _mvFileDataSource::sizeIfKnown() - m_from; }

 private:
  const long long m_from;
};

TEST(Sources, OfADerivedOneTheFileIsNotReadByOthers) {
  ScratchDir dir;
  std::string archive = directory("d/");
  for (unsigned i = 0; i < 40; ++i) archive += member("d/" + std::to_string(i), noise(100000, i));
  writeFile(dir / "slice", std::string(1000, 'x') + archive + kEnd);
  TarWith tar("Profile=usual,Threads=4", dir / "out");
  SliceSource source(dir / "slice", 1000);
  EXPECT_EQ(41, tar.Untar(source)) << logOf(tar);
  for (unsigned i = 0; i < 40; ++i)
    EXPECT_TRUE(readFile(dir / ("out/d/" + std::to_string(i))) == noise(100000, i)) << i;
}

// A source that cannot seek and fails when it has given so much.
class FailingSource : public TricklingSource {
 public:
  FailingSource(const std::string& bytes, long long failAt) : TricklingSource(bytes, 512), m_left(failAt) {}
  bool readSourcePM(char* buffer, unsigned n, unsigned& numRead, ProgressMonitor* pm, LogBase& log) override {
    if (m_left <= 0) return false;
    const bool ok = TricklingSource::readSourcePM(buffer, n, numRead, pm, log);
    m_left -= numRead;
    return ok;
  }

 private:
  long long m_left;
};

// Data that look like an archive are not read as headers where passing over them failed.
TEST(Sources, AFailedSkipEndsTheRun) {
  const std::string inner = member("inner", "x") + kEnd;
  const std::string archive = member("outer", std::string(2048, 'x') + inner) + member("last") + kEnd;
  for (const long long failAt : {512, 1024, 1536, 2560}) {
    SCOPED_TRACE(failAt);
    ClsTar tar;
    XString xml;
    ClsBinData found;
    EXPECT_FALSE(FailingSource(archive, failAt).endOfStream());
    FailingSource one(archive, failAt), two(archive, failAt), three(archive, failAt);
    EXPECT_FALSE(tar.VerifyTar(one));
    EXPECT_TRUE(logHas(tar, "Failed to pass over data of the archive.")) << logOf(tar);
    EXPECT_FALSE(tar.ListXml(two, xml));
    EXPECT_FALSE(has(xml.str(), "inner"));
    EXPECT_FALSE(tar.UntarFirstMatchingToBd(three, "inner", found));
  }
}

// A source of which nothing ever comes out, and that never asks whether to abort.
class EndlessSource : public _mvDataSource {
 public:
  EndlessSource(std::string start, std::string again)
      : m_bytes(std::move(start)), m_again(std::move(again)) {}
  bool readSourcePM(char* buffer, unsigned n, unsigned& numRead, ProgressMonitor*, LogBase&) override {
    while (m_bytes.size() < n) m_bytes += m_again;
    m_bytes.copy(buffer, numRead = n);
    m_bytes.erase(0, n);
    given += n;
    return given < 100'000'000;
  }
  long long given = 0;

 private:
  std::string m_bytes;
  const std::string m_again;
};

TEST(Sources, AbortIsHeardWhereNothingComesOut) {
  // The name in a gzip header, zeros behind a member, empty bzip2 streams, LZW's code for "forget the table".
  const std::string header("\x1F\x8B\x08\x08\0\0\0\0\0\3", 10), bare("\x1F\x8B\x08\0\0\0\0\0\0\3", 10);
  const std::string emptyGzip = bare + "\3\0"s + std::string(8, '\0');
  const std::string emptyBzip2 = "BZh9\x17\x72\x45\x38\x50\x90\0\0\0\0"s;
  const std::string clears("\x00\x01\x02\x04\x08\x10\x20\x40\x80", 9);  // 256, eight times in nine bits
  const struct {
    const char* name;
    std::string start, again;
    bool (ClsTar::*untar)(_mvDataSource&, ProgressEvent*);
  } kCases[] = {{"gzip name", header, "name", &ClsTar::UntarGz},
                {"gzip padding", emptyGzip, std::string(64, '\0'), &ClsTar::UntarGz},
                {"bzip2 streams", "", emptyBzip2, &ClsTar::UntarBz2},
                {"LZW",
                 "\x1F\x9D\x90"
                 "a\0"s,
                 clears, &ClsTar::UntarZ}};
  for (const auto& each : kCases) {
    SCOPED_TRACE(each.name);
    TarWith tar("GzipAllMembers,Bz2Framed");
    tar.put_AbortCheckMs(1);
    EndlessSource source(each.start, each.again);
    struct : ProgressEvent {
      void onAbortCheck(bool& abort) override { abort = source->given > 0; }
      EndlessSource* source;
    } event;
    event.source = &source;
    EXPECT_FALSE((tar.*each.untar)(source, &event));
    EXPECT_LE(source.given, 256 * 1024) << logOf(tar);
  }
}

// A source may lend without being able to show what comes.
TEST(Sources, TheLeastThatTheySupplyIsEnough) {
  class Lending : public _mvMemoryDataSource {
   public:
    bool canPeek() override { return false; }
    bool peekBytes(unsigned, const char*&, unsigned&, ProgressMonitor*, LogBase&) override { return false; }
  } lending;
  const std::string archive = member("f", "data") + kEnd;
  lending.initializeMemSource(reinterpret_cast<const unsigned char*>(archive.data()),
                              static_cast<unsigned>(archive.size()));
  LimitedOutput data;
  ClsTar tar;
  EXPECT_TRUE(tar.UntarMemberToOutput(lending, data)) << logOf(tar);
  EXPECT_EQ("data", data.bytes);
}

// ---- Callbacks

// What a callback's exception leaves of a member is not taken for headers by what comes next.
TEST(Callbacks, AThrownOneLeavesNoHalfReadMember) {
  ScratchDir dir;
  writeFile(dir / "a.tar", member("a", std::string(3000, 'a')) + member("b", "b") + kEnd);
  ASSERT_EQ(0, run({"sh", "-c", "gzip -k a.tar; bzip2 -k a.tar"}, "", dir.path()).status);
  struct : ProgressEvent {
    void onTarEntry(const char*, long long, bool, bool&) override { throw 1; }
  } event;
  TarWith tar("EntryEvents", dir / "out");
  EXPECT_FALSE(tar.UntarGz(dir / "a.tar.gz", &event));
  EXPECT_FALSE(tar.FinishStreamingUntar(nullptr, tar.log()));
  _mvIoParams io;
  EXPECT_FALSE(tar._writeBytes("more", 4, io, tar.log())) << "the run is over";
  EXPECT_TRUE(tar.UntarBz2(dir / "a.tar.bz2")) << logOf(tar);
  EXPECT_EQ("b", readFile(dir / "out/b"));
}

// The steps are refused like the methods, and the call that goes on ends as it would.
TEST(Callbacks, StepsAreRefused) {
  ScratchDir dir;
  writeFile(dir / "a.tar", member("a", std::string(3000, 'a')) + member("b", "b") + kEnd);
  ASSERT_EQ(0, run({"gzip", "-k", "a.tar"}, "", dir.path()).status);
  TarWith tar("EntryEvents", dir / "out");
  ActingEvent event;
  event.act = [&](const std::string&) {
    _mvIoParams io;
    LimitedOutput out;
    bool finished = false;
    _mvLogger log;
    mvFileInfo info;
    XString path("p");
    TricklingSource source("", 1);
    tar.BeginStreamingUntar(log);
    tar.xmlListingInit();
    EXPECT_FALSE(tar.StreamingUntarNext(nullptr, 0, finished, nullptr, log) ||
                 tar.FinishStreamingUntar(nullptr, log) || tar._writeBytes("x", 1, io, log) ||
                 tar.unTarGz(source, nullptr, log) || tar.writeTarToOutput(out, nullptr, log, nullptr) ||
                 tar.copySourceToOutput(source, nullptr, log) ||
                 tar.writeTarHeaderToOutput(path, info, nullptr, log) ||
                 tar._untar(source, true, log, nullptr, nullptr) >= 0);
    EXPECT_EQ("", log.text());
  };
  EXPECT_TRUE(tar.UntarGz(dir / "a.tar.gz", &event)) << logOf(tar);
  EXPECT_EQ(2u, event.entries.size());
  EXPECT_EQ(std::string(3000, 'a'), readFile(dir / "out/a"));
}

// The counting pass examines an excluded entry for ever, as it always did, but it can be ended.
TEST(Callbacks, ACountThatNeverEndsCanBeAborted) {
  ScratchDir dir;
  writeFile(dir / "tree/file", "x");
  ClsTar tar;
  tar.AddDirRoot(dir / "tree");
  tar.put_MustNotMatch("*file");
  RecordingEvent event;
  event.abortAtQuestion = 100;
  written(tar, &event, false);
  EXPECT_EQ(100, event.questions);
}

// A single file that becomes a link while its event is told is not followed; the directory that a callback
// sets holds from the next member on, in both engines.
TEST(Callbacks, WhatTheyChange) {
  ScratchDir dir;
  must(dir, "printf secret > secret && printf plain! > file");
  ClsTar tar;
  tar.AddFile(dir / "file");
  ActingEvent exchanging;
  exchanging.act = [&](const std::string&) { must(dir, "ln -sf secret file"); };
  EXPECT_FALSE(has(written(tar, &exchanging, false), "secret"));

  writeFile(dir / "a.tar", member("a", "a") + member("b", "b") + kEnd);
  must(dir, "gzip -k a.tar");
  for (const std::string words : {"EntryEvents", "EntryEvents,Confine=beneath"}) {
    for (const bool gzip : {false, true}) {
      must(dir, "rm -rf 1 2");
      TarWith reader(words, dir / "1");
      ActingEvent moving;
      moving.act = [&](const std::string&) { reader.put_UntarFromDir(dir / "2"); };
      EXPECT_TRUE(gzip ? reader.UntarGz(dir / "a.tar.gz", &moving)
                       : reader.Untar(dir / "a.tar", &moving) == 2);
      EXPECT_TRUE(exists(dir / "1/a") && exists(dir / "2/b") && !exists(dir / "2/a")) << words << gzip;
    }
  }
}

// ---- Names and arguments that are not what they seem

TEST(Arguments, NulsAreRefusedAndOneTextMayBeTwo) {
  ScratchDir dir;
  writeFile(dir / "x", "x");
  const XString nul((dir / "x") + "\0y"s);
  ClsTar tar;
  EXPECT_FALSE(tar.AddFile(nul) || tar.AddFile2(dir / "x", std::string("a\0b", 3)) || tar.AddDirRoot(nul) ||
               tar.AddDirRoot2(std::string("p\0", 2), dir.path()) || tar.VerifyTar(nul) || tar.WriteTar(nul));
  EXPECT_TRUE(tar.AddFile(dir / "x"));
  tar.put_DirPrefix(std::string("p\0q", 3));
  written(tar, nullptr, false);
  EXPECT_TRUE(logHas(tar, "A path with a NUL byte cannot be archived."));
  tar.put_UntarFromDir(nul);
  EXPECT_EQ(-1, untar(tar, member("a") + kEnd));

  // A path that becomes absolute by being decoded.
  tar.put_Charset("utf-7");
  tar.put_UncommonOptions("Confine=beneath");
  tar.put_UntarFromDir(dir / "out");
  EXPECT_EQ(-1, untar(tar, member("+AC8-" + (dir / "escaped").substr(1)) + kEnd));
  EXPECT_TRUE(logHas(tar, "Member refused: its path leaves the target.") && !exists(dir / "escaped"));

  writeFile(dir / "a.tar", member("a") + kEnd);
  XString both(dir / "a.tar");
  EXPECT_TRUE(tar.ListXml(both, both));
  EXPECT_TRUE(has(both.str(), "<path>a</path>"));
  XString path(std::string(60, 'd') + "/" + std::string(60, 'n')), name(path), prefix(path);
  EXPECT_TRUE(tar.splitPathForTar(name, name, prefix, tar.log()) &&
              tar.splitPathForTar(path, name, path, tar.log()));
  EXPECT_EQ(std::string(60, 'n') + std::string(60, 'd') + "/", name.str() + path.str());
}

// A path of more parts than other programs can remove again ends the run when it would be made, by default.
TEST(Arguments, MaxPathDepth) {
  const struct {
    std::string words;
    int parts;
    bool extracts, walks;
  } kCases[] = {{"", 4096, true, true},
                {"", 4097, false, true},
                {",MaxPathDepth=3", 3, true, true},
                {",MaxPathDepth=3", 4, false, false},
                {",MaxPathDepth=0", 4097, true, true}};
  EXPECT_EQ(3, depthOf("./a//b/./c"));
  for (const auto& [words, parts, extracts, walks] : kCases) {
    std::string path = "f";
    for (int i = 1; i < parts; ++i) path.insert(0, "d/");
    const std::string archive = member("first") + longName(path) + member("short") + kEnd;
    for (const bool gzip : {false, true}) {
      SCOPED_TRACE(words + " " + std::to_string(parts));
      ScratchDir dir;
      writeFile(dir / "a", gzip ? run({"gzip", "-c"}, archive).out : archive);
      TarWith tar("FullRead" + words, dir / "out");
      RecordingEvent event;
      const auto reads = [&] {
        return gzip ? tar.UntarGz(dir / "a", &event) : tar.Untar(dir / "a", &event) >= 0;
      };
      EXPECT_EQ(extracts, reads());
      EXPECT_EQ(2u, event.headers.size());
      EXPECT_TRUE(exists(dir / "out/first"));
      EXPECT_EQ(!extracts, logHas(tar, "Limit reached.\n"));
      const std::string limit = words.empty() ? "4096" : "3";
      EXPECT_TRUE(extracts ||
                  (logHas(tar, "limit: MaxPathDepth\n") && logHas(tar, "value: " + limit + "\n")));
      EXPECT_EQ(gzip ? 0u : 1u + extracts, event.entries.size());
      tar.put_SuppressOutput(true);
      EXPECT_EQ(walks, reads());
    }
  }
}

// A callback that throws at the end of a run ends nothing of what is left to be done there.
TEST(Callbacks, WhatIsLeftIsDoneBehindAnException) {
  if (!isRoot()) GTEST_SKIP() << "owners are the superuser's";
  struct ThrowingEvent : RecordingEvent {
    void onInfo(const char* name, const char*) override {
      if (name == at) throw std::runtime_error("thrown");
    }
    std::string at;
  };
  ScratchDir dir;
  TarWith tar("Restore=all", dir / "out");
  ThrowingEvent event;
  event.at = "ownerNotKept";
  const std::string list = "user::rwx,user:5:rwx:5,group::---,mask::rwx,other::---";
  const std::string id = "\x80\0\0\0\xFF\xFF\xFF\xFF"s;
  EXPECT_EQ(-1, untar(tar,
                      paxHeader("SCHILY.acl.access", list) +
                          patched(patched(directory("d/"), kModeField, "0000770"), kUidField, id) + kEnd,
                      &event));
  TarWith writer("Store=all");
  writer.put_WriteFormat("pax");
  writer.AddDirRoot(dir / "out");
  EXPECT_TRUE(has(written(writer), "group::---")) << logOf(tar);
  event.at = "uncreatable";
  const std::string links = ArchiveBuilder().add({"a", "", '1', "none"}).add({"b", "", '1', "z"}).bytes(0);
  EXPECT_EQ(-1, untar(tar, links + member("z", "data") + kEnd, &event));
  EXPECT_EQ("data", readFile(dir / "out/b"));
}

// What was stored of a file that changed meanwhile is nothing that its other names could lead to.
TEST(Changes, ANameWithoutItsDataIsNoTarget) {
  ScratchDir dir;
  writeFile(dir / "t/a", noise(100000, 1));
  must(dir, "ln t/a t/z && cp t/a whole && touch t/m");
  TarWith tar("Profile=usual", dir / "out");
  tar.AddDirRoot(dir / "t");
  ActingEvent event;
  event.act = [&](const std::string& path) {
    if (path == dir / "t/a") fs::resize_file(path, 5);
    if (path == dir / "t/m") writeFile(dir / "t/a", readFile(dir / "whole"));
  };
  EXPECT_TRUE(untar(tar, written(tar, &event, false)) >= 0) << logOf(tar);
  must(dir, "cmp whole out/z");
}

}  // namespace
}  // namespace morvane::testing
