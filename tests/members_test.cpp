// Members that the application makes or changes: files from memory, and the word MemberEvents in both
// directions.
#include "ArchiveSupport.h"
#include "runtime/progress/TarMember.h"

namespace morvane::testing {
namespace {

TEST(AddBytes, BecomesAMemberAsItIsNow) {
  ScratchDir dir;
  must(dir, "mkdir t && touch t/x && printf 1 > one");
  ClsTar tar;
  DataBuffer data;
  data.appendStr("22");
  tar.put_DirPrefix("d");
  EXPECT_TRUE(tar.AddFile(dir / "one") && tar.AddBytes("a\\two", data) && tar.AddDirRoot(dir / "t") &&
              tar.AddFile2(dir / "one", "three"));
  data.clear();
  data.appendStr("changed");
  RecordingEvent event;
  const std::string archive = written(tar, &event);
  EXPECT_EQ((Lines{"d/one 1", "a/two 2", "three 1", "d/x 0"}), membersOf(archive));
  EXPECT_EQ("22\0"s, archive.substr(1536, 3));
  EXPECT_EQ("a\\two 2", event.entries[1]);
  EXPECT_EQ((std::vector<int>{25, 75, 100}), event.percents);
  tar.put_MustNotMatch("*two");
  EXPECT_EQ((Lines{"d/one 1", "three 1", "d/x 0"}), membersOf(written(tar)));
  EXPECT_EQ(2, tar.calcTotalProgressForWrite(tar.log(), nullptr));
  EXPECT_FALSE(tar.AddBytes("a\0b"s, data));
  EXPECT_TRUE(tar.ClearDirRootsAndFiles() && tar.AddBytes("", data));
  EXPECT_EQ("", written(tar, nullptr, false));
  EXPECT_TRUE(logHas(tar, "pathInTar is empty."));
}

struct ChangingEvent : RecordingEvent {
  void onTarMember(TarMember& member) override {
    offered.push_back(std::string(member.writing ? "w" : "r") + member.typeFlag + " " + member.path);
    if (const auto change = changes.find(member.path); change != changes.end()) change->second(member);
  }
  std::map<std::string, std::function<void(TarMember&)>> changes = {
      {"skipped", [](TarMember& member) { member.skip = true; }},
      {"nameless", [](TarMember& member) { member.path.clear(); }}};
  Lines offered;
};

TEST(MemberEvents, WhenWriting) {
  const struct {
    const char* format;
    unsigned uid;
    std::string stored;  // somewhere in the archive; empty: the format cannot hold it
  } kCases[] = {{"gnu", 2097152, "\x80\0\0\0\0\x20\0\0"s},
                {"pax", 2097152, "15 uid=2097152\n"},
                {"ustar", 2097151, "7777777\0"s},
                {"ustar", 2097152, ""}};
  for (const auto& [format, uid, stored] : kCases) {
    SCOPED_TRACE(format + std::to_string(uid));
    ScratchDir dir;
    must(dir, "mkdir -p t/d && touch t/nameless t/skipped && printf data > t/z");
    TarWith tar("MemberEvents");
    tar.put_WriteFormat(format);
    tar.AddDirRoot(dir / "t");
    ChangingEvent event;
    event.changes["d"] = [](TarMember& member) { member.path = "renamed"; };
    event.changes["z"] = [&, owner = uid](TarMember& member) {
      EXPECT_EQ((dir / "t/z") + " 4", member.localPath + " " + std::to_string(member.size));
      member.path = "to\\f";
      member.mode = 04711;
      member.uid = owner;
      member.gid = 5;
      member.userName = "someone";
      member.groupName = "some";
      member.mtime = 7;
    };
    writeFile(dir / "a.tar", written(tar, &event, !stored.empty()));
    EXPECT_EQ((Lines{"w5 d", "w0 nameless", "w0 skipped", "w0 z"}), event.offered);
    if (stored.empty()) continue;
    EXPECT_TRUE(has(readFile(dir / "a.tar"), stored));
    const std::string python =
        "import tarfile; m = tarfile.open('a.tar').getmembers()[1]; "
        "print(m.name, '%o' % m.mode, m.uid, m.gid, m.uname, m.gname, m.mtime)";
    EXPECT_EQ("to/f 4711 " + std::to_string(uid) + " 5 someone some 7\n",
              run({"python3", "-c", python}, "", dir.path()).out);
    EXPECT_EQ((Lines{"renamed/ 0", "to/f 4"}), membersOf(readFile(dir / "a.tar")));
  }
}

// What no format can hold is left out and named; the rest is whole.
TEST(MemberEvents, WhatCannotBeWritten) {
  ScratchDir dir;
  must(dir, "mkdir t && touch t/a t/z && ln -s to t/l");
  TarWith tar("Profile=usual,MemberEvents");
  tar.AddDirRoot(dir / "t");
  ChangingEvent event;
  event.changes["a"] = [](TarMember& member) { member.path = "n\0ul"s; };
  event.changes["l"] = [](TarMember& member) { member.linkPath.clear(); };
  EXPECT_EQ(Lines{"z 0"}, membersOf(written(tar, &event, false)));
  EXPECT_TRUE(tar.get_OnlyLeftOut()) << logOf(tar);
}

TEST(MemberEvents, WhenReading) {
  const std::string archive = directory("d/") + member("f", "1") + member("absolute") + member("leaving") +
                              member("skipped") + member("nameless") + member("deep") + member("last") + kEnd;
  const Lines offered = {"r5 d", "r0 f", "r0 absolute", "r0 leaving", "r0 skipped", "r0 nameless", "r0 deep"};
  for (const bool gzip : {false, true}) {
    for (const std::string limit : {"", ",MaxPathDepth=2"}) {
      SCOPED_TRACE(limit + (gzip ? " gzip" : ""));
      ScratchDir dir;
      writeFile(dir / "a", gzip ? run({"gzip", "-c"}, archive).out : archive);
      TarWith tar("Confine=beneath,MemberEvents" + limit, dir / "out");
      ChangingEvent event;
      event.changes["d"] = [](TarMember& member) { member.path = "D"; };
      event.changes["f"] = [](TarMember& member) { member.path = "D\\f", member.mtime = 7; };
      event.changes["absolute"] = [](TarMember& member) { member.path = "//etc"; };
      event.changes["leaving"] = [](TarMember& member) { member.path = "../leaving"; };
      event.changes["deep"] = [](TarMember& member) { member.path = "x/y/z"; };
      EXPECT_FALSE(gzip ? tar.UntarGz(dir / "a", &event) : tar.Untar(dir / "a", &event) >= 0);
      EXPECT_TRUE(logHas(tar, "Member refused: its path leaves the target.") && !exists(dir / "leaving"));
      event.offered.resize(offered.size());  // what comes behind the limit is not offered
      EXPECT_EQ(offered, event.offered);
      EXPECT_EQ(7, mtimeOf(dir / "out/D/f"));
      EXPECT_EQ(limit.empty() ? "./D/f ./etc ./last ./x/y/z\n" : "./D/f ./etc\n",
                shell(dir, "cd out && find -type f | sort | xargs").out);
    }
  }
}

}  // namespace
}  // namespace morvane::testing
