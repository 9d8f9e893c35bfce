// Names and numbers, read from the system's own files at once and asked for one by one elsewhere. What has no
// answer is remembered as well: an archive of a foreign system asks for the same unknown user with each
// member. The maps keep their elements in place, so that a name that was returned stays valid as long as the
// object.
#include "runtime/fs/UserDatabase.h"

#include <grp.h>
#include <pwd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <vector>

namespace morvane {

namespace {

// No real entry needs as much; a database that asks for more and more memory is given up.
constexpr size_t kLargestEntry = 1 << 20;

// "e" in the modes below keeps the descriptor from programs that another thread starts.
using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

// Calls `look(buffer)`, an errno or 0, with a buffer that grows for as long as it is too small.
template <class Look>
void withBuffer(Look look) {
  for (std::vector<char> buffer(1024); buffer.size() <= kLargestEntry; buffer.resize(buffer.size() * 2)) {
    int error = look(buffer);
    // A signal is no answer.
    while (error == EINTR) error = look(buffer);
    if (error != ERANGE) return;
  }
}

}  // namespace

// The first entry of a number and of a name counts, as everywhere. Entries too long for the buffer are left
// to the other way.
void UserDatabase::readUsers() {
  m_users.isRead = true;
  const File file(std::fopen("/etc/passwd", "re"), std::fclose);
  if (!file) return;
  // More than any entry of people's own files has.
  std::vector<char> buffer(64 * 1024);
  passwd entry;
  for (passwd* found = nullptr;
       fgetpwent_r(file.get(), &entry, buffer.data(), buffer.size(), &found) == 0 && found;) {
    m_users.byId.emplace(entry.pw_uid, entry.pw_name);
    m_users.byName.emplace(entry.pw_name, entry.pw_uid);
  }
}

// A database that cannot be opened leaves everything to the other way.
void UserDatabase::readGroups() {
  m_groups.isRead = true;
  const File file(std::fopen("/etc/group", "re"), std::fclose);
  if (!file) return;
  std::vector<char> buffer(1 << 20);  // the members of a group are listed with it
  group entry;
  for (group* found = nullptr;
       fgetgrent_r(file.get(), &entry, buffer.data(), buffer.size(), &found) == 0 && found;) {
    m_groups.byId.emplace(entry.gr_gid, entry.gr_name);
    m_groups.byName.emplace(entry.gr_name, entry.gr_gid);
  }
}

// A database that fails is taken for one that does not know the user: the number is in the archive in any
// case, and an archive without names is better than none.
const std::string& UserDatabase::userName(unsigned uid) {
  if (!m_users.isRead) readUsers();
  const auto known = m_users.byId.find(uid);
  if (known != m_users.byId.end()) return known->second;
  std::string& name = m_users.byId[uid];
  withBuffer([&](std::vector<char>& buffer) {
    passwd entry;
    passwd* found = nullptr;
    const int error = getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found);
    if (found) name = found->pw_name;
    return error;
  });
  return name;
}

// The same for groups, which have files and calls of their own.
const std::string& UserDatabase::groupName(unsigned gid) {
  if (!m_groups.isRead) readGroups();
  const auto known = m_groups.byId.find(gid);
  if (known != m_groups.byId.end()) return known->second;
  std::string& name = m_groups.byId[gid];
  withBuffer([&](std::vector<char>& buffer) {
    group entry;
    group* found = nullptr;
    const int error = getgrgid_r(gid, &entry, buffer.data(), buffer.size(), &found);
    if (found) name = found->gr_name;
    return error;
  });
  return name;
}

// A name that is in the file is never asked for elsewhere, as nsswitch.conf has it nearly everywhere ("files"
// first).
std::optional<unsigned> UserDatabase::userId(const std::string& name) {
  if (!m_users.isRead) readUsers();
  const auto known = m_users.byName.find(name);
  if (known != m_users.byName.end()) return known->second;
  // Made before it is asked for, so that an unknown name is remembered as well.
  std::optional<unsigned>& id = m_users.byName[name];
  withBuffer([&](std::vector<char>& buffer) {
    passwd entry;
    passwd* found = nullptr;
    const int error = getpwnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found);
    if (found) id = found->pw_uid;
    return error;
  });
  return id;
}

std::optional<unsigned> UserDatabase::groupId(const std::string& name) {
  if (!m_groups.isRead) readGroups();
  const auto known = m_groups.byName.find(name);
  if (known != m_groups.byName.end()) return known->second;
  std::optional<unsigned>& id = m_groups.byName[name];
  withBuffer([&](std::vector<char>& buffer) {
    group entry;
    group* found = nullptr;
    const int error = getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found);
    if (found) id = found->gr_gid;
    return error;
  });
  return id;
}

}  // namespace morvane
