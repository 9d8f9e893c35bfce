// Appending: what other tars read of it, what is refused, and that whatever happens the old members are
// there.
#ifdef MVTAR

#include "ArchiveSupport.h"
#include "MvtarSupport.h"

namespace morvane::testing {
namespace {

// A tree with what members can be, and one to be put behind it.
void makeTrees(const ScratchDir& dir) {
  must(
      dir,
      R"(mkdir -p d/sub n && seq 9999 > d/f && ln d/f d/hard && ln -s f d/link && mkfifo d/p && echo g > d/sub/g &&
               truncate -s 1M d/holes && echo x >> d/holes && head -c 70000 /dev/urandom > n/big && ln n/big n/same &&
               echo s > n/small && touch -d @1234567890 d/* n/*)");
}

TEST(Append, BehindWhatOtherTarsWrote) {
  ScratchDir dir;
  makeTrees(dir);
  const std::string listed = shell(dir, "tar --sort=name -c d n | tar -t").out;
  for (const std::string format : {"gnu", "ustar", "pax"}) {
    // Records of the usual size, of one block, and an archive that ends with far more zeros than it needs.
    for (const std::string make : {"", "-b1 ", "-b2000 "}) {
      SCOPED_TRACE(format + make);
      must(dir, "rm -rf out && mkdir out && tar --sort=name " + make + (format == "ustar" ? "" : "-S ") +
                    "--format=" + format + " -cf a.tar d");
      const std::string before = readFile(dir / "a.tar");
      expectMvtar(dir, "-rf a.tar --format=" + format + " n", 0);
      const std::string behind = readFile(dir / "a.tar");
      // Everything up to the end mark is as it was.
      const size_t end = before.find_last_not_of('\0') / 512 * 512;
      EXPECT_TRUE(before.substr(0, end) == behind.substr(0, end));
      EXPECT_EQ(0u, behind.size() % 512);
      for (const char* other : {"tar", "bsdtar", "mvtar"})
        EXPECT_EQ(listed, shell(dir, other + " -tf a.tar"s).out) << other;
      must(dir,
           "tar -C out -xf a.tar && diff -r --exclude=p d out/d && diff -r n out/n && [ n/big -ef n/same -a "
           "out/d/f -ef out/d/hard ]");
      must(dir, "mvtar -df a.tar");
    }
  }
}

TEST(Append, TheComponentByItself) {
  ScratchDir dir;
  makeTrees(dir);
  ClsTar tar;
  DataBuffer bytes;
  bytes.append("abc", 3);
  for (const char* name : {"one", "two"}) {
    tar.ClearDirRootsAndFiles();
    ASSERT_TRUE(tar.AddBytes(name, bytes));
    EXPECT_TRUE(tar.AppendTar((dir / "a.tar").c_str(), nullptr)) << logOf(tar);
  }
  EXPECT_EQ("one\ntwo\n", shell(dir, "tar -tf a.tar").out);
  EXPECT_EQ(4 * 512 + 1024u, readFile(dir / "a.tar").size());
  // Nothing to be appended, and an event that aborts.
  RecordingEvent event;
  event.abortAtQuestion = 1;
  const std::string before = readFile(dir / "a.tar");
  ASSERT_TRUE(tar.AddFile((dir / "n/big").c_str()));
  EXPECT_FALSE(tar.AppendTar((dir / "a.tar").c_str(), &event));
  EXPECT_TRUE(before == readFile(dir / "a.tar"));
}

TEST(Append, WhatIsNoWholePlainArchiveIsRefused) {
  ScratchDir dir;
  makeTrees(dir);
  must(
      dir,
      R"(tar -b1 -cf a d && gzip -k a && bzip2 -k a && zstd -q a && cp a junk && echo junk >> junk && head -c -1024 a > noend &&
               head -c -512 a > halfend && head -c 3000 a > cut && cp a bad && printf X | dd of=bad bs=1 seek=100 conv=notrunc status=none &&
               seq 999 > text && mkfifo fifo && mkdir dir && ln -s none dangling && cp a ro && printf 'PK\3\4' > zip)");
  writeFile(dir / "record", member("x") + member("././@LongLink", "evil", 'L') + std::string(1024, '\0'));
  const std::pair<const char*, const char*> cases[] = {
      {"record", "The archive ends behind a record whose member is missing."},
      {"a.gz", "A compressed archive cannot be appended to."},
      {"a.bz2", "A compressed archive cannot be appended to."},
      {"a.zst", "A compressed archive cannot be appended to."},
      {"junk", "There is something behind the end of the archive."},
      {"noend", "The archive ends without an end-of-archive mark."},
      {"cut", nullptr},
      {"bad", nullptr},
      {"text", nullptr},
      {"zip", nullptr},
      {"fifo", "Only a regular file can be appended to."},
      {"/dev/null", "Only a regular file can be appended to."},
      {"dir", "Is a directory"},
      {"none/a", "No such file or directory"}};
  for (const auto& [name, reason] : cases) {
    const std::string path = *name == '/' ? name : dir / name;
    const std::string before = fs::is_regular_file(path) ? readFile(path) : "";
    for (const char* mode : {"-rf ", "-uf "}) {
      const CommandResult result = mvtar(dir, mode + std::string(name) + " n");
      EXPECT_EQ(2, result.status) << name;
      if (reason && mode[1] == 'r') {
        EXPECT_EQ(said(name + ": "s + reason, 2), result.err);
      }
      EXPECT_TRUE(has(result.err, std::string("mvtar: ") + name)) << result.err;
    }
    EXPECT_TRUE(before == (fs::is_regular_file(path) ? readFile(path) : "")) << name;
  }
  // An archive of nothing, of zeros alone one that is a link, one with half an end mark; into itself it is
  // not put.
  must(dir, ": > nothing && head -c 10240 /dev/zero > zeros && ln -s nothing link");
  for (const char* name : {"nothing", "zeros", "link", "halfend"}) {
    expectMvtar(dir, "-rf "s + name + " n/small " + name + " nothing", 0);
    EXPECT_TRUE(has(shell(dir, "tar -tf "s + name).out, "n/small\n"));
  }
  EXPECT_TRUE(fs::is_symlink(dir / "link"));
  must(dir, ": > nothing.tgz");
  expectMvtar(dir, "-rf nothing.tgz n", 64, "",
              "'nothing.tgz' promises a compression; a compressed archive cannot be appended to");
}

// At each call that writes the disk is full, from there on or once, or the process is killed.
TEST(Append, WhateverHappensTheOldMembersAreThere) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizers stand in front of these calls";
#endif
  ScratchDir dir;
  makeTrees(dir);
  must(dir, "tar -cf old d && tar -tf old > names");
  const std::string old = readFile(dir / "old"), names = readFile(dir / "names");
  for (const std::string how : {"FULL_WRITE", "FULL_ONCE", "KILL_WRITE"}) {
    int status = -1, at = 0;
    while (status != 0 && at < 200) {
      SCOPED_TRACE(how + "=" + std::to_string(++at));
      must(dir, "cp old a");
      status =
          shell(dir, how + "=" + std::to_string(at) + " LD_PRELOAD=" FAILING_CALLS " mvtar -rf a n n/big n d")
              .status;
      ASSERT_EQ(status == 0 ? 0 : how == "KILL_WRITE" ? 128 + SIGKILL : 2, status);
      const CommandResult listing = shell(dir, "tar -tf a");
      EXPECT_EQ(std::pair(0, names), std::pair(listing.status, listing.out.substr(0, names.size())));
      EXPECT_EQ(0, mvtar(dir, "--verify -f a").status);
      EXPECT_TRUE(status != 2 || readFile(dir / "a") == old);
    }
    EXPECT_TRUE(at > 5 && status == 0) << at;
  }
  // A limit on the size of files, at every block.
  const CommandResult limited =
      shell(dir, R"(for k in $(seq 1 7 400); do cp old a; (ulimit -f $k; exec mvtar -rf a n d 2>/dev/null)
      status=$?; [ $status = 0 ] && exit 0; [ $status = 2 ] && cmp a old || echo $k; done)");
  EXPECT_EQ(std::pair(0, std::string()), std::pair(limited.status, limited.out));
  // One that ends within the zeros of a record, which the system then writes over in part.
  const CommandResult within = shell(
      dir,
      R"(tar -cf old n/small; for k in $(seq 1 12); do cp old a; (ulimit -f $k; mvtar -rf a n d 2>/dev/null)
      cmp a old || echo $k; done)");
  EXPECT_EQ(std::pair(0, std::string()), std::pair(within.status, within.out));
}

TEST(Append, UpdatesGoByTheNewestCopy) {
  ScratchDir dir;
  must(dir,
       "echo 1 > f && echo 1 > g && touch -d @1000 f && touch -d @3000.5 g && tar -cf a.tar f g && touch -d "
       "@500 f && tar -rf a.tar f");
  const auto update = [&](const std::string& words) {
    expectMvtar(dir, "-uf a.tar f g" + words, 0);
    return static_cast<int>(split(shell(dir, "tar -tf a.tar").out, '\n').size()) - 1;
  };
  EXPECT_EQ(3, update(""));  // g's fraction is not in the archive
  must(dir, "touch -d @999 f");
  EXPECT_EQ(3, update(""));
  must(dir, "touch -d @1001 f");
  EXPECT_EQ(4, update(""));
  EXPECT_EQ(4, update(""));
  for (int again = 0; again < 2; ++again) EXPECT_EQ(6, update(" --transform=s/^/x/"));
}

}  // namespace
}  // namespace morvane::testing
#endif
