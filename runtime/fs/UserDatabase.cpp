// Names and numbers, read from the system's own files at once and asked for one by one elsewhere. Users and
// groups have files, entries and calls of their own, of the same shape: what is done with them stands here
// once, and below only which they are.
#include "runtime/fs/UserDatabase.h"

#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <utility>
#include <vector>

namespace morvane {

namespace {

// No real entry needs as much; a database that asks for more and more memory is given up.
constexpr size_t kLargestEntry = 1 << 20;

// A few thousand are more than an honest archive of unknown owners has. Then all of them are forgotten, which
// costs a question for each that comes again.
constexpr size_t kMostRemembered = 4096;
// Longer than any that the system lets anybody have (LOGIN_NAME_MAX). Nobody is asked for a longer one,
// because directory services put names on the stack: one of megabytes would end the process.
constexpr size_t kLongestName = 256;

// "e" in the modes below keeps the descriptor from programs that another thread starts.
using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

// Every entry of a file goes to `take`; a file that cannot be opened has none. `next` is the system's
// fget...ent_r; entries too long for the buffer end it, and are left to the other way.
template <class Entry, class Next, class Take>
void readFile(const char* path, size_t bufferSize, Next next, Take take) {
  const File file(std::fopen(path, "re"), std::fclose);
  if (!file) return;
  std::vector<char> buffer(bufferSize);
  Entry entry;
  for (Entry* found = nullptr; next(file.get(), &entry, buffer.data(), buffer.size(), &found) == 0 && found;)
    take(entry);
}

// The entry that `call(entry, buffer, size, found)` finds, an errno or 0 its result, goes to `take`; nothing
// does when there is none. The buffer grows for as long as it is too small. A database that fails is taken
// for one that does not know the user: the number is in the archive in any case, and an archive without names
// is better than none.
template <class Entry, class Call, class Take>
void askSystem(Call call, Take take) {
  for (std::vector<char> buffer(1024); buffer.size() <= kLargestEntry; buffer.resize(buffer.size() * 2)) {
    Entry entry;
    Entry* found = nullptr;
    int error = EINTR;
    // A signal is no answer.
    while (error == EINTR) error = call(&entry, buffer.data(), buffer.size(), &found);
    if (found) take(entry);
    if (error != ERANGE) return;
  }
}

}  // namespace

template <class Key, class Answer>
template <class Ask>
Answer UserDatabase::Known<Key, Answer>::find(const Key& key, Ask ask) {
  // What is in the file is never asked for elsewhere, as nsswitch.conf has it nearly everywhere ("files"
  // first).
  for (const auto* const map : {&fromFile, &asked}) {
    if (const auto known = map->find(key); known != map->end()) return known->second;
  }
  Answer answer = ask();
  if (asked.size() >= kMostRemembered) asked.clear();
  // An answer that nobody had is kept, too: it is the one that takes longest.
  asked.emplace(key, answer);
  return answer;
}

// The limit is for each of the four, so the fullest one tells whether it holds.
size_t UserDatabase::remembered() const {
  return std::max({m_users.byId.asked.size(), m_users.byName.asked.size(), m_groups.byId.asked.size(),
                   m_groups.byName.asked.size()});
}

// The first entry of a number and of a name counts, as everywhere.
UserDatabase::Names& UserDatabase::users() {
  if (std::exchange(m_users.isRead, true)) return m_users;
  // More than any entry of people's own files has.
  readFile<passwd>("/etc/passwd", 64 * 1024, fgetpwent_r, [this](const passwd& entry) {
    m_users.byId.fromFile.emplace(entry.pw_uid, entry.pw_name);
    m_users.byName.fromFile.emplace(entry.pw_name, entry.pw_uid);
  });
  return m_users;
}

UserDatabase::Names& UserDatabase::groups() {
  if (std::exchange(m_groups.isRead, true)) return m_groups;
  // A group's entry lists its members, and so may be long.
  readFile<group>("/etc/group", 1 << 20, fgetgrent_r, [this](const group& entry) {
    m_groups.byId.fromFile.emplace(entry.gr_gid, entry.gr_name);
    m_groups.byName.fromFile.emplace(entry.gr_name, entry.gr_gid);
  });
  return m_groups;
}

std::string UserDatabase::userName(unsigned uid) {
  return users().byId.find(uid, [uid] {
    std::string name;
    askSystem<passwd>([uid](auto... rest) { return getpwuid_r(uid, rest...); },
                      [&](const passwd& entry) { name = entry.pw_name; });
    return name;
  });
}

std::string UserDatabase::groupName(unsigned gid) {
  return groups().byId.find(gid, [gid] {
    std::string name;
    askSystem<group>([gid](auto... rest) { return getgrgid_r(gid, rest...); },
                     [&](const group& entry) { name = entry.gr_name; });
    return name;
  });
}

std::optional<unsigned> UserDatabase::userId(const std::string& name) {
  if (name.size() > kLongestName) return std::nullopt;
  return users().byName.find(name, [&name] {
    std::optional<unsigned> id;
    askSystem<passwd>([&](auto... rest) { return getpwnam_r(name.c_str(), rest...); },
                      [&](const passwd& entry) { id = entry.pw_uid; });
    return id;
  });
}

std::optional<unsigned> UserDatabase::groupId(const std::string& name) {
  if (name.size() > kLongestName) return std::nullopt;
  return groups().byName.find(name, [&name] {
    std::optional<unsigned> id;
    askSystem<group>([&](auto... rest) { return getgrnam_r(name.c_str(), rest...); },
                     [&](const group& entry) { id = entry.gr_gid; });
    return id;
  });
}

}  // namespace morvane
