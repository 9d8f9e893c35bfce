// One member of an archive: what its header, and the records in front of it, say of it.
//
// The one shape between readers, path rules, events, listings and whoever places the member. Nothing in it is
// trusted: numbers are within their ranges, and that is all that was looked at.
#pragma once

#include <string>
#include <vector>

#include "tar/format/SparseMap.h"
#include "tar/format/TarBlock.h"
#include "tar/format/TarHeader.h"

namespace morvane {

// A type flag as a log shows it. Old archives have a NUL as the type of a file, for which there is nothing.
std::string typeText(char typeFlag);

// An extended attribute: its name as the system has it ("user.comment"), and any bytes.
struct MemberAttribute {
  std::string name, value;
};

struct Member {
  // As stored, also one that nobody knows; TarBlock.h names those that mean something here.
  char typeFlag = '0';
  // By type flag, or by an old header's slash: whoever places the member asks this and not the type flag.
  bool isDirectory = false;
  // Bytes as stored; nothing is decoded, and a NUL may stand in a name that a pax record gave.
  std::string path, linkPath, userName, groupName;
  // Permission bits and whatever else the field held, up to 32 bits.
  unsigned mode = 0;
  // In full, 0 to 2^63-1: one that is more than 32 bits is nobody's here, and never becomes another one.
  long long uid = 0, gid = 0;
  unsigned deviceMajor = 0, deviceMinor = 0;
  long long size = 0;  // data bytes that follow the header, 0 to 2^63-1
  TarTime mtime;
  TarTime atime, ctime;          // not known unless a record gave them
  long long listedMtime = 0;     // Unix seconds as a listing shows them: never brought into 32 bits
  long long headerPosition = 0;  // byte offset in the tar stream of the member's own header block
  bool sparseMapGoesOn = false;  // blocks of a GNU sparse map come before the data
  SparseMap sparse;              // of a member whose stored bytes are to be spread
  bool sparseIsWrong = false;    // it has a map, and that makes no sense
  bool isContinuation = false;   // its data are the rest of a file that begins in another volume
  std::vector<MemberAttribute> attributes;
  std::string accessList, defaultAccessList;  // POSIX access lists as text; empty: none
  bool lacksAttributes = false;               // it had some that no system takes, and they are not here

  // Takes a header's values as it has them by itself, and copies of its texts; or exchanges texts with it, so
  // that the memory of both is used again. The header's own are then of no use before its next parse.
  void copyHeader(const TarHeader& header);
  void exchangeHeader(TarHeader& header);

  // What an ordinary file is made of: nothing that it has beside kind, owner, mode, size and times.
  void copyPlain(const Member& other);

  // A directory has no data to extract, whatever its header states.
  long long dataSize() const { return isDirectory ? 0 : size; }
  // The size of the file that it is, holes included.
  long long realSize() const { return sparse.isSparse() ? sparse.realSize() : dataSize(); }
  bool isSymbolicLink() const { return typeFlag == kTypeSymbolicLink; }
  // A dumpdir, of an incremental archive, is a directory with data, which are nobody's.
  bool hasListing() const { return isDirectory && typeFlag == kTypeDumpDir; }
  bool isHardLink() const { return typeFlag == kTypeHardLink; }
  bool isDevice() const { return typeFlag == kTypeCharacterDevice || typeFlag == kTypeBlockDevice; }
  bool isSpecial() const { return typeFlag == kTypeFifo || isDevice(); }

 private:
  void takeNumbers(const TarHeader& header);
};

}  // namespace morvane
