// The common base of the library's public classes: log, lock, progress settings, and the frame of public
// methods (runtime/component/MethodFrame.h).
//
// Threads: one object may be used from several. Public methods and string properties hold the object's lock
// for their whole run; scalar properties are read and written without it.
#pragma once

#include "runtime/base/Export.h"
#include "runtime/base/MorvaneCritSec.h"
#include "runtime/base/RelaxedAtomic.h"
#include "runtime/log/LogContextExitor.h"
#include "runtime/log/_mvLogger.h"
#include "runtime/text/XString.h"

namespace morvane {

class MORVANE_API ClsBase : public MorvaneCritSec {
 public:
  explicit ClsBase(const char* className);
  ClsBase(const ClsBase&) = delete;
  ClsBase& operator=(const ClsBase&) = delete;
  virtual ~ClsBase();

  virtual void _toString(XString& out);  // the class's name
  // Put a line into the log as it stands: an info line, "text: true" or "text: false" / an error line, "tag:
  // text".
  virtual void injectStatus(const char* text, bool ok);
  virtual void injectError(const char* tag, const char* text);
  // Opt-in behaviour: words separated by commas, "Word" or "Word=value", case ignored; docs/options.md lists
  // them. Each call replaces the whole set. A word that is not known, or whose value makes no sense, is named
  // once by an error line in the log of the next method.
  virtual void put_UncommonOptions(XString& words);
  void put_UncommonOptions(const char* words);
  virtual bool get_VerboseLogging();
  virtual void put_VerboseLogging(bool verbose);
  // Called by bindings for garbage-collected languages; does nothing.
  virtual void dotNetDispose();
  // Where the finished log of each method is appended; empty (the default) appends it nowhere.
  virtual void get_DebugLogFilePath(XString& out);
  virtual void put_DebugLogFilePath(XString& path);

  void get_UncommonOptions(XString& out);
  // The log of the last public method; from a callback, that of the running one so far.
  void get_LogText(XString& out);

  // Why the last method failed, in short: the path it is about (may be empty) and one line of text, the
  // system's own reason where there is one. Both empty when no error was logged.
  void get_FailureCause(XString& path, XString& reason);

  // How often, in milliseconds, an event is asked to abort inside a member's data. 0 switches off every check
  // that depends on this setting: only the questions after a written member, in the counting pass and before
  // writing remain. Default 100.
  int get_AbortCheckMs() const { return m_abortCheckMs; }
  void put_AbortCheckMs(int milliseconds) {
    m_abortCheckMs = milliseconds;
    changed();
  }
  // What a whole job counts as in ProgressEvent::onProgress. Default 100.
  int get_PercentScale() const { return m_percentScale; }
  void put_PercentScale(int scale) { m_percentScale = scale; }

  // Opens a public method's context: the log of the previous method is discarded, the context always appears.
  void enterContextBase(const char* name);
  void logSuccessFailure(bool ok);
  void logMorvaneVersion(LogBase& log);

  // The component's own log, for code that writes into the object as an output (see ClsTar's streaming
  // operations).
  _mvLogger& log() { return m_log; }

 protected:
  bool isAlive() const { return m_validity == kAlive; }
  // Tells a run that goes on that a property was set.
  void changed() { m_changes.increment(); }

  RelaxedAtomic<unsigned> m_changes = 0;
  _mvLogger m_log;
  RelaxedAtomic<int> m_abortCheckMs = 100;
  RelaxedAtomic<int> m_percentScale = 100;
  XString m_uncommonOptions;
  unsigned m_uncommonOptionsChanges =
      0;  // counts, so that a derived class knows when to read the words again

 private:
  friend class MethodFrame;
  static constexpr unsigned kAlive = 0x4C495645;

  void appendToDebugLogFile();

  unsigned m_validity = kAlive;
  const char* const m_className;
  XString m_debugLogFilePath;
  bool m_methodRunning = false;  // under the lock
};

}  // namespace morvane
