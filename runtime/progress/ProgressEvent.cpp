// An event that hears everything and does nothing: applications override what they care about. The bodies
// stand here so that the class has its table of functions in the library.
#include "runtime/progress/ProgressEvent.h"

namespace morvane {

// Parameters have no names here, because none is looked at: an application that overrides one of these gets
// what the header says.
ProgressEvent::~ProgressEvent() = default;
void ProgressEvent::onAbortCheck(bool&) {}
void ProgressEvent::onProgress(int, bool&) {}
void ProgressEvent::onTotal(long long) {}
void ProgressEvent::onInfo(const char*, const char*) {}
void ProgressEvent::onTarEntry(const char*, long long, bool, bool&) {}
void ProgressEvent::onTarHeader(const TarMemberInfo&) {}
void ProgressEvent::onTarMember(TarMember&) {}

}  // namespace morvane
