// What a ClsTar object holds and what its methods have in common, behind the public face: ClsTar.h shows none
// of it, so that an application compiles without the engines.
//
// Included by the files of door only. A method runs `m_inner->method(...)`, which is the library's frame with
// the option words taken at its start.
// It knows every engine but no detail of the formats. What may be read and set from another thread or from a
// callback is said at the members at its end: nothing else here may be used by two threads at a time, and the
// frame's lock sees to that. The streaming steps alone take no lock; ClsTar.h leaves it to their callers to
// keep them apart.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "runtime/base/ExtPtrArray.h"
#include "runtime/base/RelaxedAtomic.h"
#include "runtime/codec/Compression.h"
#include "runtime/component/MethodFrame.h"
#include "runtime/fs/mvFileInfo.h"
#include "runtime/io/Io.h"
#include "runtime/log/LogContextExitor.h"
#include "runtime/progress/ProgressMonitor.h"
#include "runtime/text/ExtPtrArraySb.h"
#include "tar/ClsTar.h"
#include "tar/settings/LiveSettings.h"
#include "tar/settings/ReadSettings.h"
#include "tar/stream/StreamingUntar.h"
#include "tar/write/ArchiveOutput.h"
#include "tar/write/WriteRun.h"

namespace morvane {

// One for each object, made with it and gone with it. Texts and lists are kept under the object's lock;
// numbers are atomics, set without it. It refers to its ClsTar, and so can neither be copied nor moved.
// Functions return false (or -1) for failures with the reason in m_log, and may throw std::bad_alloc, which
// the frame turns into a line.
struct ClsTar::Inner {
  explicit Inner(ClsTar& tar);
  Inner(const Inner&) = delete;
  Inner& operator=(const Inner&) = delete;

  // `work(frame)` does a public method's own part and returns what the method returns; it does not run when
  // the words are unusable. What the last method left out is forgotten first, so that a method which fails
  // before it begins does not show the answer of another one. `failure` is what is returned where the work
  // did not run or threw. The lock is held all the time.
  template <class Result, class Work>
  Result method(const char* name, MethodForm form, Result failure, Work work) {
    return MethodFrame(m_tar, name, form).run(failure, [&](MethodFrame& frame) {
      m_onlyLeftOut = false;
      return takeOptions(m_log) ? work(frame) : failure;
    });
  }
  // UncommonOptions are parsed when they were set since the last call. False, with the words in the log,
  // while any is unusable. The streaming steps, which have no frame, call it themselves.
  [[nodiscard]] bool takeOptions(LogBase& log);

  // How a run sees the properties: as copies. They throw std::bad_alloc where a property has another value
  // than it was given. The second looks the user up, too.
  ReadSettings readSettings() const;
  WriteSettings writeSettings() const;
  // The same, taken anew when any was set: as they are, for one member into an output, and with every check
  // that there is. They refer to this object. `extract` false suppresses all output.
  LiveSettings<ReadSettings> liveReadSettings() const;
  LiveSettings<ReadSettings> liveMemberSettings() const;
  LiveSettings<ReadSettings> liveCheckedSettings(bool extract) const;
  LiveSettings<WriteSettings> liveWriteSettings() const;
  // Looks at the two patterns anew, because names without a "*" have rules of their own. Methods that write,
  // and those that read compressed archives, begin with it.
  void setMatchPatternExactFlags();
  // A property is set without the lock; the count of changes tells a run that goes on. Any thread may call
  // it.
  template <class Value>
  void set(RelaxedAtomic<Value>& property, Value value) {
    property = value;
    m_tar.changed();
  }
  // Copies a text under the lock.
  void getString(const XString& property, XString& out);
  // Fills in the user's and the group's name where they were not set. Why it could not is left in
  // m_userLookupError; a failed look-up is tried again by the next call.
  void lookUpUser() const;

  // Sources: looked at and put into their lists. Without a prefix it is null. False, with the reason in the
  // log; then nothing was added.
  bool addDirRoot(const XString* pathPrefix, const XString& dirPath);
  // A single file in its stored form (write/SourceEntry.h).
  bool addEntry(const std::string& entry);

