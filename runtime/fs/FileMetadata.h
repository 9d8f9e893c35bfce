// What the system keeps of a file beside its data: owner, mode, times, attributes. Read and set through a
// descriptor, so that nobody can put another file in its place meanwhile; one that can only name a file
// (O_PATH), as for links and special files, will do.
//
// Each operation returns 0 or the system's errno.
#pragma once

#include <ctime>
#include <string>
#include <utility>
#include <vector>

namespace morvane {

struct FileMetadata {
  static constexpr unsigned kAllBits = 07777, kPermissions = 0777, kSetIds = 06000;

  // To the system it means "leave it as it is", and it is nobody's.
  static constexpr unsigned kNoId = 0xFFFFFFFF;
  static int setOwner(int fd, unsigned uid, unsigned gid);
  // What is there; not known when the system does not tell.
  struct Status {
    bool isKnown = false;
    int error = 0;  // why it is not
    unsigned uid = 0, gid = 0, mode = 0;
  };
  static void look(int fd, Status& status);
  // Those that new files of the process get, but for a directory that hands on its group.
  static void ownIds(unsigned& uid, unsigned& gid);
  static int setMode(int fd, unsigned mode);
  // A value's nanoseconds run from 0 to 999,999,999; UTIME_OMIT in their place keeps that time as it is.
  static int setTimes(int fd, const timespec& access, const timespec& modification);

  // Whose an attribute is, by its name: anybody may set those of users on a file of one's own; those of the
  // system hold labels and capabilities that mean something on one system alone, need a privilege to be set,
  // and go with a change of owner. An access list is neither: its name space is a third one.
  static bool isUserAttribute(const std::string& name);
  static bool isSecurityAttribute(const std::string& name);
  using Attributes = std::vector<std::pair<std::string, std::string>>;  // name and value, any bytes
  // Creates or replaces it.
  static int setAttribute(int fd, const std::string& name, const std::string& value);
  // Those of the name spaces "user." and of POSIX access lists; with `all` also "security." and "trusted.",
  // as far as the process may see them. A file system without attributes has none.
  static int readAttributes(int fd, bool all, Attributes& attributes);

  // The names under which the system keeps access lists.
  static constexpr char kAccessList[] = "system.posix_acl_access",
                        kDefaultList[] = "system.posix_acl_default";

  // The process's umask, which nobody may change to look at it: that would be for all threads. What cannot be
  // told is taken to be the strictest.
  static unsigned umask();
};

}  // namespace morvane
