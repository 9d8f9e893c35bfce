#include "runtime/progress/ProgressEvent.h"

namespace morvane {

ProgressEvent::~ProgressEvent() = default;
void ProgressEvent::onAbortCheck(bool&) {}
void ProgressEvent::onProgress(int, bool&) {}
void ProgressEvent::onInfo(const char*, const char*) {}
void ProgressEvent::onTarEntry(const char*, long long, bool, bool&) {}
void ProgressEvent::onTarHeader(const TarMemberInfo&) {}
void ProgressEvent::onTarMember(TarMember&) {}

}  // namespace morvane
