// The common base of the library's public classes: log, lock, progress settings, and the frame of public
// methods (runtime/component/MethodFrame.h).
//
// Threads: one object may be used from several. Public methods and string properties hold the object's lock
// for their whole run; scalar properties are read and written without it.
#pragma once

#include <atomic>
#include <string_view>
#include <thread>

#include "runtime/base/Export.h"
#include "runtime/base/MorvaneCritSec.h"
#include "runtime/base/RelaxedAtomic.h"
#include "runtime/log/_mvLogger.h"
#include "runtime/text/XString.h"

namespace morvane {

// Callbacks run with the lock held by their own thread, which may therefore read and set every property of
// the object.
class MORVANE_API ClsBase : public MorvaneCritSec {
 public:
  // `className` must outlive the object; a string literal does. For derived classes, which bring the
  // methods.
  explicit ClsBase(const char* className);
  ClsBase(const ClsBase&) = delete;
  ClsBase& operator=(const ClsBase&) = delete;
  virtual ~ClsBase();

  virtual void _toString(XString& out);  // the class's name
  // Put a line into the log as it stands: an info line, "text: true" or "text: false" / an error line, "tag:
  // text". Texts are UTF-8 and may be null.
  virtual void injectStatus(const char* text, bool ok);
  virtual void injectError(const char* tag, const char* text);
  // Opt-in behaviour: words separated by commas, "Word" or "Word=value", case ignored; docs/options.md lists
  // them. Each call replaces the whole set. While a word is not known, or has a value that makes no sense,
  // every method fails before it does anything, with an error line that names the word: a misspelt Confine
  // must not let an archive out.
  virtual void put_UncommonOptions(XString& words);
  void put_UncommonOptions(const char* words);
  // Whether data lines that explain a run in detail are logged. Off unless set; it may be set during a run.
  virtual bool get_VerboseLogging();
  virtual void put_VerboseLogging(bool verbose);
  // Setters never throw. A text for which there was no memory is not set, and until it is, methods fail.
  // Getters of texts, get_LogText and get_FailureCause among them, throw std::bad_alloc where there is no
  // memory for the copy.

  // Called by bindings for garbage-collected languages; does nothing.
  virtual void dotNetDispose();
  // Where the finished log of each method is appended; empty (the default) appends it nowhere. A file that
  // cannot be opened or written is passed over silently.
  virtual void get_DebugLogFilePath(XString& out);
  // Missing directories are not made. Several objects may name the same file: each of them appends.
  virtual void put_DebugLogFilePath(XString& path);

  // The words as they were set, also while they are unusable.
  void get_UncommonOptions(XString& out);
  // The log of the last public method; from a callback, that of the running one so far. Empty before the
  // first one. Another thread that asks waits for the running method's end.
  void get_LogText(XString& out);

  // Why the last method failed, in short: the path it is about (may be empty) and one line of text, the
  // system's own reason where there is one. Both empty when no error was logged. Both texts are UTF-8 and
  // belong to the caller; what was in them is replaced.
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
  // 0 or less: no percentage is sent. Taken when a method begins. Any int will do; a larger scale only
  // brings more calls.
  void put_PercentScale(int scale) { m_percentScale = scale; }

  // Opens a public method's context: the log of the previous method is discarded, the context always
  // appears. `name` must outlive the method.
  void enterContextBase(const char* name);
  // For the frame of a method, called under the lock; applications have no need of these.
  void logSuccessFailure(bool ok);
  void logMorvaneVersion(LogBase& log);

  // The component's own log, for code that writes into the object as an output (see ClsTar's streaming
  // operations). It is written by one thread at a time: that of the method or step which is running.
  _mvLogger& log() { return m_log; }

 protected:
  // False in an object that was destroyed, as far as that can be told.
  bool isAlive() const { return m_validity == kAlive; }
  // Tells a run that goes on that a property was set. To be called behind the setting.
  void changed() { m_changes.increment(); }

  // Sets a text property, under the lock. The property must be a member that lives as long as the object,
  // because it is remembered by its address.
  void putText(XString& property, std::string_view value) noexcept;
  // Whether a property has another value than it was given, for lack of memory.
  bool hasUnsetText() const { return m_unsetCount > 0; }

  // Counts settings of any property, for runs that go on (LiveSettings).
  ChangeCount m_changes;
  _mvLogger m_log;
  RelaxedAtomic<int> m_abortCheckMs = 100;
  RelaxedAtomic<int> m_percentScale = 100;
  XString m_uncommonOptions;
  ChangeCount m_uncommonOptionsChanges;  // so that a derived class knows when to read the words again

 private:
  friend class MethodFrame;
  friend class StepGuard;
  static constexpr unsigned kAlive = 0x4C495645;

  // At the end of each method, under the lock, with the log complete.
  void appendToDebugLogFile();

  // kAlive until the destructor ran.
  unsigned m_validity = kAlive;
  const char* const m_className;
  XString m_debugLogFilePath;
  // The threads that are in a method (which holds the lock) and in a step of it (which does not): what one of
  // them calls of the same object, it calls from a callback. Atomic, because any thread may ask before it has
  // the lock; it compares with its own id alone, which no other thread writes, so that no order matters.
  std::atomic<std::thread::id> m_methodRunner{}, m_stepRunner{};
  const char* m_endedBy = nullptr;  // what was thrown in the last method, in words that take no memory
  static constexpr unsigned kTextProperties = 16;  // more than any class has
  // Under the lock, as the texts themselves. Addresses, so that a property is found again when it is set
  // after all.
  const XString* m_unset[kTextProperties] = {};
  unsigned m_unsetCount = 0;
};

}  // namespace morvane
