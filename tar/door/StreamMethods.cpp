// ClsTar as an output sink: the streaming operations as steps that an application calls by itself.
#include "runtime/component/MethodFrame.h"
#include "tar/ClsTar.h"
#include "tar/settings/ReadSettings.h"
#include "tar/stream/StreamSink.h"
#include "tar/stream/StreamingUntar.h"

namespace morvane {

// Where the option words are of no use the run is over before it begins: it has no result to say so with.
void ClsTar::BeginStreamingUntar(LogBase& log) {
  const StepGuard step(*this);
  if (!step) return;
  const bool usable = takeOptions(log);
  m_stream->BeginStreamingUntar();
  if (!usable) m_stream->breakOff();
}

bool ClsTar::StreamingUntarNext(const unsigned char* data, unsigned int numBytes, bool& finished,
                                ProgressMonitor* pm, LogBase& log) {
  const StepGuard step(*this);
  return step && takeOptions(log) && m_stream->StreamingUntarNext(data, numBytes, finished, pm, log);
}

bool ClsTar::FinishStreamingUntar(ProgressMonitor* pm, LogBase& log) {
  const StepGuard step(*this);
  return step && m_stream->FinishStreamingUntar(pm, log);
}

bool ClsTar::streamingUntarInner(const unsigned char* data, unsigned int numBytes, bool& finished,
                                 ProgressMonitor* pm, LogBase& log) {
  const StepGuard step(*this);
  return step && takeOptions(log) && m_stream->streamingUntarInner(data, numBytes, finished, pm, log);
}

bool ClsTar::_writeBytes(const char* bytes, unsigned int n, _mvIoParams& io, LogBase& log) {
  const StepGuard step(*this);
  return step && takeOptions(log) && StreamSink(*m_stream)._writeBytes(bytes, n, io, log);
}

bool ClsTar::unTarGz(_mvDataSource& source, ProgressMonitor* pm, LogBase& log) {
  const StepGuard step(*this);
  return step && takeOptions(log) && inflateTar(source, pm, log);
}

}  // namespace morvane