  // Writing. An archive goes to the file at a path, which the log shows under a tag, or to an output.
  struct ArchivePlace {
    // A literal; null with an output.
    const char* pathTag;
    const XString* path;  // null: to the output
    // Not owned. Null: to the path.
    _mvOutput* out;
  };
  // A whole writing method under its name. It opens and closes a file; an output of the caller's is flushed
  // and stays open.
  bool writeMethod(const char* name, Compression compression, const ArchivePlace& place,
                   ProgressEvent* progress);
  // Its steps, in their order. False is a failure, or a write that has left something out: the last two tell
  // that apart, in m_onlyLeftOut and in anythingLost.
  // A notice in the log and for the event, where owners have to be written without names.
  void sayWhenUserIsUnknown(ProgressEvent* progress);
  // What writing and appending do before anything is opened. `unusable` is the error line for a path that no
  // file can have; `total` is in bytes of data, and stays 0 without an event.
  bool prepareWrite(const ArchivePlace& place, const char* unusable, ProgressEvent* progress,
                    long long& total);
  // False also for an application that aborts.
  bool countSources(ProgressEvent* progress, long long& total);
  // The archive with what its compression puts around it, flushed at the end.
  bool writeFramed(_mvOutput& out, Compression compression, const Io& io);
  // `anythingLost` is set in any case. Where the result is true as well, the archive is whole and lacks
  // members, or parts of some.
  bool writeAllMembers(_mvOutput& out, const Io& io, bool& anythingLost);
  // Appending: the same around a file whose end is found first, counted from its start. A failure leaves the
  // file as it was.
  bool appendMethod(const XString& tarPath, ProgressEvent* progress);
  // `end` is in bytes from the file's start and is left at what it was for an empty file.
  bool findEndOfArchive(const OsFile& file, const XString& path, const Io& io, long long& end);
  // A header by itself, by `write(writer, member)`. It works in whatever log `io` has, since it is a step and
  // no method.
  template <class Write>
  bool writeDescribed(XString& path, const mvFileInfo& info, const Io& io, Write write);

  // Reading plain archives: the run, and the run with progress and its lines in the log. They return the
  // count of members, or -1. The second tells progress over the source's bytes, where their number is known.
  int untarSource(_mvDataSource& source, bool extract, const Io& io);
  int untarWithProgress(_mvDataSource& source, bool extract, ProgressEvent* progress);
  // The data of members into an output: of the first that is wanted, or of all. False where none was wanted
  // or one is not whole; `out` is flushed and stays open.
  bool membersFromPath(const char* name, const XString& tarPath, _mvOutput& out, bool firstAlone,
                       ProgressEvent* progress);
  bool membersFromSource(const char* name, _mvDataSource& source, _mvOutput& out, bool firstAlone,
                         ProgressEvent* progress);
  bool membersToOutput(_mvDataSource& source, _mvOutput& out, bool firstAlone, ProgressEvent* progress);
  // The first match, and a listing, which goes through `drain` as it comes where there is one. It appends to
  // `out`. The caller's lists are replaced by listXml at its start.
  bool firstMatchTo(_mvDataSource& source, const XString& pattern, _mvOutput& out, bool logEntries,
                    const Io& io);
  bool listXml(_mvDataSource& source, XString& outXml, _mvOutput* drain, ProgressEvent* progress);

  // Reading compressed ones. A function for each compression; the rest is common to all of them.
  using Decompress = bool (Inner::*)(_mvDataSource&, const Io& io);
  // `name` is the method's, a literal.
  bool untarCompressedFile(const char* name, const XString& path, ProgressEvent* progress,
                           Decompress decompress);
  bool untarCompressedSource(const char* name, _mvDataSource& source, ProgressEvent* progress,
                             Decompress decompress);
  bool untarCompressed(_mvDataSource& source, ProgressEvent* progress, Decompress decompress);
  // A run over m_archiveSource begins: the engine forgets the last one. And the archive itself must not be
  // replaced by one of its members. Neither can fail: a file of which the system tells nothing is just not
  // protected.
  void beginFramedRun(LogBase& log);
  bool finishFramedRun(const Io& io);
  void protectArchive(LogBase& log);
  // One for each, source to engine. gzip and compress always as a run of their own; bzip2 only with the word
  // Bz2Framed.
  bool inflateTar(_mvDataSource& source, const Io& io);
  bool expandTarBz2(_mvDataSource& source, const Io& io);
  bool expandTarZ(_mvDataSource& source, const Io& io);
  // Expands into m_stream, whose run the caller has begun and ends.
  bool extractFrom(_mvDataSource& source, Compression compression, const Io& io);
  // Any compression, with every check; `expected` is None for whichever the content says. These use an engine
  // of their own and leave m_stream as it is.
  bool untarCheckedPath(const char* name, const XString& path, Compression expected, bool extract,
                        ProgressEvent* progress);
  bool untarCheckedSource(const char* name, _mvDataSource& source, Compression expected, bool extract,
                          ProgressEvent* progress);
  bool untarChecked(_mvDataSource& source, Compression expected, bool extract, ProgressEvent* progress);

