// ClsTar's Debian packages: an ar archive of debian-binary, the control tarball and the data tarball.
#include <new>

#include "runtime/fs/Psdk.h"
#include "tar/door/ClsTarInner.h"
#include "tar/format/ArFormat.h"

namespace morvane {

namespace {

// Texts here are headers and file names: short.
bool append(DataBuffer& package, std::string_view text) {
  return package.append(text.data(), static_cast<unsigned>(text.size()));
}

// By the suffix alone: anything but ".xz" is named ".gz". dpkg goes by the member's name and not by its
// content, and gzip is what old ones know.
std::string memberName(const char* stem, const XString& path) {
  return std::string(stem) + (path.endsWithUtf8(".xz", false) ? ".tar.xz" : ".tar.gz");
}

// A member of odd size is followed by a newline, as ar has it, so that the next header lies at an even
// position (deb(5), ar(5)). A NUL in a path would be the end of it for the system.
bool appendTarball(DataBuffer& package, const char* stem, const XString& path, long long now, LogBase& log) {
  DataBuffer tarball;
  if (!isSystemPath(path, "Failed to open file.", log) || !tarball.loadFileUtf8(path.getUtf8(), &log))
    return false;
  const bool fits = append(package, arMemberHeader(memberName(stem, path), now, tarball.getSize())) &&
                    package.append(tarball) && (package.getSize() % 2 == 0 || package.appendChar('\n'));
  if (!fits) log.LogError("Out of memory for the package.");
  return fits;
}

// The order of members is the format's: dpkg reads them one behind the other. All have one time, that of the
// call.
bool assemble(const XString& controlPath, const XString& dataPath, DataBuffer& package, LogBase& log) {
  constexpr std::string_view kFormatVersion = "2.0\n";
  const long long now = Psdk::getCurrentUnixTime();
  const bool begun = append(package, kArGlobalHeader) &&
                     append(package, arMemberHeader("debian-binary", now, kFormatVersion.size())) &&
                     append(package, kFormatVersion);
  // These few bytes fail for lack of memory alone; the frame has words for that.
  if (!begun) throw std::bad_alloc();
  return appendTarball(package, "control", controlPath, now, log) &&
         appendTarball(package, "data", dataPath, now, log);
}

}  // namespace

// Nothing is created before the whole package is there: a tarball that is missing leaves no file behind.
bool ClsTar::CreateDeb(const XString& controlPath, const XString& dataPath, const XString& debPath) {
  return m_inner->method("CreateDeb", MethodForm::Judged, false, [&](MethodFrame&) {
    DataBuffer package;
    return assemble(controlPath, dataPath, package, m_log) && isSystemPath(debPath, kCannotCreate, m_log) &&
           package.saveToFileUtf8(debPath.getUtf8(), &m_log);
  });
}

// The output hears that it is complete, so that one that buffers can say whether it is.
bool ClsTar::CreateDeb(const XString& controlPath, const XString& dataPath, _mvOutput& out) {
  return m_inner->method("CreateDeb", MethodForm::Judged, false, [&](MethodFrame&) {
    DataBuffer package;
    return assemble(controlPath, dataPath, package, m_log) && out.writeDbPM(package, nullptr, m_log) &&
           out.announceOutputFinished(m_log);
  });
}

}  // namespace morvane
