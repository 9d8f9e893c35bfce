// From a parsed header, which belongs to a reader and is used again for every block, to the plain value that
// everybody else works with.
#include "tar/format/Member.h"

#include "runtime/fs/AccessList.h"

namespace morvane {

// A NUL would end the log's line.
std::string typeText(char typeFlag) { return std::string(typeFlag ? 1 : 0, typeFlag); }

// The exact times are taken, never the 32-bit ones; a reader that wants those puts them in afterwards.
void Member::takeNumbers(const TarHeader& header) {
  typeFlag = header.m_typeFlag;
  isDirectory = header.m_isDirectory;
  mode = header.m_mode;
  uid = header.m_uid;
  gid = header.m_gid;
  size = header.m_size;
  mtime = header.m_exactMtime;
  atime = header.m_exactAtime;
  ctime = header.m_exactCtime;
  // Listings show what the header says, also where the reader brings the member's own time into 32 bits.
  listedMtime = header.m_exactMtime.seconds;
  // For whoever passes over the data: the blocks of a sparse map are not counted in the size.
  sparseMapGoesOn = header.m_sparseMapGoesOn;
}

// The link path is a record's where there is one.
void Member::copyHeader(const TarHeader& header) {
  takeNumbers(header);
  // With its length, as a record's path may hold a NUL.
  path = header.m_path.str();
  linkPath = header.linkPath();
  userName = header.userName();
  groupName = header.groupName();
}

// For runs over millions of members: both sides keep memory for texts and need not allocate it again.
void Member::exchangeHeader(TarHeader& header) {
  takeNumbers(header);
  header.exchangeTexts(path, linkPath, userName, groupName);
}

// Path and link path are left out, because whoever keeps such a member has its path elsewhere.
// An access list of a form that is not known is left out; the mode still has what it grants at most.
void Member::takeAttributes(FileMetadata::Attributes& from, UserDatabase& users) {
  attributes.clear();
  accessList.clear();
  defaultAccessList.clear();
  for (auto& [name, value] : from) {
    const bool isAccess = name == FileMetadata::kAccessList, isDefault = name == FileMetadata::kDefaultList;
    if (isAccess || isDefault) {
      const std::optional<std::string> text = accessListText(value, users);
      if (text) (isAccess ? accessList : defaultAccessList) = *text;
    } else {
      attributes.push_back({std::move(name), std::move(value)});
    }
  }
}

void Member::copyPlain(const Member& other) {
  typeFlag = other.typeFlag;
  isDirectory = other.isDirectory;
  userName = other.userName;
  groupName = other.groupName;
  mode = other.mode;
  uid = other.uid;
  gid = other.gid;
  size = other.size;
  mtime = other.mtime;
  atime = other.atime;
  ctime = other.ctime;
}

}  // namespace morvane
