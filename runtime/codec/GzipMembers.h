// The deflate data of a gzip file, with what the option words ask of the trailer and of further members.
#pragma once

#include "runtime/codec/Codec.h"

namespace morvane {

// The source stands behind the first member's header and lends its bytes. Without a word the first member
// alone is inflated and whatever follows its deflate data does not matter. With VerifyGzip the trailer's
// checksum and size must be right; with GzipAllMembers every member up to the end of the data is inflated,
// one behind the other into the same output, and only zero bytes may follow the last (joined files and
// parallel compressors write many). False, with the reason in the log, for damage, a wrong trailer, or a
// refused write; what was inflated until then has been written.
bool inflateGzipMembers(_mvDataSource& source, _mvOutput& out, const CodecOptions& options, const Io& io);

}  // namespace morvane
