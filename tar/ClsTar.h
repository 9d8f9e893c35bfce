// Tar archives: written plain or compressed with gzip, bzip2, zstd or xz, appended to where they are plain;
// read plain, from memory, in each of these compressions and in that of Unix compress.
//
//   morvane::ClsTar tar;
//   tar.AddDirRoot("src");
//   if (!tar.WriteTarGz("src.tar.gz")) { ... get_LogText tells why ... }
//
//   morvane::ClsTar reader;
//   reader.put_UntarFromDir("restored");
//   if (!reader.UntarGz("src.tar.gz")) { ... }
//
// Results. A method that returns bool returns true on success; one that returns int returns a count, or -1 on
// failure. The reason of a failure is in the log of the call (get_LogText): one error line with what
// happened, then data lines with the path, the size, the reason. No exception leaves a method; the getters of
// texts throw std::bad_alloc where there is no memory for the text. What was written or extracted before a
// failure stays on the disk.
//
// Paths are UTF-8 (bytes that are none are kept) and may be of any length. Sizes are bytes.
//
// Threads. One object may be used from several threads: methods and string properties hold the object's lock
// for their whole run. Scalar properties may be read and set at any time. BeginStreamingUntar,
// StreamingUntarNext, FinishStreamingUntar and _writeBytes hold it only while they copy properties, and write
// XmlListing without it: it must not be read or set meanwhile.
//
// Callbacks (runtime/progress/ProgressEvent.h) run on the calling thread; from them properties may be read
// and set (what is set holds from the next step on), while methods of the same object are refused.
//
// Each method that takes an archive's path, but AppendTar, has a twin that takes an _mvOutput& or
// _mvDataSource& in its place, so that standard streams, sockets and memory are archives too. The stream is
// not owned and must outlive the call; a source is read from where it stands.
//
// Formats. Written: ustar and pax as POSIX.1 has them, and GNU tar's, which is the default; docs/format.md
// tells where this component goes its own way and which words of UncommonOptions (docs/options.md) make it go
// the usual one.
#pragma once

#include <memory>

#include "runtime/base/ExtPtrArray.h"
#include "runtime/buffer/ClsBinData.h"
#include "runtime/buffer/DataBuffer.h"
#include "runtime/component/ClsBase.h"
#include "runtime/fs/MorvaneFileTime.h"
#include "runtime/fs/mvFileInfo.h"
#include "runtime/io/OutputDataBuffer.h"
#include "runtime/io/OutputFile.h"
#include "runtime/io/_mvFileDataSource.h"
#include "runtime/io/_mvMemoryDataSource.h"
#include "runtime/io/_mvOutput.h"
#include "runtime/log/LogContextExitor.h"
#include "runtime/log/LogNull.h"
#include "runtime/progress/ProgressEvent.h"
#include "runtime/progress/ProgressMonitor.h"
#include "runtime/progress/TarMember.h"
#include "runtime/progress/TarMemberInfo.h"
#include "runtime/text/ExtPtrArraySb.h"
#include "runtime/text/StringBuffer.h"
#include "runtime/text/XString.h"
#include "tar/format/TarHeader.h"
#include "tar/write/DirRoot.h"

namespace morvane {

// An object keeps its properties and sources from one call to the next, and nothing else but the last listing
// and the state of its streaming run. It cannot be copied, because it owns its engines. Everything that is
// passed by reference or pointer belongs to the caller and is used during the call only, unless a method says
// otherwise; strings and sources are copied.
class MORVANE_API ClsTar : public ClsBase, public _mvOutput {
 public:
  // The name under which directory roots are known to applications.
  using _dirRoot = DirRoot;

  // A new object with every default, or null if there is no memory. The caller deletes it.
  static ClsTar* createNewCls();
  // Throws std::bad_alloc, as constructors do; createNewCls does not.
  ClsTar();
  // Must not run while another thread is about to begin a call. One that is going on is waited for.
  ~ClsTar() override;
  // Does nothing here.
  void dotNetDispose() override;

