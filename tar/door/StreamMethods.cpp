// ClsTar as an output sink: the streaming operations as steps that an application calls by itself.
#include "tar/door/ClsTarInner.h"
#include "tar/stream/StreamSink.h"

namespace morvane {

// Where the option words are of no use the run is over before it begins: it has no result to say so with.
void ClsTar::BeginStreamingUntar(LogBase& log) {
  const StepGuard step(*this);
  if (!step) return;
  const bool usable = m_inner->takeOptions(log);
  m_inner->m_stream.BeginStreamingUntar();
  if (!usable) m_inner->m_stream.breakOff();
}

// These take no lock, because a decompressor of the application calls them for each piece; StepGuard keeps
// callbacks of the same object out. The words are taken with each piece, since no method's frame does it.
bool ClsTar::StreamingUntarNext(const unsigned char* data, unsigned int numBytes, bool& finished,
                                ProgressMonitor* pm, LogBase& log) {
  const StepGuard step(*this);
  return step && m_inner->takeOptions(log) &&
         m_inner->m_stream.StreamingUntarNext(data, numBytes, finished, pm, log);
}

// Not refused for unusable words: what was extracted has to be settled in any case.
bool ClsTar::FinishStreamingUntar(ProgressMonitor* pm, LogBase& log) {
  const StepGuard step(*this);
  return step && m_inner->m_stream.FinishStreamingUntar(pm, log);
}

// One step of StreamingUntarNext by itself. What it leaves pending is taken by further calls.
bool ClsTar::streamingUntarInner(const unsigned char* data, unsigned int numBytes, bool& finished,
                                 ProgressMonitor* pm, LogBase& log) {
  const StepGuard step(*this);
  return step && m_inner->takeOptions(log) &&
         m_inner->m_stream.streamingUntarInner(data, numBytes, finished, pm, log);
}

// As a sink the object cannot say that the archive has ended; what comes behind the end is taken and ignored.
bool ClsTar::_writeBytes(const char* bytes, unsigned int n, _mvIoParams& io, LogBase& log) {
  const StepGuard step(*this);
  return step && m_inner->takeOptions(log) && StreamSink(m_inner->m_stream)._writeBytes(bytes, n, io, log);
}

// UntarGz without its frame: the caller's log, monitor and source. The archive is not protected from its own
// members here, since nobody has told which file it is.
bool ClsTar::unTarGz(_mvDataSource& source, ProgressMonitor* pm, LogBase& log) {
  const StepGuard step(*this);
  return step && m_inner->takeOptions(log) && m_inner->inflateTar(source, Io(log, pm));
}

}  // namespace morvane
