// Unix compress (.Z) files: LZW with codes of 9 to 16 bits.
#pragma once

#include "runtime/base/Export.h"

namespace morvane {

class LogBase;
class _mvDataSource;
class _mvIoParams;
class _mvOutput;

// As ncompress and gzip read it: with block mode (the clear code) and without, the groups of eight codes
// whose rest is passed over when the width changes, and the string behind a clear that takes the clear
// code's place. There is no compressor: such archives are still met, and no longer made.
struct MORVANE_API MorvaneLzw {
  // Decompresses from the source's position to its end. Data that end inside a code, or inside the padding
  // behind a change of the code width, are simply over: the format has no end mark. False, with the reason in
  // the log, for a wrong signature, a code that cannot be, or when the output refuses a write. The flag has
  // no meaning here. About 1 MiB is allocated, whatever the data state. What was decompressed before a
  // failure has been written. An abort is heard with each piece of 64 KiB that is read and with each write.
  static bool decompressLzwSource64(_mvDataSource& source, _mvOutput& out, bool, _mvIoParams& io,
                                    LogBase& log);
};

}  // namespace morvane
