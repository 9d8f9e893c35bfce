// Names and numbers of users and groups, each looked up once.
//
// The system's own files are read first: they have nearly every user, and the other ways to users (directory
// services) take far longer. What is in neither is asked for there. One object serves one job on one thread.
#pragma once

#include <map>
#include <optional>
#include <string>

namespace morvane {

class UserDatabase {
 public:
  // Empty when the number has no name; nothing when the name has no number.
  const std::string& userName(unsigned uid);
  const std::string& groupName(unsigned gid);
  std::optional<unsigned> userId(const std::string& name);
  std::optional<unsigned> groupId(const std::string& name);

 private:
  struct Names {
    bool isRead = false;
    std::map<unsigned, std::string> byId;
    std::map<std::string, std::optional<unsigned>> byName;
  };

  void readUsers();
  void readGroups();

  Names m_users, m_groups;
};

}  // namespace morvane