  // ---- Sources: what goes into an archive. They stay until cleared; the same source may be added more than
  // once.

  // Adds a directory tree. False if the path cannot be examined or is no directory. The tree's members are
  // named relative to the directory, which is itself no member.
  bool AddDirRoot(const XString& dirPath);
  // The same, with a prefix for the names of the tree's members ("prefix/relative"). An empty prefix is none.
  // The path may be a symbolic link to a directory.
  bool AddDirRoot2(const XString& pathPrefix, const XString& dirPath);
  // Adds a file, which is looked at only when the archive is written. Its member is named by the last part of
  // the path.
  bool AddFile(const XString& path);
  // The same, with the member's path; DirPrefix is not put in front of it. Neither path may hold an ESC byte
  // (0x1B).
  bool AddFile2(const XString& path, const XString& pathInTar);
  // Adds a file that is only in memory: a copy of the bytes, which stays like a single file until the sources
  // are cleared. Its time is that of this call; DirPrefix is not put in front of its path. Events and filters
  // see the path in the archive where those of other files see the local one.
  bool AddBytes(const XString& pathInTar, const DataBuffer& data);
  // The path of a directory root by its 0-based index; false, and empty, when there is none.
  bool GetDirRoot(int index, XString& outDirPath);
  // How many there are, single files not among them; also from callbacks.
  int get_NumDirRoots();
  // Removes every directory root and file. True.
  bool ClearDirRootsAndFiles();

  // ---- Writing. Single files first, then the directory trees, then two zero blocks.

  // Writes the sources as a plain tar file, created or truncated. The first failure ends the write.
  bool WriteTar(const XString& tarPath, ProgressEvent* progress = nullptr);
  // The same into an output, from where it stands. It is flushed, not closed.
  bool WriteTar(_mvOutput& out, ProgressEvent* progress = nullptr);
  // The same stream as one gzip member (RFC 1952) / as a bzip2 stream. Neither a name nor a time is recorded
  // in it. Block size of bzip2 is 900,000 bytes.
  bool WriteTarGz(const XString& tarGzFilePath, ProgressEvent* progress = nullptr);
  bool WriteTarGz(_mvOutput& out, ProgressEvent* progress = nullptr);
  bool WriteTarBz2(const XString& tarBz2FilePath, ProgressEvent* progress = nullptr);
  bool WriteTarBz2(_mvOutput& out, ProgressEvent* progress = nullptr);

  // Appends the sources to a plain archive, or makes one where nothing is or an empty file. The archive's end
  // is found by its headers, so that one that is damaged, has no end mark, or has something behind it is
  // refused. Until everything new is on the disk a reader sees the old archive: a failure leaves it as it
  // was.
  bool AppendTar(const XString& tarPath, ProgressEvent* progress = nullptr);

  // The same as zstd (one frame with a checksum) and as xz, where the build has them (else they fail: "This
  // build has no zstd."); the word Level chooses between speed and size.
  bool WriteTarZst(const XString& tarZstPath, ProgressEvent* progress = nullptr);
  bool WriteTarZst(_mvOutput& out, ProgressEvent* progress = nullptr);
  bool WriteTarXz(const XString& tarXzPath, ProgressEvent* progress = nullptr);
  bool WriteTarXz(_mvOutput& out, ProgressEvent* progress = nullptr);

  // ---- Reading plain archives.

  // Extracts below UntarFromDir. The result counts the members extracted (directories too), -1 on failure.
  int Untar(const XString& tarPath, ProgressEvent* progress = nullptr);
  int Untar(_mvDataSource& source, ProgressEvent* progress = nullptr);
  // The bytes are read where they lie and must stay unchanged during the call.
  int UntarFromMemory(DataBuffer& tarBytes, ProgressEvent* progress = nullptr);
  // Walks the archive and writes nothing: every header must be valid up to the end-of-archive mark. Member
  // data are not read. Nor are the checksums of a compression: it is for plain archives.
  bool VerifyTar(const XString& tarPath, ProgressEvent* progress = nullptr);
  bool VerifyTar(_mvDataSource& source, ProgressEvent* progress = nullptr);

