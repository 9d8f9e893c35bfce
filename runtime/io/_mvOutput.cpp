// The base of outputs. It takes everything and keeps nothing, so that it is also the place for what is not
// wanted.
#include "runtime/io/_mvOutput.h"

#include "runtime/buffer/DataBuffer.h"
#include "runtime/io/Abort.h"

namespace morvane {

_mvOutput::~_mvOutput() = default;

// What an output need not supply succeeds and does nothing.
bool _mvOutput::_writeBytes(const char*, unsigned int, _mvIoParams&, LogBase&) { return true; }
bool _mvOutput::seekToEnd(LogBase&) { return true; }
bool _mvOutput::fseekAbsolute64(long long, LogBase&) { return true; }
long long _mvOutput::ftell64() { return 0; }
bool _mvOutput::resetOutput(LogBase&) { return true; }
bool _mvOutput::announceOutputFinished(LogBase&) { return true; }

// The question comes first: of what is aborted nothing more is to be written.
bool _mvOutput::writeBytesPM(const char* bytes, unsigned n, ProgressMonitor* pm, LogBase& log) {
  if (pm && pm->abortCheckTimed(log)) return logAborted(log);
  _mvIoParams io(pm);
  return _writeBytes(bytes, n, io, log);
}

// An output takes plain characters and a buffer holds unsigned ones; the bytes are the same.
bool _mvOutput::writeDbPM(const DataBuffer& bytes, ProgressMonitor* pm, LogBase& log) {
  return writeBytesPM(reinterpret_cast<const char*>(bytes.getData2()), bytes.getSize(), pm, log);
}

// Byte by byte, so that the processor's order does not matter.
bool _mvOutput::writeLittleEndianUInt32PM(unsigned value, ProgressMonitor* pm, LogBase& log) {
  char bytes[4];
  for (char& byte : bytes) {
    byte = static_cast<char>(value & 0xFF);
    value >>= 8;
  }
  return writeBytesPM(bytes, sizeof bytes, pm, log);
}

}  // namespace morvane
