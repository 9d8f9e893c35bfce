// The form that an archive has, for what is appended to it.
#pragma once

#include <string>

namespace mvtar {

// "gnu", "pax" or "ustar", as --format has them: a name that is appended in another form than the rest may be
// one that whoever reads the rest cannot read. Empty where nothing tells: there is no such file, or nothing
// in it, or headers older than all three. What cannot be read is left to the append, which says so. The
// headers are read, up to the first that decides it; the archive is opened and closed.
std::string formOfArchive(const std::string& path);

}  // namespace mvtar