  // The object itself, which owns this, and what of its base the functions here use all the time. It outlives
  // this object.
  ClsTar& m_tar;
  _mvLogger& m_log;
  // The two numbers are read where they are, so that a callback may set them during a run.
  const RelaxedAtomic<int>&m_abortCheckMs, &m_percentScale;

  // Properties; each is what the setter of that name sets, with the default that ClsTar.h states. The two
  // formats exclude each other; neither is gnu. Texts change under the lock alone, scalars at any time; a run
  // sees neither before it takes its settings anew.
  RelaxedAtomic<bool> m_suppressOutput = false;
  RelaxedAtomic<bool> m_captureXmlListing = false;
  XString m_xmlListing;
  XString m_charset = "utf-8";
  XString m_writeFormat = "gnu";
  bool m_formatPax = false;
  bool m_formatUstar = false;
  RelaxedAtomic<int> m_dirMode = 0755;
  RelaxedAtomic<int> m_fileMode = 0644;
  RelaxedAtomic<int> m_scriptFileMode = 0755;
  RelaxedAtomic<int> m_groupId = 1000;
  RelaxedAtomic<int> m_userId = 1000;
  // Until they are set, the name of the user running the process, which is looked up when it is first needed:
  // reading an archive does not need the user database. They are mutable because a getter, and a run that
  // only copies its settings, may be the first to need them.
  mutable XString m_userName;
  mutable XString m_groupName;
  mutable bool m_userNameIsSet = false, m_groupNameIsSet = false;
  mutable int m_userLookupError = 0;  // an errno
  XString m_mustMatch;
  XString m_mustNotMatch;
  // Of the two patterns, as setMatchPatternExactFlags found them.
  bool m_mustMatchExact = false;
  bool m_mustNotMatchExact = false;
  RelaxedAtomic<bool> m_matchCaseSensitive = false;
  XString m_dirPrefix;
  XString m_untarFromDir = ".";
  RelaxedAtomic<int> m_untarMaxCount = 0;
  RelaxedAtomic<bool> m_untarDiscardPaths = false;
  RelaxedAtomic<bool> m_noAbsolutePaths = true;
  RelaxedAtomic<bool> m_untarDebugLog = false;
  // Of the last method. Set when the work of a method ends, and asked between methods.
  RelaxedAtomic<bool> m_onlyLeftOut = false;
  // The words of UncommonOptions as they were last parsed. Parsed again only when the text has been set
  // since: m_optionsTaken tells. They are kept while any word is unusable, because each method has to
  // complain of it anew.
  TarOptions m_options;
  unsigned m_optionsTaken = 0;               // as m_uncommonOptionsChanges counts
  std::vector<std::string> m_unusableWords;  // of the options

  // Sources, in the order in which they were added. A file in memory is an entry of a type of its own
  // (MemoryFile). The lists own their elements, and methods that would change them are refused while a write
  // walks over them.
  ExtPtrArraySb m_files;
  ExtPtrArray m_dirRoots;

  // Engines, and what runs over them. They are made with the object, and hold neither files nor threads
  // between methods, but for a streaming run that is not finished.
  ArchiveOutput m_archive;   // where archive bytes go while writing
  XString m_curDirRootPath;  // the root that is being walked
  // Its run goes on from call to call; it takes its settings from the properties above. Other engines are
  // made on the stack of a method.
  StreamingUntar m_stream;
  // Borrowed for the length of a method, so that the archive can be protected from its own members.
  const _mvFileDataSource* m_archiveSource = nullptr;  // while a compressed archive is read from a file
};

}  // namespace morvane
