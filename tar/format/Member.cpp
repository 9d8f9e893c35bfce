#include "tar/format/Member.h"

namespace morvane {

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
  listedMtime = header.m_exactMtime.seconds;
  sparseMapGoesOn = header.m_sparseMapGoesOn;
}

void Member::copyHeader(const TarHeader& header) {
  takeNumbers(header);
  path = header.m_path.str();
  linkPath = header.linkPath();
  userName = header.userName();
  groupName = header.groupName();
}

void Member::exchangeHeader(TarHeader& header) {
  takeNumbers(header);
  header.exchangeTexts(path, linkPath, userName, groupName);
}

}  // namespace morvane
