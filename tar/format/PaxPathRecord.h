// The text of the one pax record that is written: a path.
#pragma once

#include <string>
#include <string_view>

namespace morvane {

// "LENGTH path=PATH\n". The length is the path's plus 10, from 990 bytes on plus 11: exact for paths of 90 to
// 9,988 bytes, one too few above. `exact` states it exactly for any path.
std::string paxPathRecord(std::string_view path, bool exact);

}  // namespace morvane
