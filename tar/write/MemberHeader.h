// The header of one member: its block, and the extension record that carries a path too long for it.
#pragma once

#include "tar/write/WriteRun.h"

namespace morvane {

struct mvFileInfo;

// Brings the path into the archive's form (back slashes to "/", a "/" at a directory's end), writes the
// extension record it may need and the member's header. A path the format cannot hold is an error, and
// nothing is written.
bool writeTarHeaderToOutput(WriteRun& run, XString& pathInTar, const mvFileInfo& info);

// The extension records alone: GNU long name and pax path.
bool writeLongFilenameToOutput(WriteRun& run, XString& path, const mvFileInfo& info);
bool writePaxHeaderToOutput(WriteRun& run, XString& path, const mvFileInfo& info);

}  // namespace morvane
