#include "TestSupport.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <fstream>

#include "tar/format/HeaderBlock.h"
#include "tar/format/Member.h"
#include "tar/format/TarBlock.h"
#include "tar/format/TarNumber.h"

namespace morvane::testing {

ScratchDir::ScratchDir() {
  std::string pattern = (fs::temp_directory_path() / "morvane-test-XXXXXX").string();
  if (!mkdtemp(&pattern[0])) ADD_FAILURE() << "no scratch directory";
  m_path = pattern;
}

// What a test has closed has to be opened first, but for root.
ScratchDir::~ScratchDir() {
  if (geteuid() != 0) run({"chmod", "-Rf", "u+rwx", m_path});
  run({"rm", "-rf", m_path});
}

void writeFile(const std::string& path, const std::string& contents) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << contents;
}

std::string readFile(const std::string& path) {
  std::ostringstream contents;
  contents << std::ifstream(path, std::ios::binary).rdbuf();
  return contents.str();
}

bool exists(const std::string& path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0;
}

void setMtime(const std::string& path, long long seconds) {
  const timespec times[2] = {{seconds, 0}, {seconds, 0}};
  ASSERT_EQ(0, utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW)) << path;
}

long long mtimeOf(const std::string& path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0 ? status.st_mtim.tv_sec : -1;
}

std::map<std::string, std::string> treeOf(const std::string& dir) {
  constexpr size_t kShown = 64;
  std::map<std::string, std::string> tree;
  std::error_code ignored;
  const auto options = fs::directory_options::skip_permission_denied;
  for (auto it = fs::recursive_directory_iterator(dir, options, ignored);
       it != fs::recursive_directory_iterator(); ++it) {
    std::string& what = tree[it->path().string().substr(dir.size() + 1)];
    if (it->is_symlink()) {
      what = "link " + fs::read_symlink(it->path()).string();
    } else if (it->is_directory()) {
      what = "dir";
    } else if (!it->is_regular_file()) {
      what = "neither";  // reading a FIFO would wait
    } else {
      const std::string contents = readFile(it->path().string());
      what = "file " + (contents.size() <= kShown ? contents
                                                  : std::to_string(contents.size()) + " " +
                                                        std::to_string(std::hash<std::string>()(contents)));
    }
  }
  return tree;
}

std::string noise(size_t n, unsigned seed) {
  std::mt19937 random(seed);
  std::string bytes(n, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random() & 0xFF);
  return bytes;
}

CommandResult run(const std::vector<std::string>& command, const std::string& standardInput,
                  const std::string& workingDir) {
  // Input comes through a pipe, as most programs get it; what is written goes into files, which never wait.
  int in[2];
  const int outputs[] = {memfd_create("out", MFD_CLOEXEC), memfd_create("err", MFD_CLOEXEC)};
  EXPECT_TRUE(pipe2(in, O_CLOEXEC) == 0 && outputs[0] >= 0 && outputs[1] >= 0);
  signal(SIGPIPE, SIG_IGN);
  std::vector<char*> arguments;
  for (const std::string& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    signal(SIGPIPE, SIG_DFL);
    dup2(in[0], 0);
    dup2(outputs[0], 1);
    dup2(outputs[1], 2);
    if (!workingDir.empty() && chdir(workingDir.c_str()) != 0) _exit(126);
    execvp(arguments[0], arguments.data());
    _exit(127);
  }
  close(in[0]);
  size_t written = 0;
  for (ssize_t n = 1; n > 0 && written < standardInput.size(); written += static_cast<size_t>(n)) {
    n = write(in[1], standardInput.data() + written, standardInput.size() - written);
    if (n < 0) break;  // it needs no more
  }
  close(in[1]);
  int status = 0;
  waitpid(child, &status, 0);
  CommandResult result;
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  for (const int i : {0, 1}) {
    (i == 0 ? result.out : result.err) = readFile("/proc/self/fd/" + std::to_string(outputs[i]));
    close(outputs[i]);
  }
  return result;
}

std::string withMvtar(const std::string& script) {
#ifdef MVTAR
  return "PATH=$(dirname " MVTAR "):$PATH; " + script;
#else
  return script;
#endif
}

CommandResult shell(const ScratchDir& dir, const std::string& script) {
  return run({"env", "TZ=UTC", "bash", "-o", "pipefail", "-c", withMvtar(script)}, "", dir.path());
}

void must(const ScratchDir& dir, const std::string& script) {
  const CommandResult result = shell(dir, script);
  ASSERT_EQ(0, result.status) << script << "\n" << result.err;
}

std::string logOf(ClsTar& tar) {
  XString text;
  tar.get_LogText(text);
  return text.str();
}

int countInLog(ClsTar& tar, const std::string& text) {
  const std::string log = logOf(tar);
  int count = 0;
  for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + text.size())) ++count;
  return count;
}

ArchiveBuilder& ArchiveBuilder::add(const Member& member) {
  morvane::Member fields;
  fields.mode = 0644;
  fields.size = member.statedSize >= 0 ? member.statedSize : static_cast<long long>(member.data.size());
  fields.mtime.seconds = member.mtime;
  fields.typeFlag = member.typeFlag;
  unsigned char block[kBlockSize];
  encodeHeaderBlock(fields, {member.name, member.prefix}, member.gnu ? TarMagic::Gnu : TarMagic::Ustar,
                    block);
  std::memcpy(block + kLinkNameField.offset, member.linkName.data(), member.linkName.size());
  putChecksum(block);
  m_bytes.append(reinterpret_cast<const char*>(block), kBlockSize);
  m_bytes.append(member.data);
  m_bytes.append(paddingAfter(static_cast<long long>(member.data.size())), '\0');
  return *this;
}

std::string ArchiveBuilder::bytes(int endBlocks) const {
  return m_bytes + std::string(static_cast<size_t>(endBlocks) * kBlockSize, '\0');
}

std::string paxRecord(const std::string& keyword, const std::string& value) {
  const size_t rest = keyword.size() + value.size() + 3;
  size_t length = rest;
  for (size_t before = 0; before != length;) {
    before = length;
    length = rest + std::to_string(length).size();
  }
  return std::to_string(length) + " " + keyword + "=" + value + "\n";
}

bool LimitedOutput::_writeBytes(const char* data, unsigned int n, _mvIoParams&, LogBase& log) {
  if (bytes.size() + n > m_limit) {
    log.LogError("The output is full.");
    return false;
  }
  bytes.append(data, n);
  largest = std::max(largest, n);
  return true;
}

bool TricklingSource::readSourcePM(char* buffer, unsigned int n, unsigned int& numRead, ProgressMonitor*,
                                   LogBase&) {
  numRead = static_cast<unsigned>(std::min<size_t>({n, m_most, m_bytes.size() - m_at}));
  std::memcpy(buffer, m_bytes.data() + m_at, numRead);
  m_at += numRead;
  return true;
}

}  // namespace morvane::testing
