// Names and numbers of users and groups, each looked up once.
//
// The system's own files are read first: they have nearly every user, and the other ways to users (directory
// services) take far longer. What is in neither is asked for there. One object serves one job on one thread.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>

#include "runtime/base/Export.h"

namespace morvane {

// It is not for the user of the process, whom Psdk::getUsername tells, and does not notice what changes in
// the database while it lives. Throws std::bad_alloc.
class MORVANE_API UserDatabase {
 public:
  // Empty when the number has no name; nothing when the name has no number. A number may have several names
  // and a name appear twice: the first of the file counts. A database that cannot be read knows nobody, and
  // nobody has a name over 256 bytes.
  std::string userName(unsigned uid);
  std::string groupName(unsigned gid);
  std::optional<unsigned> userId(const std::string& name);
  std::optional<unsigned> groupId(const std::string& name);

  // How many answers of directory services are remembered of each kind, at most: a hostile archive names as
  // many owners as it has members. For tests.
  size_t remembered() const;

 private:
  // One direction of one file: what the file says, all of it, and what was asked for elsewhere, also where
  // nobody knew it, because an archive of a foreign system asks for the same unknown user with each member.
  template <class Key, class Answer>
  struct Known {
    std::map<Key, Answer> fromFile, asked;

    // `ask()` is the other way.
    template <class Ask>
    // The answer from one of the maps, else that of `ask()`, which is the other way and may take long. It is
    // remembered, an empty one too.
    Answer find(const Key& key, Ask ask);
  };
  struct Names {
    // Whether the system's file was read, with whatever result.
    bool isRead = false;
    // An empty name, or no number: it was asked for, and nobody knew it.
    Known<unsigned, std::string> byId;
    Known<std::string, std::optional<unsigned>> byName;
  };

  // Each reads the file before its first question. A file that cannot be read has no entries, and everything
  // is asked for in the other way.
  Names& users();
  Names& groups();

  // Numbers may have the same name in both.
  Names m_users, m_groups;
};

}  // namespace morvane
