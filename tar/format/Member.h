// One member of an archive: what its header, and the records in front of it, say of it.
//
// The one shape between readers, path rules, events, listings and whoever places the member. Nothing in it is
// trusted: numbers are within their ranges, and that is all that was looked at.
#pragma once

#include <string>
#include <vector>

#include "runtime/fs/FileMetadata.h"
#include "tar/format/SparseMap.h"
#include "tar/format/TarBlock.h"
#include "tar/format/TarHeader.h"

namespace morvane {

class UserDatabase;

// A type flag as a log shows it. Old archives have a NUL as the type of a file, for which there is nothing.
std::string typeText(char typeFlag);

// An extended attribute: its name as the system has it ("user.comment"), and any bytes.
struct MemberAttribute {
  std::string name, value;
};

// A value. It is filled in by a MemberReader or MemberSource, and changed on its way by the events alone.
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
  // Of devices, where it is read in full; FileMetadata::kNoId for a field that is no number.
  unsigned deviceMajor = 0, deviceMinor = 0;
  long long size = 0;  // data bytes that follow the header, 0 to 2^63-1
  // In full, or what 32 bits hold of it where the reader is the lenient one.
  TarTime mtime;
  TarTime atime, ctime;          // not known unless a record gave them
  long long listedMtime = 0;     // Unix seconds as a listing shows them: never brought into 32 bits
  long long headerPosition = 0;  // byte offset in the tar stream of the member's own header block
  bool sparseMapGoesOn = false;  // blocks of a GNU sparse map come before the data
  // Only of a reader that was asked for it (MemberReader::Demand), or of a source with holes.
  SparseMap sparse;            // of a member whose stored bytes are to be spread
  bool sparseIsWrong = false;  // it has a map, and that makes no sense
  // GNU's type M. Placed as a file of its own it would be a part that looks like the whole.
  bool isContinuation = false;  // its data are the rest of a file that begins in another volume
  // In the order of the records. Two may have one name, and the later one then wins as it is set last.
  std::vector<MemberAttribute> attributes;
  std::string accessList, defaultAccessList;  // POSIX access lists as text; empty: none
  bool lacksAttributes = false;               // it had some that no system takes, and they are not here

  // Takes a header's values as it has them by itself, and copies of its texts; or exchanges texts with it, so
  // that the memory of both is used again. The header's own are then of no use before its next parse.
  void copyHeader(const TarHeader& header);
  void exchangeHeader(TarHeader& header);

  // What an ordinary file is made of: nothing that it has beside kind, owner, mode, size and times. For files
  // that other threads make, which need no texts but the owner's names.
  void copyPlain(const Member& other);
  // The attributes and access lists that a file has, in place of the member's own. Values are moved out of
  // `from`. Names and numbers in lists are this system's.
  void takeAttributes(FileMetadata::Attributes& from, UserDatabase& users);

  // A directory has no data to extract, whatever its header states.
  long long dataSize() const { return isDirectory ? 0 : size; }
  // The size of the file that it is, holes included. Equal to dataSize where there are no holes.
  long long realSize() const { return sparse.isSparse() ? sparse.realSize() : dataSize(); }
  // Links and special files are told by the type flag alone.
  bool isSymbolicLink() const { return typeFlag == kTypeSymbolicLink; }
  // A dumpdir, of an incremental archive, is a directory with data, which are nobody's.
  bool hasListing() const { return isDirectory && typeFlag == kTypeDumpDir; }
  bool isHardLink() const { return typeFlag == kTypeHardLink; }
  bool isDevice() const { return typeFlag == kTypeCharacterDevice || typeFlag == kTypeBlockDevice; }
  // They have no data, and are made by calls of their own.
  bool isSpecial() const { return typeFlag == kTypeFifo || isDevice(); }

 private:
  // Everything that is no text.
  void takeNumbers(const TarHeader& header);
};

}  // namespace morvane
