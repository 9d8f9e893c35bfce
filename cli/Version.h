// The command's version: the library's.
#pragma once

namespace mvtar {

// As "1.2.3"; a literal. The build takes it from the project's version.
const char* versionText();

}  // namespace mvtar
