// What an application derives from to follow a call and to stop it.
//
// Every operation has an empty body. Callbacks run on the thread that made the call, with the object's
// recursive lock held: any property of the object may be read and set from them; a working method of the same
// object is refused. A callback that throws fails the call, and nothing escapes it.
#pragma once

#include "runtime/base/Export.h"

namespace morvane {

struct TarMember;
struct TarMemberInfo;

// Owned by the application, which hands it to a call and keeps it until that returns. It may serve several
// calls one after the other, and several objects at a time only where its own code allows that.
class MORVANE_API ProgressEvent {
 public:
  ProgressEvent() = default;
  ProgressEvent(const ProgressEvent&) = default;
  ProgressEvent& operator=(const ProgressEvent&) = default;
  virtual ~ProgressEvent();

  // Asked now and then; setting `abort` to true ends the call as a failure. How often it is asked inside one
  // member's data is ClsBase's AbortCheckMs.
  virtual void onAbortCheck(bool& abort);
  // `percent` runs from 0 to ClsBase's PercentScale and never decreases. Sent only when the total work is
  // known.
  virtual void onProgress(int percent, bool& abort);
  // Sent once before the first onProgress: how many bytes the whole of PercentScale stands for, of the
  // archive when reading, of the sources when writing.
  virtual void onTotal(long long bytes);
  // A named piece of information, both texts UTF-8 and valid during the call.
  virtual void onInfo(const char* name, const char* value);
  // Sent before a file or directory is added to an archive (path: its local path) and before an entry is
  // extracted (path: where it will be written). Setting `skip` to true leaves it out.
  virtual void onTarEntry(const char* path, long long size, bool isDirectory, bool& skip);
  // Reading only: what the archive says of each member, sent before path rules, filters and onTarEntry.
  virtual void onTarHeader(const TarMemberInfo& member);
  // With the word MemberEvents, in both directions: a member that is about to be written or extracted, behind
  // the filters and onTarEntry. It may be changed, renamed or skipped (runtime/progress/TarMember.h).
  virtual void onTarMember(TarMember& member);
};

}  // namespace morvane
