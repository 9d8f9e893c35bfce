// ClsTar as an output sink: the streaming operations.
#include "tar/ClsTar.h"
#include "tar/ReadSettings.h"
#include "tar/XmlListing.h"
#include "tar/stream/StreamingUntar.h"

namespace morvane {

void ClsTar::BeginStreamingUntar(LogBase& log) {
  takeOptions(log);
  m_stream->BeginStreamingUntar();
}

bool ClsTar::StreamingUntarNext(const unsigned char* data, unsigned int numBytes, bool& finished,
                                ProgressMonitor* pm, LogBase& log) {
  return m_stream->StreamingUntarNext(data, numBytes, finished, pm, log);
}

bool ClsTar::FinishStreamingUntar(ProgressMonitor* pm, LogBase& log) {
  return m_stream->FinishStreamingUntar(pm, log);
}

bool ClsTar::streamingUntarInner(const unsigned char* data, unsigned int numBytes, bool& finished,
                                 ProgressMonitor* pm, LogBase& log) {
  return m_stream->streamingUntarInner(data, numBytes, finished, pm, log);
}

// Writes that arrive behind the end of the archive succeed and are ignored.
bool ClsTar::_writeBytes(const char* bytes, unsigned int n, _mvIoParams& io, LogBase& log) {
  bool finished = false;
  if (StreamingUntarNext(reinterpret_cast<const unsigned char*>(bytes), n, finished, io.monitor(), log))
    return true;
  log.LogError("StreamingUntarNext failed.");
  return false;
}

}  // namespace morvane
