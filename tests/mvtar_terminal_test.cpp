// mvtar at a terminal: what it does not do there, and its progress.
#ifdef MVTAR

#include "MvtarSupport.h"

namespace morvane::testing {
namespace {

TEST(Mvtar, ArchivesAreNeitherWrittenToATerminalNorReadFromIt) {
  ScratchDir dir;
  must(dir, "mkdir d && touch d/f");
  const std::string noWrite = ": an archive is not written to a terminal",
                    noRead = ": an archive is not read from a terminal";
  const std::pair<const char*, std::string> cases[] = {
      {"-czvf - d", "standard output" + noWrite},
      {"-cf /dev/tty d", "/dev/tty" + noWrite},
      {"--deb -f /dev/tty a.tgz a.tgz", "/dev/tty" + noWrite},
      {"-tf -", "standard input" + noRead},
      {"-tf /dev/tty", "/dev/tty" + noRead},
      {"-t -I cat", "standard input" + noRead}};
  for (const auto& [words, fact] : cases) {
    Running command(dir, std::string("exec mvtar ") + words, true);
    EXPECT_EQ(2, command.end());
    command.err.erase(std::remove(command.err.begin(), command.err.end(), '\r'), command.err.end());
    EXPECT_EQ(said(fact, 2), command.err);
  }
}

TEST(Mvtar, ProgressBar) {
  ScratchDir dir;
  must(dir, "truncate -s 64G huge && mkdir d && head -c 200K /dev/urandom > d/f && mvtar -cf a.tar d");
  const auto atTerminal = [&](const std::string& line) {
    Running command(dir, "exec mvtar > out.txt " + line, true);
    EXPECT_EQ(0, command.end());
    return command.err;
  };
  // Short jobs end before it would be shown.
  for (const char* line : {"-cf b.tar d", "-xf a.tar -C out --progress=auto", "-tf a.tar --progress=never"})
    EXPECT_EQ("", atTerminal(line) + mvtar(dir, line).err) << line;
  for (const char* line : {"-cvf b.tar d --progress", "-xf a.tar -C out --progress=always"}) {
    for (const std::string& err : {atTerminal(line), mvtar(dir, line).err}) {
      EXPECT_TRUE(has(err, "\r[####") && has(err, "] 100%")) << err;
      EXPECT_EQ("\r\033[K", err.substr(err.rfind('\r'))) << "gone at the end";
    }
  }
  // A long one shows it by and by; a message takes its place.
  Running command(dir, "exec mvtar -cf /dev/null huge --options=Store=off", true);
  EXPECT_TRUE(command.says("\r["));
  command.kill(SIGINT);
  EXPECT_EQ(130, command.end());
  EXPECT_TRUE(has(command.err, "\r\033[Kmvtar: /dev/null: interrupted; the archive is incomplete\r\n"))
      << command.err;
}

}  // namespace
}  // namespace morvane::testing
#endif
