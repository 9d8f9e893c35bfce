// Pax and long-name records merged into the member that follows them, the component's own way.
//
// This is what reading does unless the word FullRead is set (see tar/format/FullExtensions.h): records are
// lines, values are cut at 999 bytes, numbers are 32-bit, and the block's modification time wins over the
// record's.
#pragma once

#include "tar/format/TarHeader.h"

namespace morvane {

// Applies the records of a pax header's data (NUL-terminated text) to the record that the pax header itself
// was parsed into. Lines that make no sense are passed over; the result is true. Text ends at the first NUL.
// Values that do not fit their range are brought into it, with a notice in the log.
bool parsePaxExtendedHeader(const char* text, TarHeader& record, LogBase& log);

// Completes `staged` (a pax header with its records applied) by what only the member's own header says. The
// owned names move from one to the other. `following` is then of no use before its next parse.
void combineHeaderPaxExtended(TarHeader& following, TarHeader& staged);

// The same for `staged` holding a long name as its path. Mode, owner and modification time are then the
// member's own.
void combineHeaderLongFilename(TarHeader& following, TarHeader& staged);

}  // namespace morvane