  // Copies the data of the first member whose path matches the pattern into memory, appended to what is
  // there. Member data before it are passed over. Every header counts, records and directories included, each
  // under its own name. True with nothing appended when no member matched: compare sizes to know.
  bool UntarFirstMatchingToMemory(DataBuffer& tarBytes, const XString& pattern, DataBuffer& destination);
  bool UntarFirstMatchingToBd(const XString& tarPath, const XString& pattern, ClsBinData& destination);
  bool UntarFirstMatchingToBd(_mvDataSource& source, const XString& pattern, ClsBinData& destination);
  // Lists every header as XML (docs/xml-listing.md). True if the end-of-archive mark was reached; what was
  // listed before a failure stays in outXml. Nothing is extracted, and neither patterns nor limits apply.
  bool ListXml(const XString& tarPath, XString& outXml, ProgressEvent* progress = nullptr);
  bool ListXml(_mvDataSource& source, XString& outXml, ProgressEvent* progress = nullptr);
  // The same, written as it comes: a listing of any length takes no memory.
  bool ListXml(_mvDataSource& source, _mvOutput& outXml, ProgressEvent* progress = nullptr);

  // ---- Reading compressed archives, in one pass, extracted below UntarFromDir. UntarMaxCount does not
  // apply.

  // gzip: the first member; its trailer is not checked (see VerifyGzip and GzipAllMembers). An archive
  // without its end-of-archive mark is extracted and succeeds (see RequireEndOfArchive); one that ends in the
  // middle of a member fails.
  bool UntarGz(const XString& tarGzPath, ProgressEvent* progress = nullptr);
  bool UntarGz(_mvDataSource& source, ProgressEvent* progress = nullptr);
  // bzip2. Goes on from the state that the object's last streaming run left: after a run that reached the end
  // of its archive, nothing is extracted (see Bz2Framed).
  bool UntarBz2(const XString& tarBz2Path, ProgressEvent* progress = nullptr);
  bool UntarBz2(_mvDataSource& source, ProgressEvent* progress = nullptr);
  // Unix compress (LZW).
  bool UntarZ(const XString& tarZPath, ProgressEvent* progress = nullptr);
  bool UntarZ(_mvDataSource& source, ProgressEvent* progress = nullptr);

  // zstd; xz and .lzma. Every frame or stream is read, checksums are compared, data that are cut or followed
  // by something else fail, and the archive must have its end mark.
  bool UntarZst(const XString& tarZstPath, ProgressEvent* progress = nullptr);
  bool UntarZst(_mvDataSource& source, ProgressEvent* progress = nullptr);
  bool UntarXz(const XString& tarXzPath, ProgressEvent* progress = nullptr);
  bool UntarXz(_mvDataSource& source, ProgressEvent* progress = nullptr);

  // Any of these, or a plain archive, told by its content, and with every check that there is: checksums, all
  // members and streams, the end mark. VerifyAny writes nothing. What is none of them is named in the log
  // ("This is a ZIP archive, no tar.").
  bool UntarAny(const XString& tarPath, ProgressEvent* progress = nullptr);
  bool UntarAny(_mvDataSource& source, ProgressEvent* progress = nullptr);
  bool VerifyAny(const XString& tarPath, ProgressEvent* progress = nullptr);
  bool VerifyAny(_mvDataSource& source, ProgressEvent* progress = nullptr);

  // ---- One member of an archive of any compression

