// ClsTar's extraction of the first matching member into memory.
#include "tar/door/ClsTarMethod.h"
#include "tar/read/FirstMatch.h"

namespace morvane {

// The step. The methods below run in a frame, which a step may not enter a second time.
bool ClsTar::_untarFirstMatchingToOutput(_mvDataSource& source, const XString& pattern, _mvOutput& out,
                                         LogBase& log, bool logEntries, ProgressMonitor* pm) {
  const StepGuard step(*this);
  return step && takeOptions(log) && firstMatchTo(source, pattern, out, log, logEntries, pm);
}

// The pattern is the call's own; MustMatch and MustNotMatch are not asked, only whether case counts.
bool ClsTar::firstMatchTo(_mvDataSource& source, const XString& pattern, _mvOutput& out, LogBase& log,
                          bool logEntries, ProgressMonitor* pm) {
  return copyFirstMatch(source, {pattern, m_matchCaseSensitive, logEntries}, readSettings(), out,
                        Io(log, pm));
}

// Of plain archives, as all of these: in a compressed one no header is found.
bool ClsTar::UntarFirstMatchingToMemory(DataBuffer& tarBytes, const XString& pattern,
                                        DataBuffer& destination) {
  return method("UntarFirstMatchingToMemory", MethodForm::Judged, false, [&](MethodFrame&) {
    _mvMemoryDataSource source;
    source.initializeMemSource(tarBytes.getData2(), tarBytes.getSize());
    // Appending to the archive's own buffer would move it while it is read.
    DataBuffer found;
    const bool sameBuffer = &tarBytes == &destination;
    OutputDataBuffer out(sameBuffer ? found : destination);
    const bool ok = firstMatchTo(source, pattern, out, m_log, m_log.verbose(), nullptr);
    // What was found is appended even if the rest of it did not come.
    return (!sameBuffer || destination.append(found)) && ok;
  });
}

// A path that cannot be opened ends with this line and without a verdict, as applications know it.
bool ClsTar::UntarFirstMatchingToBd(const XString& tarPath, const XString& pattern, ClsBinData& destination) {
  return method("UntarFirstMatchingToBd", MethodForm::Judged, false, [&](MethodFrame& frame) {
    _mvFileDataSource file;
    if (!file.openDataSourceFile(tarPath, m_log)) {
      m_log.LogError("Failed.");
      frame.withoutVerdict();
      return false;
    }
    OutputDataBuffer out(destination.data());
    return firstMatchTo(file, pattern, out, m_log, m_log.verbose(), nullptr);
  });
}

bool ClsTar::UntarFirstMatchingToBd(_mvDataSource& source, const XString& pattern, ClsBinData& destination) {
  return method("UntarFirstMatchingToBd", MethodForm::Judged, false, [&](MethodFrame&) {
    OutputDataBuffer out(destination.data());
    return firstMatchTo(source, pattern, out, m_log, m_log.verbose(), nullptr);
  });
}

}  // namespace morvane
