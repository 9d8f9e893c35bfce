// Names and numbers of users and groups, each looked up once.
//
// The system's own files are read first: they have nearly every user, and the other ways to users (directory
// services) take far longer. What is in neither is asked for there. One object serves one job on one thread.
#pragma once

#include <map>
#include <optional>
#include <string>

namespace morvane {

// It is not for the user of the process, whom Psdk::getUsername tells, and does not notice what changes in
// the database while it lives. Throws std::bad_alloc.
class UserDatabase {
 public:
  // Empty when the number has no name; nothing when the name has no number. What is returned stays valid as
  // long as the object. A number may have several names and a name appear twice: the first of the file
  // counts. A database that cannot be read knows nobody.
  const std::string& userName(unsigned uid);
  const std::string& groupName(unsigned gid);
  std::optional<unsigned> userId(const std::string& name);
  std::optional<unsigned> groupId(const std::string& name);

 private:
  // What is known so far, unknown ones among it: an empty name, no number.
  struct Names {
    // Whether the system's file was read, with whatever result.
    bool isRead = false;
    std::map<unsigned, std::string> byId;
    std::map<std::string, std::optional<unsigned>> byName;
  };

  // Once, before the first question of their kind.
  void readUsers();
  void readGroups();

  // Numbers may have the same name in both.
  Names m_users, m_groups;
};

}  // namespace morvane
