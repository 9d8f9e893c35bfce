// ClsTar's methods over plain archives, and the steps they are made of.
#include <algorithm>

#include "runtime/fs/Psdk.h"
#include "tar/door/ClsTarInner.h"
#include "tar/format/PaxRecords.h"
#include "tar/read/ExtractToFile.h"
#include "tar/read/UntarRun.h"

namespace morvane {

namespace {

// The log of a path that cannot be opened ends with this, and has no verdict.
bool openArchive(_mvFileDataSource& file, const XString& path, ProgressMonitor* pm, MethodFrame& frame,
                 LogBase& log) {
  if (file.openDataSourceFile(path, log, pm)) return true;
  log.LogError("Failed.");
  frame.withoutVerdict();
  return false;
}

}  // namespace

// Opening may wait, for a FIFO or a network, and is watched by a monitor of its own: the real one needs the
// size first.
int ClsTar::Untar(const XString& tarPath, ProgressEvent* progress) {
  return m_inner->method("Untar", MethodForm::Judged, -1, [&](MethodFrame& frame) {
    ProgressMonitorPtr waiting(progress, m_abortCheckMs, m_percentScale, 0);
    _mvFileDataSource file;
    return openArchive(file, tarPath, waiting.getPm(), frame, m_log)
               ? m_inner->untarWithProgress(file, true, progress)
               : -1;
  });
}

// A source is open already, and its end is the caller's.
int ClsTar::Untar(_mvDataSource& source, ProgressEvent* progress) {
  return m_inner->method("Untar", MethodForm::Judged, -1,
                         [&](MethodFrame&) { return m_inner->untarWithProgress(source, true, progress); });
}

// An untar that does not extract, and its count is of no interest.
bool ClsTar::VerifyTar(const XString& tarPath, ProgressEvent* progress) {
  return m_inner->method("VerifyTar", MethodForm::Judged, false, [&](MethodFrame& frame) {
    m_log.LogDataX("filepath", tarPath);
    ProgressMonitorPtr waiting(progress, m_abortCheckMs, m_percentScale, 0);
    _mvFileDataSource file;
    return openArchive(file, tarPath, waiting.getPm(), frame, m_log) &&
           m_inner->untarWithProgress(file, false, progress) >= 0;
  });
}

// A path is one of the inputs that the log shows; a source has nothing to be shown by.
bool ClsTar::VerifyTar(_mvDataSource& source, ProgressEvent* progress) {
  return m_inner->method("VerifyTar", MethodForm::Judged, false, [&](MethodFrame&) {
    return m_inner->untarWithProgress(source, false, progress) >= 0;
  });
}

// The count is in the log also when it is -1. What was passed over at the end is made up for, so that
// progress ends at the whole.
int ClsTar::Inner::untarWithProgress(_mvDataSource& source, bool extract, ProgressEvent* progress) {
  const long long size = source.sizeIfKnown();
  // A source that cannot tell where it stands, or how long it is, has no total.
  const long long start = std::max(source.ftell64(), 0LL);
  ProgressMonitorPtr pm(progress, m_abortCheckMs, m_percentScale, std::max(size - start, 0LL));
  const unsigned startTicks = Psdk::getTickCount();
  const int count = untarSource(source, extract, Io(m_log, pm.getPm(), progress));
  // Verifying has never told its time.
  if (extract) m_log.LogElapsedMs("untar", startTicks);
  // Not after a failure: an application would see a whole job in one that broke off.
  if (count >= 0) pm.consumeRemaining(m_log);
  if (extract) m_log.LogDataLong("untarCount", count);
  return count;
}

// No verdict and no consumed remainder here; there is no total either. Applications compare the log, of which
// this is the form.
int ClsTar::UntarFromMemory(DataBuffer& tarBytes, ProgressEvent* progress) {
  return m_inner->method("UntarFromMemory", MethodForm::Unjudged, -1, [&](MethodFrame&) {
    ProgressMonitorPtr pm(progress, m_abortCheckMs, m_percentScale, 0);
    _mvMemoryDataSource source;
    source.initializeMemSource(tarBytes.getData2(), tarBytes.getSize());
    return m_inner->untarSource(source, true, Io(m_log, pm.getPm(), progress));
  });
}

// The step: it works without a frame, and in the log, with the monitor, that the caller hands over.
int ClsTar::_untar(_mvDataSource& source, bool extract, LogBase& log, ProgressMonitor* pm,
                   ProgressEvent* progress) {
  const StepGuard step(*this);
  return step && m_inner->takeOptions(log) ? m_inner->untarSource(source, extract, Io(log, pm, progress))
                                           : -1;
}

// A listing goes into the object's own property. Only an archive that is a file can be met in its own target,
// and is protected from being replaced there.
int ClsTar::Inner::untarSource(_mvDataSource& source, bool extract, const Io& io) {
  UntarRun run({source, io, m_log, m_xmlListing}, liveReadSettings(), extract);
  mvFileInfo archive;
  const auto* const file = dynamic_cast<const _mvFileDataSource*>(&source);
  if (file && file->getFileInfo(archive, io.log)) run.protect(archive);
  const int count = run.run();
  m_onlyLeftOut = run.onlyLeftOut();
  return count;
}

// Times may be null; the file gets those that are known.
bool ClsTar::extractToFile(_mvDataSource& source, const XString& path, const MorvaneFileTime* creation,
                           const MorvaneFileTime* access, const MorvaneFileTime* modification, long long size,
                           char* buffer, unsigned int bufferSize, LogBase& log, ProgressMonitor* pm) {
  const StepGuard step(*this);
  return step && extractToNewFile(source, path, {creation, access, modification, false}, size, buffer,
                                  bufferSize, Io(log, pm))
                     .isWhole;
}

// Rules of tar/format under their public names; they need no object.
bool ClsTar::parsePaxExtendedHeader(const char* text, TarHeader& record, LogBase& log) {
  return morvane::parsePaxExtendedHeader(text, record, log);
}

void ClsTar::combineHeaderPaxExtended(TarHeader& following, TarHeader& staged) {
  morvane::combineHeaderPaxExtended(following, staged);
}

void ClsTar::combineHeaderLongFilename(TarHeader& following, TarHeader& staged) {
  morvane::combineHeaderLongFilename(following, staged);
}

}  // namespace morvane
