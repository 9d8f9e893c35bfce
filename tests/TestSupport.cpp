#include "TestSupport.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <sstream>

#include "tar/TarBlock.h"
#include "tar/TarNumber.h"
#include "tar/write/HeaderBlock.h"

namespace morvane::testing {

namespace fs = std::filesystem;

ScratchDir::ScratchDir() {
  std::string pattern = (fs::temp_directory_path() / "morvane-test-XXXXXX").string();
  if (!mkdtemp(&pattern[0])) ADD_FAILURE() << "no scratch directory";
  m_path = pattern;
}

ScratchDir::~ScratchDir() { run({"rm", "-rf", m_path}); }

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
  for (auto it = fs::recursive_directory_iterator(dir, ignored); it != fs::recursive_directory_iterator();
       ++it) {
    std::string& what = tree[it->path().string().substr(dir.size() + 1)];
    if (it->is_symlink()) {
      what = "link " + fs::read_symlink(it->path()).string();
    } else if (it->is_directory()) {
      what = "dir";
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

namespace {

// Feeds and drains the pipes at the same time, so that neither side waits for the other.
void exchange(int in, const std::string& input, int out, std::string& outText, int err,
              std::string& errText) {
  size_t written = 0;
  if (input.empty()) close(std::exchange(in, -1));
  pollfd fds[3] = {{in, POLLOUT, 0}, {out, POLLIN, 0}, {err, POLLIN, 0}};
  std::string* const texts[3] = {nullptr, &outText, &errText};
  while (fds[1].fd >= 0 || fds[2].fd >= 0) {
    if (poll(fds, 3, -1) < 0) break;
    if (fds[0].fd >= 0 && fds[0].revents) {
      // A pipe that is ready takes this much without waiting.
      const ssize_t n =
          write(fds[0].fd, input.data() + written, std::min<size_t>(input.size() - written, 4096));
      if (n > 0) written += static_cast<size_t>(n);
      if (n < 0 || written == input.size()) close(std::exchange(fds[0].fd, -1));
    }
    for (int i = 1; i < 3; ++i) {
      if (fds[i].fd < 0 || !fds[i].revents) continue;
      char buffer[65536];
      const ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) texts[i]->append(buffer, static_cast<size_t>(n));
      if (n <= 0) close(std::exchange(fds[i].fd, -1));
    }
  }
  if (fds[0].fd >= 0) close(fds[0].fd);
}

}  // namespace

CommandResult run(const std::vector<std::string>& command, const std::string& standardInput,
                  const std::string& workingDir) {
  CommandResult result;
  int in[2], out[2], err[2];
  if (pipe2(in, O_CLOEXEC) || pipe2(out, O_CLOEXEC) || pipe2(err, O_CLOEXEC)) return result;
  signal(SIGPIPE, SIG_IGN);
  std::vector<char*> arguments;
  for (const std::string& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    signal(SIGPIPE, SIG_DFL);
    dup2(in[0], 0);
    dup2(out[1], 1);
    dup2(err[1], 2);
    if (!workingDir.empty() && chdir(workingDir.c_str()) != 0) _exit(126);
    execvp(arguments[0], arguments.data());
    _exit(127);
  }
  close(in[0]);
  close(out[1]);
  close(err[1]);
  exchange(in[1], standardInput, out[0], result.out, err[0], result.err);
  int status = 0;
  waitpid(child, &status, 0);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

bool isInstalled(const std::string& program) {
  return run({"sh", "-c", "command -v " + program}).status == 0;
}

std::string logOf(ClsTar& tar) {
  XString text;
  tar.get_LogText(text);
  return text.str();
}

bool logHas(ClsTar& tar, const std::string& text) { return logOf(tar).find(text) != std::string::npos; }

int countInLog(ClsTar& tar, const std::string& text) {
  const std::string log = logOf(tar);
  int count = 0;
  for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + text.size())) ++count;
  return count;
}

ArchiveBuilder& ArchiveBuilder::add(const Member& member) {
  return addPatched(member, [](unsigned char*) {});
}

ArchiveBuilder& ArchiveBuilder::addPatched(const Member& member, void (*patch)(unsigned char* block)) {
  HeaderFields fields;
  fields.name = member.name;
  fields.prefix = member.prefix;
  fields.mode = 0644;
  fields.size = member.statedSize >= 0 ? member.statedSize : static_cast<long long>(member.data.size());
  fields.mtime = member.mtime;
  fields.typeFlag = member.typeFlag;
  fields.magic = member.gnu ? TarMagic::Gnu : TarMagic::Ustar;
  unsigned char block[kBlockSize];
  encodeHeaderBlock(fields, block);
  std::memcpy(block + kLinkNameField.offset, member.linkName.data(), member.linkName.size());
  putChecksum(block);
  patch(block);
  m_bytes.append(reinterpret_cast<const char*>(block), kBlockSize);
  m_bytes.append(member.data);
  m_bytes.append(paddingAfter(static_cast<long long>(member.data.size())), '\0');
  return *this;
}

ArchiveBuilder& ArchiveBuilder::raw(const std::string& bytes) {
  m_bytes += bytes;
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
  return true;
}

bool TricklingSource::readSourcePM(char* buffer, unsigned int n, unsigned int& numRead, ProgressMonitor*,
                                   LogBase&) {
  numRead = static_cast<unsigned>(std::min<size_t>({n, m_most, m_bytes.size() - m_at}));
  std::memcpy(buffer, m_bytes.data() + m_at, numRead);
  m_at += numRead;
  return true;
}

void RecordingEvent::onAbortCheck(bool& abort) { abort = ++questions == abortAtQuestion; }

void RecordingEvent::onProgress(int percent, bool& abort) {
  percents.push_back(percent);
  abort = percent == abortAtPercent;
}

void RecordingEvent::onInfo(const char* name, const char* value) {
  infos.push_back(std::string(name) + "=" + value);
}

void RecordingEvent::onTarEntry(const char* path, long long size, bool isDirectory, bool& skip) {
  entries.push_back(std::string(path) + " " + (isDirectory ? "dir" : std::to_string(size)));
  skip = skipEntry == path;
}

void RecordingEvent::onTarHeader(const TarMemberInfo& member) {
  headers.push_back(std::string(1, member.typeFlag) + " " + member.path + " " + std::to_string(member.size) +
                    " " + std::to_string(member.headerPosition));
}

}  // namespace morvane::testing
