// What a ClsTar object holds and what its methods have in common, behind the public face: ClsTar.h shows none
// of it, so that an application compiles without the engines.
//
// Included by the files of door only. A method runs `m_inner->method(...)`, which is the library's frame with
// the option words taken at its start.
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
// numbers are atomics, set without it.
struct ClsTar::Inner {
  explicit Inner(ClsTar& tar);
  Inner(const Inner&) = delete;
  Inner& operator=(const Inner&) = delete;

  // `work(frame)` does a public method's own part and returns what the method returns; it does not run when
  // the words are unusable. What the last method left out is forgotten first, so that a method which fails
  // before it begins does not show the answer of another one.
  template <class Result, class Work>
  Result method(const char* name, MethodForm form, Result failure, Work work) {
    return MethodFrame(m_tar, name, form).run(failure, [&](MethodFrame& frame) {
      m_onlyLeftOut = false;
      return takeOptions(m_log) ? work(frame) : failure;
    });
  }
  // UncommonOptions are parsed when they were set since the last call. False, with the words in the log,
  // while any is unusable.
  [[nodiscard]] bool takeOptions(LogBase& log);

  // How a run sees the properties: as copies. They throw std::bad_alloc where a property has another value
  // than it was given.
  ReadSettings readSettings() const;
  WriteSettings writeSettings() const;
  // The same, taken anew when any was set: as they are, for one member into an output, and with every check
  // that there is. They refer to this object.
  LiveSettings<ReadSettings> liveReadSettings() const;
  LiveSettings<ReadSettings> liveMemberSettings() const;
  LiveSettings<ReadSettings> liveCheckedSettings(bool extract) const;
  LiveSettings<WriteSettings> liveWriteSettings() const;
  // Looks at the two patterns anew, because names without a "*" have rules of their own.
  void setMatchPatternExactFlags();
  // A property is set without the lock; the count of changes tells a run that goes on.
  template <class Value>
  void set(RelaxedAtomic<Value>& property, Value value) {
    property = value;
    m_tar.changed();
  }
  void getString(const XString& property, XString& out);
  // Fills in the user's and the group's name where they were not set.
  void lookUpUser() const;

  // Sources: looked at and put into their lists. Without a prefix it is null.
  bool addDirRoot(const XString* pathPrefix, const XString& dirPath);
  bool addEntry(const std::string& entry);

  // Writing. An archive goes to the file at a path, which the log shows under a tag, or to an output.
  struct ArchivePlace {
    const char* pathTag;
    const XString* path;  // null: to the output
    _mvOutput* out;
  };
  // A whole writing method under its name.
  bool writeMethod(const char* name, Compression compression, const ArchivePlace& place,
                   ProgressEvent* progress);
  // Its steps, in their order. The last two tell what was left out: in m_onlyLeftOut, and in anythingLost.
  void sayWhenUserIsUnknown(ProgressEvent* progress);
  // What both do before anything is opened; `unusable` says what a path that is none keeps from being done.
  bool prepareWrite(const ArchivePlace& place, const char* unusable, ProgressEvent* progress,
                    long long& total);
  bool countSources(ProgressEvent* progress, long long& total);
  bool writeFramed(_mvOutput& out, Compression compression, const Io& io);
  bool writeAllMembers(_mvOutput& out, const Io& io, bool& anythingLost);
  // Appending: the same around a file whose end is found first, counted from its start.
  bool appendMethod(const XString& tarPath, ProgressEvent* progress);
  bool findEndOfArchive(const OsFile& file, const XString& path, const Io& io, long long& end);
  // A header by itself, by `write(writer, member)`.
  template <class Write>
  bool writeDescribed(XString& path, const mvFileInfo& info, const Io& io, Write write);

  // Reading plain archives: the run, and the run with progress and its lines in the log. They return the
  // count of members, or -1.
  int untarSource(_mvDataSource& source, bool extract, const Io& io);
  int untarWithProgress(_mvDataSource& source, bool extract, ProgressEvent* progress);
  // The data of members into an output: of the first that is wanted, or of all.
  bool membersFromPath(const char* name, const XString& tarPath, _mvOutput& out, bool firstAlone,
                       ProgressEvent* progress);
  bool membersFromSource(const char* name, _mvDataSource& source, _mvOutput& out, bool firstAlone,
                         ProgressEvent* progress);
  bool membersToOutput(_mvDataSource& source, _mvOutput& out, bool firstAlone, ProgressEvent* progress);
  // The first match, and a listing, which goes through `drain` as it comes where there is one.
  bool firstMatchTo(_mvDataSource& source, const XString& pattern, _mvOutput& out, bool logEntries,
                    const Io& io);
  bool listXml(_mvDataSource& source, XString& outXml, _mvOutput* drain, ProgressEvent* progress);

  // Reading compressed ones. A function for each compression; the rest is common to all of them.
  using Decompress = bool (Inner::*)(_mvDataSource&, const Io& io);
  bool untarCompressedFile(const char* name, const XString& path, ProgressEvent* progress,
                           Decompress decompress);
  bool untarCompressedSource(const char* name, _mvDataSource& source, ProgressEvent* progress,
                             Decompress decompress);
  bool untarCompressed(_mvDataSource& source, ProgressEvent* progress, Decompress decompress);
  // A run over m_archiveSource begins: the engine forgets the last one. And the archive itself must not be
  // replaced by one of its members.
  void beginFramedRun(LogBase& log);
  void protectArchive(LogBase& log);
  // One for each, source to engine.
  bool inflateTar(_mvDataSource& source, const Io& io);
  bool expandTarBz2(_mvDataSource& source, const Io& io);
  bool expandTarZ(_mvDataSource& source, const Io& io);
  bool extractFrom(_mvDataSource& source, Compression compression, const Io& io);
  // Any compression, with every check; `expected` is None for whichever the content says.
  bool untarCheckedPath(const char* name, const XString& path, Compression expected, bool extract,
                        ProgressEvent* progress);
  bool untarCheckedSource(const char* name, _mvDataSource& source, Compression expected, bool extract,
                          ProgressEvent* progress);
  bool untarChecked(_mvDataSource& source, Compression expected, bool extract, ProgressEvent* progress);

  // The object itself, which owns this, and what of its base the functions here use all the time.
  ClsTar& m_tar;
  _mvLogger& m_log;
  const RelaxedAtomic<int>&m_abortCheckMs, &m_percentScale;

  // Properties; each is what the setter of that name sets, with the default that ClsTar.h states. The two
  // formats exclude each other; neither is gnu.
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
  // reading an archive does not need the user database.
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
  // Of the last method.
  RelaxedAtomic<bool> m_onlyLeftOut = false;
  // The words of UncommonOptions as they were last parsed.
  TarOptions m_options;
  unsigned m_optionsTaken = 0;               // as m_uncommonOptionsChanges counts
  std::vector<std::string> m_unusableWords;  // of the options

  // Sources, in the order in which they were added.
  ExtPtrArraySb m_files;
  ExtPtrArray m_dirRoots;

  // Engines, and what runs over them.
  ArchiveOutput m_archive;   // where archive bytes go while writing
  XString m_curDirRootPath;  // the root that is being walked
  // Its run goes on from call to call; it takes its settings from the properties above.
  StreamingUntar m_stream;
  const _mvFileDataSource* m_archiveSource = nullptr;  // while a compressed archive is read from a file
};

}  // namespace morvane
