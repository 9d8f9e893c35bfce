// The deflate data of a gzip file, with what the option words ask of the trailer and of further members.
#pragma once

#include "runtime/codec/Codec.h"

namespace morvane {

// The source stands behind the first member's header and lends its bytes. Without a word the first member
// alone is inflated and whatever follows its deflate data does not matter.
bool inflateGzipMembers(_mvDataSource& source, _mvOutput& out, const CodecOptions& options,
                        ProgressMonitor* pm, LogBase& log);

}  // namespace morvane
