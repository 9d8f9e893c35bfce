// What an archive says of owners, attributes, times and holes, where it makes no sense or is more than any
// system takes.
#ifdef MVTAR
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "ArchiveSupport.h"
#include "FailingSystemCalls.h"
#include "MvtarSupport.h"
#include "TreeSupport.h"
#include "runtime/fs/AccessList.h"
#include "runtime/fs/ConfinedDir.h"
#include "runtime/fs/UserDatabase.h"
#include "tar/format/PaxRecordText.h"
#include "tar/format/SparseMap.h"

namespace morvane::testing {
namespace {

TEST(PaxRecordText, NamesOfAttributesInKeywords) {
  EXPECT_EQ("user.a%3Db%25", escapedKeyword("user.a=b%"));
  for (const char* name : {"user.a=b%", "%3D", "%253D=", "%"})
    EXPECT_EQ(name, unescapedKeyword(escapedKeyword(name)));
}

TEST(AccessList, TextsThatMakeNoSense) {
  UserDatabase users;
  for (const char* text :
       {"user", "user::", "user::rw", "owner::rwx", "mask:x:rwx", "user:nobody-of-that-name:rwx"}) {
    EXPECT_FALSE(accessListBytes(text, false, users)) << text;
  }
  const auto bytes = accessListBytes("other::--x\nuser::rw-#own\n user:12:r--:34567,mask::rwx", true, users);
  ASSERT_TRUE(bytes);
  EXPECT_EQ("user::rw-,user:34567:r--:34567,mask::rwx,other::--x",
            accessListText(*bytes, users).value_or(""));
  EXPECT_FALSE(accessListText(bytes->substr(0, 7), users) || accessListText("\3" + bytes->substr(1), users));
}

TEST(UserDatabase, HostileArchivesNameManyOwners) {
  UserDatabase users;
  EXPECT_EQ("root", users.userName(0));
  EXPECT_EQ(0u, users.groupId("root"));
  for (unsigned i = 0; i < 10000; ++i) {
    EXPECT_FALSE(users.userId("nobody-of-that-name-" + std::to_string(i)));
  }
  const std::string endless(4 << 20, 'x');  // asked for, it would be put on a stack that has no room for it
  EXPECT_FALSE(users.userId(endless) || users.groupId(endless));
  EXPECT_GE(users.remembered(), 1000u);
  EXPECT_LE(users.remembered(), 4096u);
  EXPECT_EQ(0u, users.userId("root")) << "what the file says is not forgotten";
}

TEST(SparseMap, ClaimsThatMakeNoSense) {
  const auto lists = [](const std::string& text, long long realSize) {
    SparseMap map;
    map.begin(realSize);
    return map.addList(text);
  };
  EXPECT_TRUE(lists("", 0) && lists("0,5,10,5", 15) && lists("15,0", 15));
  for (const char* text : {"0,5,4,5", "10,6", "5", "5,", "x,1", "-1,2", "1,-2", "9223372036854775807,1",
                           "99999999999999999999,1", "0,5;6,1"}) {
    EXPECT_FALSE(lists(text, 15)) << text;
  }
  for (const std::string text : {"2\n0\n1\n", "1\n0\nx\n", "\n", "9999999\n", "1\n5\n99\n", "1\n0\n5"}) {
    for (const unsigned piece : {1u, 512u}) {
      SparseMap map;
      map.beginInData(10);
      SparseMapText reader;
      std::string padded = text;
      padded.resize(512);
      SparseMapText::State state = SparseMapText::State::GoesOn;
      unsigned used = 0;
      for (size_t at = 0; at < padded.size() && state == SparseMapText::State::GoesOn; at += used) {
        state = reader.take(padded.data() + at,
                            std::min<unsigned>(piece, static_cast<unsigned>(padded.size() - at)), used, map);
      }
      EXPECT_EQ(SparseMapText::State::Wrong, state) << text;
    }
  }
}

const std::string kTooMuch = "f: attributes are not kept: Argument list too long";

// A name of megabytes is a name that nobody has, wherever it stands.
TEST(Metadata, EndlessNamesOfOwners) {
  ScratchDir dir;
  const std::string endless(5 << 20, 'x');
  for (const auto& [keyword, value] :
       {std::pair("uname", endless), std::pair("gname", endless),
        std::pair("SCHILY.acl.access", "user::rw-,user:" + endless + ":r--")}) {
    writeFile(dir / "a.tar", paxHeader(keyword, value) + member("f", "data") + kEnd);
    const bool isList = keyword[0] == 'S';
    const std::string words = isRoot() ? "Restore=all" : "Restore=all,Restore=mode+xattr";
    expectMvtar(dir, "-xf a.tar --options=MaxExtensionBytes=9000000," + words, isList ? 2 : 0, "",
                isList ? kTooMuch : "");
    const CommandResult compared = mvtar(dir, "-df a.tar --options=MaxExtensionBytes=9000000");
    EXPECT_TRUE(compared.status == 0 || compared.status == 1) << compared.status << compared.err;
  }
}

// What no system takes is not kept in memory either, and members are counted, not what they lack.
TEST(Metadata, MoreThanAnySystemTakes) {
  ScratchDir dir;
  const std::string file = member("f", "data"), large(65537, 'v');
  const struct {
    std::string members, facts;
  } kCases[] = {
      {paxHeader("linkpath", std::string(3 << 20, 'x')) + member("f", "", '1'),
       "f: The path of a hard link's target is too long."},
      {paxHeader("SCHILY.xattr.user.a", large) + file, kTooMuch},
      {paxHeader("SCHILY.xattr.user."s + std::string(251, 'a'), "v") + file, kTooMuch},
      {paxHeader("SCHILY.xattr.user.a\0b"s, "v") + file, kTooMuch},
      {paxHeader("SCHILY.acl.default", std::string(300000, 'x')) + directory("f/"), kTooMuch},
      {member("record",
              paxRecord("SCHILY.xattr.user.a", large) + paxRecord("SCHILY.xattr.user.b", large) +
                  paxRecord("SCHILY.acl.access", "nonsense"),
              'x') +
           file + paxHeader("SCHILY.xattr.user.a", large) + member("g"),
       kTooMuch + "\na.tar: 2 members without attributes"},
  };
  for (const auto& each : kCases) {
    SCOPED_TRACE(each.facts);
    writeFile(dir / "a.tar", each.members + kEnd);
    expectMvtar(dir, "--xattrs -xf a.tar -C out", 2, "", each.facts);
  }
}

// The access list of a FIFO and the labels of a link come back like those of files.
TEST(Metadata, AttributesOfWhatIsNoFile) {
  if (!isRoot()) GTEST_SKIP() << "labels are the superuser's";
  ScratchDir dir;
  UserDatabase users;
  const auto list = accessListBytes("user::rw-,user:1234:r--,group::r--,mask::r--,other::---", true, users);
  must(dir, "mkdir t && mkfifo t/p && ln -s nowhere t/l");
  if (setxattr((dir / "t/p").c_str(), "system.posix_acl_access", list->data(), list->size(), 0) != 0 ||
      lsetxattr((dir / "t/l").c_str(), "trusted.label", "v", 1, 0) != 0)
    GTEST_SKIP() << "not on this file system";
  must(dir, "mvtar --xattrs -cf a.tar t && mvtar -xf a.tar --options=Restore=all -C out");
  EXPECT_EQ(std::vector<std::string>(), differences(factsOf(dir / "t"), factsOf(dir / "out/t")));
}

// A list of owner, group and others is a mode, of which the umask takes its part.
TEST(Metadata, AListThatIsAMode) {
  ScratchDir dir;
  writeFile(dir / "a.tar", paxHeader("SCHILY.acl.access", "user::rw-,group::rw-,other::rw-") +
                               patched(member("f"), kModeField, "0000666") + kEnd);
  must(dir, "umask 027; mvtar --xattrs --no-same-permissions -xf a.tar; stat -c %a f > is");
  EXPECT_EQ("640\n", readFile(dir / "is"));
}

// The mode of a file with a list has the list's mask for its group: alone it would give the group what others
// were given.
TEST(Metadata, AListThatCannotBeSetGivesNobodyMore) {
  ScratchDir dir;
  for (const auto& [group, is] : {std::pair{"r--", "640\n"}, {"---", "600\n"}}) {
    writeFile(dir / "a.tar",
              paxHeader("SCHILY.acl.access",
                        "user::rw-,user:nobody-of-that-name:rwx,group::"s + group + ",mask::rwx,other::---") +
                  patched(member("f"), kModeField, "0000670") + kEnd);
    expectMvtar(dir, "--xattrs -xf a.tar", 2, "", "f: attributes are not kept: Invalid argument");
    must(dir, "stat -c %a f > is");
    EXPECT_EQ(is, readFile(dir / "is"));
  }
}

// A new file's group is its directory's by the set-group-id bit, or by the way the disk is mounted.
TEST(Metadata, GroupsOfDirectoriesSeeNothingEarly) {
  if (!isRoot()) GTEST_SKIP() << "groups are the superuser's to give";
  ScratchDir dir;
  must(dir,
       "mkdir -p out/other/d out/own; chgrp 1234 out/other out/other/d; chmod g+s out/other/d; ln -s other "
       "out/l");
  ConfinedDir target;
  LogNull log;
  ASSERT_TRUE(target.open((dir / "out").c_str(), ConfinedDir::Links::InsideTarget, log));
  for (const char* path : {"f", "own/f", "./own/f"}) EXPECT_TRUE(target.givesOwnGroup(path)) << path;
  for (const char* path : {"other/f", "other/d/f", "l/f", "missing/f"})
    EXPECT_FALSE(target.givesOwnGroup(path)) << path;
  // From the moment of its creation: looked at before every call that follows it.
  writeFile(dir / "a.tar", patched(member("other/d/key", "secret"), kModeField, "0000640") + kEnd);
  const std::string key = dir / "out/other/d/key";
  struct stat is {};
  int seen = 0, calls = 1;
  for (int at = 1; at <= calls; ++at) {
    fs::remove(key);
    const OvertakenCall look(at, [&](int step) {
      if (step > 0 || stat(key.c_str(), &is) != 0 || is.st_gid == 0) return;
      ++seen;
      EXPECT_EQ(0u, is.st_mode & 077u) << "before call " << at;
    });
    TarWith tar("Restore=usual", dir / "out");
    EXPECT_EQ(1, tar.Untar(dir / "a.tar", nullptr)) << logOf(tar);
    calls = MetCall::count();
  }
  EXPECT_GT(seen, 0);
  ASSERT_EQ(0, stat(key.c_str(), &is));
  EXPECT_EQ(0640u, is.st_mode & 07777u);
  EXPECT_EQ(0u, is.st_gid);
}

TEST(Metadata, FullModesAreKeptOnWhatIsNoFile) {
  if (!isRoot()) GTEST_SKIP() << "owners are the superuser's";
  ScratchDir dir;
  must(dir, "mkfifo p && chmod 6755 p && mvtar -cf a.tar p && rm p && mvtar -xpf a.tar && stat -c %a p > is");
  EXPECT_EQ("6755\n", readFile(dir / "is"));
}

// A user's directories have the bit from the one they are in, as with mkdir.
TEST(Metadata, NewDirectoriesHandTheirGroupOn) {
  ScratchDir dir;
  writeFile(dir / "a.tar", patched(directory("d/"), kModeField, "0000755") + member("d/f") + kEnd);
  must(dir,
       "mkdir out && chmod 2777 out && umask 022 && mvtar --no-same-permissions -xf a.tar -C out && "
       "stat -c %a out/d > is");
  EXPECT_EQ("2755\n", readFile(dir / "is"));
}

// A file system may bring a time to the end of its own range.
TEST(Metadata, TimesBeyondTheFileSystem) {
  ScratchDir dir;
  for (const long long time : {-5000000000LL, -1LL, 1LL << 32, 1LL << 40, 1LL << 62}) {
    writeFile(dir / "a.tar", paxHeader("mtime", std::to_string(time)) + member("f", "data") + kEnd);
    const CommandResult result = mvtar(dir, "-xf a.tar");
    const bool isKept = mtimeOf(dir / "f") == time;
    EXPECT_EQ(isKept, result.status == 0) << time << result.err;
    EXPECT_EQ(!isKept, has(result.err, "f: the times are not kept: ")) << time << result.err;
  }
}

TEST(Metadata, SparseRecordsThatMakeNoSense) {
  ScratchDir dir;
  const std::string size = paxRecord("GNU.sparse.size", "9223372036854775807"), offset = "GNU.sparse.offset",
                    length = "GNU.sparse.numbytes";
  for (const std::string& records : {paxRecord(offset, "0") + paxRecord(offset, "2") + paxRecord(length, "4"),
                                     paxRecord(offset, "0") + paxRecord(length, "4") + paxRecord(offset, "9"),
                                     paxRecord(offset, "9223372036854775806") + paxRecord(length, "4")}) {
    writeFile(dir / "a.tar", member("record", size + records, 'x') + member("f", "data") + kEnd);
    expectMvtar(dir, "-xf a.tar", 2, "", "f: The map of a sparse member makes no sense.");
    expectMvtar(dir, "-xOf a.tar", 2, "", "a.tar: The map of a sparse member makes no sense.");
  }
  // Two maps of the same bytes, which say different things.
  must(dir, "truncate -s 1M f; echo data > f; truncate -s 1M f; mvtar -cf gnu.tar f");
  writeFile(dir / "a.tar", member("record",
                                  paxRecord("GNU.sparse.size", "4611686018427387914") +
                                      paxRecord(offset, "4611686018427387904") + paxRecord(length, "4096"),
                                  'x') +
                               readFile(dir / "gnu.tar"));
  expectMvtar(dir, "-xOf a.tar", 2, "", "a.tar: The map of a sparse member makes no sense.");
}

// As large as a file can be: 19 digits.
TEST(Metadata, MapsOfTheLargestFiles) {
  SparseMap map;
  map.beginInData(std::numeric_limits<long long>::max());
  SparseMapText reader;
  std::string text = "1\n9223372036854775800\n7\n";
  text.resize(512);
  unsigned used = 0;
  EXPECT_EQ(SparseMapText::State::Complete, reader.take(text.data(), 512, used, map));
  EXPECT_EQ(7, map.storedSize());
}

// Half of a program is nobody's set-id program, in whatever way it was cut, and is named.
TEST(Metadata, CutFilesGetNothing) {
  if (!isRoot()) GTEST_SKIP() << "owners are the superuser's";
  ScratchDir dir;
  for (const std::string size : {"3000", "200000"}) {
    must(dir, "head -c " + size +
                  " /dev/urandom > f; chown 1234 f; chmod 4755 f; mvtar -cf a.tar f; "
                  "head -c 2048 a.tar > cut.tar; gzip -c cut.tar > cut.gz; gzip -c a.tar > a.gz; head -c "
                  "2000 a.gz > torn.gz");
    for (const std::string form : {"cut.tar", "cut.gz", "torn.gz"}) {
      must(dir, "rm -rf out; mkdir out");
      const CommandResult result = mvtar(dir, "-xf " + form + " -C out");
      EXPECT_EQ("600 0\n", shell(dir, "stat -c '%a %u' out/f").out) << form << size;
      EXPECT_TRUE(result.status == 2 && has(result.err, "mvtar: f: ")) << form << size << result.err;
    }
  }
}

// A run that fails still says what it could not make and keep, and fails for its own reason.
TEST(Metadata, RunsThatFailTellTheRest) {
  ScratchDir dir;
  const std::string lost = paxHeader("SCHILY.acl.access", "nonsense");
  writeFile(dir / "a.tar", ArchiveBuilder().add({"l", "", '1', "late"}).bytes(0) + lost + member("f") + lost +
                               member("g") + std::string(512, 'x'));
  must(dir, "gzip -k a.tar");
  for (const std::string form : {"a.tar", "a.tar.gz"}) {
    expectMvtar(dir, "--xattrs -xf " + form + " -C out", 2, "",
                "f: attributes are not kept: Invalid argument\nl: The target of a hard link is not there.\n" +
                    form + ": 2 members without attributes\n" + form +
                    ": The TAR header's checksum is wrong.");
  }
}

// An id of more than 32 bits is shown as it is and nobody's: cut, it would be the superuser's.
TEST(Metadata, IdsOfMoreThan32Bits) {
  ScratchDir dir;
  const std::string base256 = "\x80\0\0\1\0\0\0\0"s;  // 2^32
  for (const std::string& archive :
       {paxHeader("uid", "4294967296") + member("f"), patched(member("f"), kUidField, base256)}) {
    writeFile(dir / "a.tar", archive + kEnd);
    EXPECT_TRUE(has(mvtar(dir, "-tvf a.tar").out, " 4294967296/0 "));
    EXPECT_TRUE(has(mvtar(dir, "--json -tf a.tar").out, "\"uid\": 4294967296,"));
    expectMvtar(dir, "-xf a.tar --same-owner -C out", 2, "", "f: the owner is not kept: Invalid argument");
    // An event that leaves the 32 bits as they are changes nothing.
    expectMvtar(dir, "-xf a.tar --same-owner --options=MemberEvents -C out", 2, "",
                "f: the owner is not kept: Invalid argument");
    EXPECT_TRUE(has(mvtar(dir, "-df a.tar -C out").out, "f: the owner differs"));
  }
}

TEST(Metadata, DevicesOfSomebodyElse) {
  ScratchDir dir;
  const auto device = [](const char* name, char type) {
    return patched(member(name, "", type), kDevMajorField, "0000001");  // 0,0 may be anybody's
  };
  writeFile(dir / "a.tar", device("c", '3') + device("b", '4') + member("z") + kEnd);
  must(dir, "chmod 777 .; cp " MVTAR " m; gzip -k a.tar");
  const std::string user = isRoot() ? "setpriv --reuid=65534 --regid=65534 --clear-groups " : "";
  for (const std::string form : {"a.tar", "a.tar.gz"}) {
    const CommandResult result = shell(
        dir, user + "./m -xvf " + form + " --options=Restore=special+mode -C " + form.substr(5) + "out");
    expect(result, 2, "z\n",
           "c: the device is not made: Operation not permitted\n" + form + ": 2 devices not made");
  }
}

// As where the superuser of one machine is nobody on another: somebody else's from the moment it is made.
// Directories are opened to others; whatever else there is stays as it was made.
TEST(Metadata, WhatBelongsToSomebodyElse) {
  if (!isRoot()) GTEST_SKIP() << "others' are the superuser's to make";
  ScratchDir dir;
  const struct {
    const char* name;
    std::string members;
    mode_t made, whole;
    const char* notKept;
  } kCases[] = {
      {"d", patched(directory("d/"), kModeField, "0000755") + member("d/f"), 0755, 0755, "mode is"},
      {"p", patched(member("p", "", '6'), kModeField, "0000644"), 0600, 0644, "mode is"},
      {"l", ArchiveBuilder().add({"l", "", '2', "text"}).bytes(0), 0777, 0777, "times are"},
  };
  for (const auto& each : kCases) {
    int named = 0;
    for (int at = 1; at < 20; ++at) {
      SCOPED_TRACE(each.name + std::to_string(at));
      const std::string out = dir / (each.name + std::to_string(at)), path = out + "/" + each.name;
      TarWith tar("Restore=usual+special", out);
      const OvertakenCall overtaken(at, [&](int) { (void)!lchown(path.c_str(), 1234, 1234); });
      const bool ok = untar(tar, each.members + kEnd) >= 0;
      struct stat status {};
      ASSERT_EQ(0, lstat(path.c_str(), &status)) << logOf(tar);
      EXPECT_EQ(ok ? each.whole : each.made, status.st_mode & 07777u);
      EXPECT_EQ(ok, !logHas(tar, "The member's "s + each.notKept + " not kept.")) << logOf(tar);
      EXPECT_TRUE(ok || tar.get_OnlyLeftOut()) << logOf(tar);
      named += ok ? 0 : 1;
    }
    EXPECT_GT(named, 0) << each.name;
  }
}

}  // namespace
}  // namespace morvane::testing
#endif
