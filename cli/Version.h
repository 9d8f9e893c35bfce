// The command's version: the library's.
#pragma once

namespace mvtar {

const char* versionText();

}  // namespace mvtar
