#include "TreeSupport.h"

#include <sys/stat.h>
#include <sys/xattr.h>

#include <tuple>

#include "runtime/fs/AccessList.h"
#include "runtime/fs/UserDatabase.h"

namespace morvane::testing {

void makeTree(const ScratchDir& dir) {
  must(dir,
       R"(mkdir -p t/d/closed t/e && cd t && echo key > key && chmod 600 key && printf '#!/bin/sh\n' > run &&
    chmod 755 run && ln key d/second && ln -s ../key d/link && ln -s /nowhere/at/all abs && ln -s dangling e/l &&
    ln -s $(printf 'x%.0s' $(seq 150)) long && mkfifo -m 640 pipe && echo in > d/closed/f && chmod 555 d/closed &&
    : > empty && chmod 000 empty && truncate -s 3M hole && printf end >> hole && truncate -s 1M nothing &&
    for i in $(seq 0 2 60); do printf A | dd of=many bs=8192 seek=$i conv=notrunc status=none; done &&
    truncate -s 700000 many && touch -d '2001-02-03 04:05:06.123456789' key d/closed run many &&
    touch -h -d '1999-01-01 01:01:01.5' abs && touch -d '2005-05-05 05:05:05.000000001' d e)");
  if (!isRoot()) return;
  must(dir,
       "cd t && mknod null c 1 3 && chmod 666 null && chown 1234:4321 run && chmod 4755 run && "
       "chown -h 77:88 abs && chmod 1777 e && touch -d '2006-06-06 06:06:06' run e");
}

bool addAttributes(const ScratchDir& dir) {
  const std::string key = dir / "t/key", d = dir / "t/d", evil = "a\n11 path=x\n\0="s;
  UserDatabase users;
  const auto list = accessListBytes("user::rw-,user:1234:r--,group::r--,mask::r--,other::---", true, users);
  const auto inherited =
      accessListBytes("user::rwx,user:1234:r-x,group::r-x,mask::rwx,other::---", true, users);
  return setxattr(key.c_str(), "user.evil", evil.data(), evil.size(), 0) == 0 &&
         setxattr(d.c_str(), "user.big", std::string(3000, 'v').data(), 3000, 0) == 0 &&
         setxattr(key.c_str(), "system.posix_acl_access", list->data(), list->size(), 0) == 0 &&
         setxattr(d.c_str(), "system.posix_acl_default", inherited->data(), inherited->size(), 0) == 0;
}

bool Fact::operator==(const Fact& other) const {
  const auto all = [](const Fact& fact) {
    return std::tie(fact.mode, fact.uid, fact.gid, fact.device, fact.seconds, fact.nanoseconds, fact.contents,
                    fact.attributes, fact.firstName);
  };
  return all(*this) == all(other);
}

namespace {

std::string attributesOf(const std::string& path) {
  std::string names(64 * 1024, '\0'), text;
  const ssize_t length = llistxattr(path.c_str(), &names[0], names.size());
  std::vector<std::string> sorted;
  for (size_t at = 0; length > 0 && at < static_cast<size_t>(length); at += sorted.back().size() + 1)
    sorted.emplace_back(names.c_str() + at);
  std::sort(sorted.begin(), sorted.end());
  for (const std::string& name : sorted) {
    std::string value(64 * 1024, '\0');
    value.resize(static_cast<size_t>(
        std::max<ssize_t>(0, lgetxattr(path.c_str(), name.c_str(), &value[0], value.size()))));
    text += name + "=" + value + "\n";
  }
  return text;
}

std::string contentsOf(const fs::path& path, mode_t mode) {
  if (S_ISLNK(mode)) return fs::read_symlink(path).string();
  if (!S_ISREG(mode)) return "";
  const std::string bytes = readFile(path.string());
  return bytes.size() <= 200
             ? bytes
             : std::to_string(bytes.size()) + " " + std::to_string(std::hash<std::string>()(bytes));
}

}  // namespace

Facts factsOf(const std::string& dir) {
  Facts facts;
  std::map<std::pair<dev_t, ino_t>, std::string> names;
  std::vector<std::string> paths = {"."};
  std::error_code ignored;
  const auto options = fs::directory_options::skip_permission_denied;
  for (const auto& entry : fs::recursive_directory_iterator(dir, options, ignored))
    paths.push_back(entry.path().string().substr(dir.size() + 1));
  std::sort(paths.begin(), paths.end());
  for (const std::string& path : paths) {
    struct stat status;
    const std::string whole = dir + "/" + path;
    if (lstat(whole.c_str(), &status) != 0) continue;
    Fact& fact = facts[path];
    fact.mode = status.st_mode;
    fact.uid = status.st_uid;
    fact.gid = status.st_gid;
    fact.device = S_ISCHR(status.st_mode) || S_ISBLK(status.st_mode) ? status.st_rdev : 0;
    fact.seconds = status.st_mtim.tv_sec;
    fact.nanoseconds = status.st_mtim.tv_nsec;
    fact.contents = contentsOf(whole, status.st_mode);
    fact.attributes = attributesOf(whole);
    fact.firstName = names.emplace(std::pair(status.st_dev, status.st_ino), path).first->second;
  }
  return facts;
}

std::vector<std::string> differences(const Facts& one, const Facts& other) {
  std::vector<std::string> paths;
  for (const auto& [path, fact] : one) {
    const auto found = other.find(path);
    if (found == other.end() || !(found->second == fact)) paths.push_back(path);
  }
  for (const auto& each : other) {
    if (one.count(each.first) == 0) paths.push_back(each.first);
  }
  return paths;
}

}  // namespace morvane::testing
