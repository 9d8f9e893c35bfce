// One header block, parsed: the record that every reader of archives works with.
//
// Nothing in a block is trusted. Only a wrong checksum and an unusable size make a block invalid; every other
// number is brought into its range. Field names and meanings follow POSIX ustar and pax.
#pragma once

#include <memory>

#include "runtime/base/Export.h"
#include "runtime/fs/MorvaneFileTime.h"
#include "runtime/text/StringBuffer.h"

namespace morvane {

class LogBase;
class ProgressMonitor;
class XString;
class _mvDataSource;

// Which attributes a pax extended header supplied to a record. Bits; the gaps between them have no meaning.
// The lenient merging keeps them in the record; FullExtensions has the same bits for what was taken back.
enum PaxField : unsigned {
  PAX_ATIME = 0x001,
  PAX_CTIME = 0x008,
  PAX_GID = 0x010,
  PAX_GNAME = 0x020,
  PAX_LINKPATH = 0x040,
  PAX_MTIME = 0x080,
  PAX_PATH = 0x100,
  PAX_SIZE = 0x200,
  PAX_UID = 0x400,
  PAX_UNAME = 0x800,
};

// A point in time as an archive may give it: 63-bit seconds and a fraction. Nanoseconds are 0 to 999,999,999
// and count forward from the second, before 1970 too. A block gives whole seconds from 1970 on, or before in
// base-256; records give the rest.
struct TarTime {
  long long seconds = 0;
  unsigned nanoseconds = 0;
  // False where neither block nor record had one; the two numbers then mean nothing.
  bool known = false;

  MorvaneFileTime fileTime() const { return MorvaneFileTime::fromUnixTime64(seconds, nanoseconds); }
};

// It owns its texts and may be parsed into again and again; one thread at a time. The members are public,
// because merging records into it is other files' work (PaxRecords, FullExtensions). Texts are bytes as
// stored and up to a NUL, unless a record gave them.
class MORVANE_API TarHeader {
 public:
  // Of the block: at most 100 bytes, empty where a record gave the path.
  StringBuffer m_name;
  StringBuffer m_prefix;        // of ustar blocks only
  unsigned m_paxFieldsSet = 0;  // PaxField bits; 0 when only a block was parsed
  StringBuffer m_path;  // what readers go by: prefix and name joined, or what a record put in its place
  // Numbers as the block has them, brought into 32 bits: negative and blank are 0, too large is 2^32-1. The
  // 32-bit forms are what the lenient reader goes by, and what it merges.
  unsigned m_mode = 0;
  unsigned m_uid = 0;
  unsigned m_gid = 0;
  long long m_size = 0;  // data bytes that follow the header, 0 to 2^63-1
  // The blocks of POSIX have no other time than that of the last change; GNU's own further ones are not read.
  unsigned m_mtime = 0;  // Unix seconds
  unsigned m_atime = 0;  // 0: unknown
  unsigned m_ctime = 0;  // 0: unknown
  // As stored, also one that nobody knows.
  char m_typeFlag = '\0';
  // Null where no record gave one: that is how a record's is told from the block's.
  std::unique_ptr<StringBuffer> m_linkPath;  // of a pax or long-link record
  // May be null, as when merging has moved it away; userName() is then empty.
  std::unique_ptr<StringBuffer> m_userName;
  std::unique_ptr<StringBuffer> m_groupName;
  // By the type flag, or of an old header by a slash at the end of its name.
  bool m_isDirectory = false;
  StringBuffer m_linkName;         // the block's own link name
  bool m_sparseMapGoesOn = false;  // blocks of a GNU sparse map come before the data
  // The times in full; m_mtime, m_atime and m_ctime are their 32-bit forms.
  TarTime m_exactMtime, m_exactAtime, m_exactCtime;
  long long m_exactUid = 0, m_exactGid = 0;  // the ids in full, 0 to 2^63-1

  // Returns the record to the empty state. The texts' memory is kept for the next block. A record that was
  // never parsed is in that state.
  void clear();

  // Parses a 512-byte block into the record, everything of an earlier one gone. A block of zero bytes sets
  // `endOfArchive` (which is otherwise left alone) and is no failure. False, with the reason in the log, for
  // a block that is no valid header. After a failure the record is as it was. It reads nothing but the 512
  // bytes, and needs memory for the texts alone: they have 512 bytes at most.
  bool parseFromMemory(const unsigned char* block, bool& endOfArchive, LogBase& log);
  // Reads the next 512 bytes and parses them. Fewer are a failure. `rawBlock`, when not null, receives the
  // 512 bytes. The monitor, which may be null, is asked while the read waits. The source then stands behind
  // the block, whether or not it is a header.
  bool parseFromDataSource(_mvDataSource& source, unsigned char* rawBlock, bool& endOfArchive, LogBase& log,
                           ProgressMonitor* pm = nullptr);

  // Makes a text the record's whole path, as long-name and pax path records do. Name and prefix are empty
  // then. The second form takes any bytes, NULs too.
  void setWholePath(const char* path);
  void setWholePath(const char* bytes, unsigned n);

  // Appends the element of a listing for this record (docs/xml-listing.md): well-formed for any bytes.
  // `extensionData`, which may be null, is the NUL-terminated data of an 'x' or 'L' header; names are decoded
  // from `charset` (an iconv name; an unknown one is said in the log and read as UTF-8).
  void toXmlEntry(XString& xml, const char* extensionData, const char* charset, ProgressMonitor* pm,
                  LogBase& log) const;
  // The fields of a raw 512-byte block in quoted-printable form, "name=...; mode=..." and so on. Never holds
  // "]]>". For listings: anything but plain ASCII is written "=HH", and so are "=", "]", ">" and ";".
  static void getFieldsQP(const unsigned char* block, StringBuffer& out);
  // Logs the fields of a block that could not be parsed. In the same form, a data line for each field. Any
  // 512 bytes will do.
  static void debugLogTarHeader(const unsigned char* block, LogBase& log);

  // Exchanges the path, the link path (a record's, else the block's) and the names with other texts. The
  // header's own are then of no use before the next parse, but for what a record makes the whole path.
  void exchangeTexts(std::string& path, std::string& linkPath, std::string& userName, std::string& groupName);
  // Reads the next 512 bytes; fewer are a failure, with the reason in the log. Those that are missing are
  // then 0. `block` has 512 bytes.
  [[nodiscard]] static bool readBlock(_mvDataSource& source, unsigned char* block, LogBase& log,
                                      ProgressMonitor* pm);

  // Never null. They point into the record, and are good until it is parsed or merged anew.
  const char* linkPath() const { return m_linkPath ? m_linkPath->getString() : m_linkName.getString(); }
  const char* userName() const { return m_userName ? m_userName->getString() : ""; }
  const char* groupName() const { return m_groupName ? m_groupName->getString() : ""; }

 private:
  // What is left once a block has passed the checks. Neither can fail but for memory.
  void takeNames(const unsigned char* block);
  void takeNumbers(const unsigned char* block);
};

}  // namespace morvane