  // Offers each file member, in archive order, to the event's onTarEntry and streams the data of the first
  // that is not skipped into `out`; without an event that is the first file. Directories are never offered.
  // False when there is none, or when its data are not complete. What comes behind the member is not read.
  bool UntarMemberToOutput(const XString& tarPath, _mvOutput& out, ProgressEvent* progress = nullptr);
  bool UntarMemberToOutput(_mvDataSource& source, _mvOutput& out, ProgressEvent* progress = nullptr);
  // The same for every file that is not skipped, one behind the other; the archive is read to its end.
  bool UntarMembersToOutput(const XString& tarPath, _mvOutput& out, ProgressEvent* progress = nullptr);
  bool UntarMembersToOutput(_mvDataSource& source, _mvOutput& out, ProgressEvent* progress = nullptr);

  // Whether the last method got to the end of its work and failed only because something was left out on the
  // way that the event was told of (a refused member, a source that could not be read), or because the one
  // member that was wanted is not in the archive. False before the first method, and behind a success.
  bool get_OnlyLeftOut() const;

  // ---- Debian packages

  // Frames a control and a data tarball (gzip, or xz by the suffix ".xz") as a Debian binary package. Neither
  // is looked into; all three are held in memory. The format is deb(5), version 2.0; members have the time of
  // the call, mode 0644 and owner 0. The package's file is created or truncated.
  bool CreateDeb(const XString& controlPath, const XString& dataPath, const XString& debPath);
  bool CreateDeb(const XString& controlPath, const XString& dataPath, _mvOutput& out);

  // ---- Properties

  // Reading calls list the members they pass in XmlListing (docs/xml-listing.md); default false. Not the
  // first match, one member, or ListXml, which has its own.
  bool get_CaptureXmlListing() const;
  void put_CaptureXmlListing(bool capture);
  // Reading goes through an archive without writing members out. Default false. Taken when Untar begins, at
  // each header when streaming.
  bool get_SuppressOutput() const;
  void put_SuppressOutput(bool suppress);
  // Leading slashes of members' paths are removed (default true). Back slashes count as slashes. It does not
  // keep ".." parts or links from leading out: that is Confine (docs/options.md).
  bool get_NoAbsolutePaths() const;
  void put_NoAbsolutePaths(bool none);
  // Every member is extracted straight into UntarFromDir, under the last part of its path. Default false. A
  // later member of the same last part replaces the earlier one.
  bool get_UntarDiscardPaths() const;
  void put_UntarDiscardPaths(bool discard);
  // More lines per member in the log. Default false.
  bool get_UntarDebugLog() const;
  void put_UntarDebugLog(bool debug);
  // Whether the patterns regard case: one setting under two names. Default false: letters that differ in case
  // alone are then alike, beyond ASCII too.
  bool get_UntarCaseSensitive() const;
  void put_UntarCaseSensitive(bool sensitive);
  bool get_MatchCaseSensitive() const;
  void put_MatchCaseSensitive(bool sensitive);
  // Untar and UntarFromMemory stop after this many members; 0 is no limit. Default 0. Reaching it is a
  // success. A negative count stops behind the first member.
  int get_UntarMaxCount() const;
  void put_UntarMaxCount(int count);
  // What headers of written archives say. Modes are permission bits: 0755, 0644 and 0755 by default, ids
  // 1000. Of a number that has more digits than its field (7 octal ones) the low ones are stored. With
  // Store=mode or Store=owner the files' own go before these.
  int get_GroupId() const;
  void put_GroupId(int id);
  int get_UserId() const;
  void put_UserId(int id);
  int get_DirMode() const;
  void put_DirMode(int mode);
  int get_FileMode() const;
  void put_FileMode(int mode);
  int get_ScriptFileMode() const;  // of *.sh, *.csh, *.bash, *.bsh
  void put_ScriptFileMode(int mode);

