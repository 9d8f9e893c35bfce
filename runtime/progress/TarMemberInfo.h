// One archive member as ProgressEvent::onTarHeader shows it.
//
// Valid during the call only. No pointer is null, every text is NUL-terminated. Texts but entryPath stand
// as the archive stores them; numbers are what it claims, and no limit has been asked yet.
#pragma once

namespace morvane {

// For looking at: nothing that is written here comes back. A member that is to be changed or left out is
// TarMember's, and onTarEntry's.
struct TarMemberInfo {
  const char* path = "";  // as stored, byte for byte, long-name and pax records merged in
  const char* entryPath =
      "";  // UTF-8, after the path rules (slashes, Charset, NoAbsolutePaths, UntarDiscardPaths)
  // As stored: neither path rules nor Charset have been applied.
  const char* linkPath = "";  // a pax or long one when there is one, else the header block's
  const char* userName = "";
  const char* groupName = "";
  char typeFlag = '0';
  bool isDirectory = false;
  long long size = 0;            // bytes of data that follow the header
  long long mtime = 0;           // Unix seconds
  long long headerPosition = 0;  // byte offset in the tar stream of the member's own header block
  unsigned mode = 0;             // permission bits
  // Ids that are more than 32 bits stop at 4294967295, which is no id; exactUid and exactGid have them in
  // full.
  unsigned uid = 0;
  unsigned gid = 0;
  unsigned mtimeNanoseconds = 0;              // with FullRead; count forward from mtime
  unsigned deviceMajor = 0, deviceMinor = 0;  // with FullRead, of devices
  long long realSize = 0;  // of the file that the member is: with Restore=sparse, holes included; else `size`
  long long exactUid = 0, exactGid = 0;  // 0 to 2^63-1; with FullRead more than uid and gid can hold
};

}  // namespace morvane
