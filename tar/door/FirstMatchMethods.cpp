// ClsTar's extraction of the first matching member into memory.
#include "tar/door/ClsTarInner.h"
#include "tar/read/FirstMatch.h"

namespace morvane {

// The step. The methods below run in a frame, which a step may not enter a second time.
bool ClsTar::_untarFirstMatchingToOutput(_mvDataSource& source, const XString& pattern, _mvOutput& out,
                                         LogBase& log, bool logEntries, ProgressMonitor* pm) {
  const StepGuard step(*this);
  return step && m_inner->takeOptions(log) &&
         m_inner->firstMatchTo(source, pattern, out, logEntries, Io(log, pm));
}

// The pattern is the call's own; MustMatch and MustNotMatch are not asked, only whether case counts.
bool ClsTar::Inner::firstMatchTo(_mvDataSource& source, const XString& pattern, _mvOutput& out,
                                 bool logEntries, const Io& io) {
  return copyFirstMatch(source, {pattern, m_matchCaseSensitive, logEntries}, readSettings(), out, io);
}

// Of plain archives, as all of these: in a compressed one no header is found.
bool ClsTar::UntarFirstMatchingToMemory(DataBuffer& tarBytes, const XString& pattern,
                                        DataBuffer& destination) {
  return m_inner->method("UntarFirstMatchingToMemory", MethodForm::Judged, false, [&](MethodFrame&) {
    _mvMemoryDataSource source;
    // The archive is read where it lies and is not copied.
    source.initializeMemSource(tarBytes.getData2(), tarBytes.getSize());
    // Appending to the archive's own buffer would move it while it is read.
    DataBuffer found;
    const bool sameBuffer = &tarBytes == &destination;
    OutputDataBuffer out(sameBuffer ? found : destination);
    const bool ok = m_inner->firstMatchTo(source, pattern, out, m_log.verbose(), Io(m_log));
    // What was found is appended even if the rest of it did not come.
    return (!sameBuffer || destination.append(found)) && ok;
  });
}

// A path that cannot be opened ends with this line and without a verdict, as applications know it.
bool ClsTar::UntarFirstMatchingToBd(const XString& tarPath, const XString& pattern, ClsBinData& destination) {
  return m_inner->method("UntarFirstMatchingToBd", MethodForm::Judged, false, [&](MethodFrame& frame) {
    _mvFileDataSource file;
    if (!file.openDataSourceFile(tarPath, m_log)) {
      m_log.LogError("Failed.");
      frame.withoutVerdict();
      return false;
    }
    OutputDataBuffer out(destination.data());
    return m_inner->firstMatchTo(file, pattern, out, m_log.verbose(), Io(m_log));
  });
}

// A caller's source is open already, so that there is nothing but the scan's own result to tell.
bool ClsTar::UntarFirstMatchingToBd(_mvDataSource& source, const XString& pattern, ClsBinData& destination) {
  return m_inner->method("UntarFirstMatchingToBd", MethodForm::Judged, false, [&](MethodFrame&) {
    OutputDataBuffer out(destination.data());
    return m_inner->firstMatchTo(source, pattern, out, m_log.verbose(), Io(m_log));
  });
}

}  // namespace morvane
