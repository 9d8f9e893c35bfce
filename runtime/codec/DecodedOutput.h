// How decompressors hand on what they produced: with a question whether to abort, for a few bytes of input
// may become very many.
#pragma once

#include "runtime/io/Abort.h"
#include "runtime/io/_mvOutput.h"

namespace morvane {

[[nodiscard]] inline bool writeDecoded(_mvOutput& out, const char* bytes, unsigned n, ProgressMonitor* pm,
                                       LogBase& log) {
  if (n == 0) return true;
  if (pm && pm->abortCheckTimed(log)) return logAborted(log);
  return out.writeBytesPM(bytes, n, pm, log);
}

}  // namespace morvane
