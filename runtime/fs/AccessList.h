// POSIX access lists (IEEE 1003.1e draft 17): from the text that archives carry to the bytes that the system
// takes as an attribute, and back.
//
// Text: entries separated by commas or newlines, "user:lisa:rw-:1000" with the number last, as star and
// bsdtar write them, or without it, as GNU tar does. The name may be a number. What follows a "#" is a
// comment.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace morvane {

class UserDatabase;

// Nothing when the bytes are of a form that is not known.
std::optional<std::string> accessListText(std::string_view bytes, UserDatabase& users);

// Nothing when the text makes no sense. `byId`: numbers go before names; else a name that the system knows
// does.
std::optional<std::string> accessListBytes(std::string_view text, bool byId, UserDatabase& users);

// Whether a list (its bytes) says more than a mode does: of owner, group and others alone the system makes a
// mode and keeps no list.
bool isExtendedAccessList(std::string_view bytes);

// What a list (its text) gives to the file's own group, less its mask, as the three bits are in a mode (070).
// 0 where it says nothing of it.
unsigned owningGroupBits(std::string_view text);

}  // namespace morvane
