// What a member's header says of its source. Today it is what the properties say, but for kind, size and
// time.
#pragma once

#include "tar/format/Member.h"
#include "tar/write/SourceFile.h"
#include "tar/write/WriteRun.h"

namespace morvane {

// Brings a path into the archive's form: back slashes to "/", a "/" at a directory's end.
void normalisePath(XString& path, bool isDirectory);

// Normalises the path and describes the member that is to have it. The member's texts are used again.
void describeMember(const mvFileInfo& info, const WriteSettings& settings, XString& pathInTar,
                    Member& member);

}  // namespace morvane
