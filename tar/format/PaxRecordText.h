// The text of pax records as they are written (POSIX.1 pax, "LENGTH KEYWORD=VALUE\n").
#pragma once

#include <string>
#include <string_view>

#include "tar/format/TarHeader.h"

namespace morvane {

// Appends a record. The stated length counts its own digits; the value may hold any bytes. The keyword must
// not hold a "=". Throws std::bad_alloc only.
void appendPaxRecord(std::string_view keyword, std::string_view value, std::string& records);

// A name as part of a keyword, which ends at the first "=": that and "%" as GNU tar writes them, "%3D" and
// "%25"; and back.
std::string escapedKeyword(std::string_view name);
std::string unescapedKeyword(std::string_view name);

// The record of a path. The length is the path's plus 10, from 990 bytes on plus 11: right for paths of 90 to
// 9,988 bytes, one too few above. `exact` states it right for any path. Below 90 bytes it would be one too
// many; such paths stand in the block and need no record.
std::string paxPathRecord(std::string_view path, bool exact);

// Decimal seconds with a fraction of as many digits as it takes, at most nine: "-0.5",
// "1700000000.000000001". parsePaxTime reads it back.
std::string paxTimeText(const TarTime& time);

}  // namespace morvane
