// The framing of one gzip member (RFC 1952): written with a fixed header, read with any.
#pragma once

namespace morvane {

class _mvDataSource;
class _mvOutput;
struct Io;

// The 10-byte header: deflate, no optional field, no time, Unix. It is the same for every member: equal data
// give equal files.
bool writeGzipHeader(_mvOutput& out, const Io& io);
// CRC-32 and size modulo 2^32 of the uncompressed data, little-endian. In this order, eight bytes in all.
// False when the output refuses them.
bool writeGzipTrailer(_mvOutput& out, unsigned crc32, unsigned size, const Io& io);

// Reads a member's header with its optional fields, and stands behind it. False, with the reason in the log,
// when it is none or is cut. Takes no byte beyond the header.
bool readGzipHeader(_mvDataSource& source, const Io& io);

}  // namespace morvane
