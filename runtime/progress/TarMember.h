// One member that is about to be written or extracted, as ProgressEvent::onTarMember shows it (with the
// word MemberEvents): what the callback leaves in it is what is written or extracted.
//
// The texts are the object's own and may be changed at will; the object is valid during the call only. Size
// and time are shown as an archive claims them.
#pragma once

#include <string>

namespace morvane {

struct mvFileInfo;

// Used again for the next member, so that its texts keep their room. Numbers that come back and make no
// sense are brought into range and not refused.
struct TarMember {
  // ---- Told, not changed. What is written here is of no effect.

  bool writing = false;   // into an archive; else out of one
  std::string localPath;  // the source of a member being written; empty for one from memory, and when reading
  char typeFlag = '0';    // as POSIX ustar has them: '0' a file, '5' a directory
  long long size = 0;     // bytes of data; 0 for a directory

  // ---- May be changed.

  // UTF-8, no slash at a directory's end. Writing: in the archive. Reading: below the target; the path rules,
  // confinement and limits hold for a changed one, too. An empty path skips the member.
  std::string path;
  std::string linkPath;       // of a link, as stored
  unsigned mode = 0;          // permission bits, the lower twelve
  unsigned uid = 0, gid = 0;  // more than 32 bits stops at 4294967295; left so, the number in full stays
  std::string userName, groupName;
  long long mtime = 0;  // Unix seconds
  unsigned mtimeNanoseconds = 0;
  bool skip = false;
  // Writing a directory of a tree: what is below it is not walked, whether the directory itself is skipped
  // or not.
  bool skipBelow = false;

  // ---- Told as well, and of no effect when written.

  unsigned deviceMajor = 0, deviceMinor = 0;  // of devices; when reading with FullRead
  long long realSize = 0;                // of the file that the member is, where holes are kept; else `size`
  long long exactUid = 0, exactGid = 0;  // 0 to 2^63-1
  // Writing: the source as it was when it was looked at, which for a small file may be long before its turn
  // (Threads), whatever the words and the event make of the member. With FollowLinks it is what a link points
  // at. Good for the callback only; null for a member from memory, and when reading.
  const mvFileInfo* source = nullptr;
};

}  // namespace morvane