  // "gnu" (default), "pax" or "ustar". Case and blanks around it do not matter, "posix" means pax, "star"
  // ustar, and any other word gnu. What is read back is one of the three.
  void get_WriteFormat(XString& out);
  void put_WriteFormat(const XString& format);
  // The character set of names in archives being read, by its iconv name; default "utf-8". One that iconv
  // does not know is said in the log of the reading call, and names are read as utf-8.
  void get_Charset(XString& out);
  void put_Charset(const XString& charset);
  // In front of the names of written members ("prefix/name"). Trailing slashes are removed. Empty by default.
  // Not in front of the paths of AddFile2 and AddBytes.
  void get_DirPrefix(XString& out);
  void put_DirPrefix(const XString& prefix);
  // The listing made by the last reading call while CaptureXmlListing was on. Empty before the first; a
  // setter replaces it.
  void get_XmlListing(XString& out);
  void put_XmlListing(const XString& listing);
  // Both default to the name of the user running the process. Headers hold their first 31 bytes. Once set,
  // also to nothing, a name is used as it is.
  void get_UserName(XString& out);
  void put_UserName(const XString& name);
  void get_GroupName(XString& out);
  void put_GroupName(const XString& name);
  // Where members are extracted to; default ".". Made when missing. A relative one counts from where the
  // process stands; empty is the same as ".".
  void get_UntarFromDir(XString& out);
  void put_UntarFromDir(const XString& dir);
  // Patterns ("*" stands for anything, "/" included) that a path must / must not match, for writing and
  // reading alike. MustMatch and UntarMatchPattern are one setting. Empty patterns exclude nothing; both
  // default to that. A pattern without a "*" and without slashes has rules of its own about the last part of
  // a path (docs/format.md, "Patterns"). Writing compares local paths, reading the paths of members.
  void get_MustMatch(XString& out);
  void put_MustMatch(const XString& pattern);
  void get_UntarMatchPattern(XString& out);
  void put_UntarMatchPattern(const XString& pattern);
  void get_MustNotMatch(XString& out);
  void put_MustNotMatch(const XString& pattern);

  // ---- The steps that methods are made of. Those that write need the output of a write that is going on and
  // fail outside of one. They hold no lock while they work, and open no frame; the log and the monitor (which
  // may be null) are the caller's. From a callback of the same object they are refused, as methods are, and
  // what runs out of memory in them is thrown.

  // Writes into the object as an output: the bytes of a tar stream, in pieces of any size, are extracted as
  // they come. True for what comes behind the archive's end.
  bool _writeBytes(const char* bytes, unsigned int n, _mvIoParams& io, LogBase& log) override;

  // A streaming run: begin, any number of pieces, finish. What finish returns is the run's success: no
  // failure, and the last member's data complete. `finished` tells that the archive has ended or a failure
  // stopped the run; further pieces are then ignored. `data` belongs to the caller and may be gone behind the
  // call; `pm` and `log` may be others with each piece. What StreamingUntarNext takes is any number of
  // bytes, 0 among them.
  void BeginStreamingUntar(LogBase& log);
  bool StreamingUntarNext(const unsigned char* data, unsigned int numBytes, bool& finished,
                          ProgressMonitor* pm, LogBase& log);
  bool FinishStreamingUntar(ProgressMonitor* pm, LogBase& log);
  // One step of StreamingUntarNext: it may leave bytes for the next call to take.
  bool streamingUntarInner(const unsigned char* data, unsigned int numBytes, bool& finished,
                           ProgressMonitor* pm, LogBase& log);
  // Parses the gzip member at the source's position and extracts the tar stream in it. Bytes behind the
  // member stay in the source where it can give them back.
  bool unTarGz(_mvDataSource& source, ProgressMonitor* pm, LogBase& log);
  // The 10 bytes of RFC 1952 in front of a member, and the 8 behind it: the checksum and the size modulo 2^32
  // of what was compressed. The path is not recorded.
  bool beginGzip(const XString& path, _mvOutput& out, ProgressMonitor* pm, LogBase& log);
  bool endGzip(_mvOutput& out, unsigned int crc32, unsigned int size);

  // Looks at MustMatch and MustNotMatch anew, which methods do when they begin; and whether the two leave out
  // a path.
  void setMatchPatternExactFlags();
  // This and splitPathForTar only compute something, and may be called from callbacks, too.
  bool excludeByMatch(const XString& path, LogBase& log);

