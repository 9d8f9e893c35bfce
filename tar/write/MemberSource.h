// What a member's header says of its source: what the properties say, or, with the word Store, what the
// source itself is. Called by ArchiveWriter, once for each member, before the events that may change what it
// says. It knows nothing of records and blocks: what a format cannot hold shows later.
#pragma once

#include <map>

#include "runtime/fs/UserDatabase.h"
#include "tar/format/Member.h"
#include "tar/write/SourceFile.h"
#include "tar/write/WriteRun.h"

namespace morvane {

// Brings a path into the archive's form: back slashes to "/", a "/" at a directory's end.
void normalisePath(XString& path, bool isDirectory);

// Normalises the path and describes the member that is to have it by the properties alone. The member's texts
// are used again. Nothing is asked of the system. `info` has times, size and kind. Also what the steps
// describe that write a header by themselves.
void describeMember(const mvFileInfo& info, const WriteSettings& settings, XString& pathInTar,
                    Member& member);

// One object serves all members of a write: names of users are looked up once, and the first name of a file
// that has several is remembered. It opens a file only to look at attributes and holes. Memory: a path for
// each file of several names, until the write ends.
class MemberSource {
 public:
  // False, with the reason in the log, when the source cannot be read for what is to be stored of it. `file`
  // may be left open, for its data. `member` is overwritten whole.
  bool describe(const SourcePlace& place, const mvFileInfo& info, const WriteSettings& settings,
                SourceFile& file, XString& pathInTar, Member& member, const Io& io);
  // The member has been written: further names of the same file are links to it. Called for each, whether it
  // has other names or not; without Store=link nothing is noted.
  void noteWritten(const mvFileInfo& info, const WriteSettings& settings, const Member& member);

 private:
  // One for each part of Store. False, with the reason in the log, where the source cannot be asked. Names
  // are looked up unless OwnerBy=id was asked for.
  void takeOwner(const mvFileInfo& info, const WriteSettings& settings, Member& member);
  // A symbolic link's text, or the first name of a file that is archived already.
  bool takeLink(const SourcePlace& place, const mvFileInfo& info, Member& member, const Io& io);
  // Attributes and access lists, in the forms that a pax record has.
  bool takeAttributes(const SourcePlace& place, const mvFileInfo& info, SourceFile& file, Member& member,
                      const Io& io);
  // Opens the file; what cannot be opened has no holes, and is told later.
  bool takeHoles(const SourcePlace& place, const mvFileInfo& info, const WriteSettings& settings,
                 SourceFile& file, Member& member);

  // It keeps the names that it was asked for.
  UserDatabase m_users;
  std::map<std::pair<unsigned long long, unsigned long long>, std::string> m_firstNames;  // by device, inode
};

}  // namespace morvane