  // Bytes of data that a write of the sources would archive, headers and padding left out; -1 when it was
  // aborted or refused.
  long long calcTotalProgressForWrite(LogBase& log, ProgressMonitor* pm);
  // The whole tar stream of the sources. False also when something was left out.
  bool writeTarToOutput(_mvOutput& out, ProgressMonitor* pm, LogBase& log, ProgressEvent* progress);
  // One member: header, data, padding. `pathInTar` comes back in the form that it has in the archive.
  bool writeFileToOutput(XString& fullPath, XString& pathInTar, ProgressMonitor* pm, LogBase& log,
                         ProgressEvent* progress);
  // A source to its end, without header or padding. A failed read ends it and is no failure.
  bool copySourceToOutput(_mvDataSource& source, ProgressMonitor* pm, LogBase& log);
  // The 512-byte header of a member with the records that its format needs; only GNU's record of a long path;
  // only the pax record of the path. `info` is what mvFileInfo says of the file or what an application filled
  // in.
  bool writeTarHeaderToOutput(XString& pathInTar, mvFileInfo& info, ProgressMonitor* pm, LogBase& log);
  bool writeLongFilenameToOutput(XString& path, mvFileInfo& info, ProgressMonitor* pm, LogBase& log);
  bool writePaxHeaderToOutput(XString& path, mvFileInfo& info, ProgressMonitor* pm, LogBase& log);
  // Archive bytes as they are, through the compression where there is one.
  bool writeOut_pm(const unsigned char* data, unsigned int len, ProgressMonitor* pm, LogBase& log);
  // A path of up to 255 bytes into ustar's prefix and name (POSIX.1, ustar Interchange Format); the prefix
  // keeps its slash here. False, with both empty and the reason in the log, where there is no slash at which
  // it could be cut.
  bool splitPathForTar(const XString& path, XString& name, XString& prefix, LogBase& log);
  // The sum of a block's 512 bytes, its checksum field counted as blanks.
  static unsigned int computeHeaderChecksum(const unsigned char* block);
  // GNU's form of numbers that octal digits cannot hold: big-endian, the first byte's high bit set, in a
  // field of `len` bytes. False for a negative value, or one that the field does not hold. Reading does not
  // ask for that bit, and gives 0 and false for a negative number.
  static bool numToBase256(long long value, char* out, int len);
  static bool base256ToNum(long long& out, const char* in, int len);

  // Untar without its frame. The count, or -1.
  int _untar(_mvDataSource& source, bool extract, LogBase& log, ProgressMonitor* pm, ProgressEvent* progress);
  // Exactly `size` bytes from where the source stands into a new file, which gets the times; each may be
  // null. `buffer` is the caller's, of any size above 0.
  bool extractToFile(_mvDataSource& source, const XString& path, const MorvaneFileTime* creation,
                     const MorvaneFileTime* access, const MorvaneFileTime* modification, long long size,
                     char* buffer, unsigned int bufferSize, LogBase& log, ProgressMonitor* pm);
  // UntarFirstMatchingToMemory over any source and output; `logEntries` names each path that is looked at.
  bool _untarFirstMatchingToOutput(_mvDataSource& source, const XString& pattern, _mvOutput& out,
                                   LogBase& log, bool logEntries, ProgressMonitor* pm);
  // The beginning and the end of XmlListing around entries; nothing without CaptureXmlListing.
  void xmlListingInit();
  void xmlListingFinish();
  // Extension records as the component merges them by itself (without FullRead): what a pax record's text
  // says, NUL-terminated, is put into `record`; and what a record staged goes into the header that follows.
  static bool parsePaxExtendedHeader(const char* text, TarHeader& record, LogBase& log);
  static void combineHeaderPaxExtended(TarHeader& following, TarHeader& staged);
  static void combineHeaderLongFilename(TarHeader& following, TarHeader& staged);

 private:
  // Properties, sources and engines, and what the methods have in common.
  struct Inner;
  const std::unique_ptr<Inner> m_inner;
};

}  // namespace morvane
