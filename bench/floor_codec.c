// The floor of compressed archives: the codec alone, between a file and what takes its bytes.
#define _GNU_SOURCE
#include "floor_codec.h"

#include <bzlib.h>
#include <err.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>
#include <zlib.h>

#include "floor_tar.h"

enum { kCoded = 1 << 18 };  // what a codec makes in one go

static struct {
  int fd;
  unsigned char* buffer;
  size_t used, filled;
} gInput;

// The compressed file; -1 where members are extracted instead.
static int gOutput = -1;

// Takes what a codec has made: an archive's bytes, or a compressed file's.
typedef void Sink(const unsigned char* bytes, size_t n);

static void writeOut(const unsigned char* bytes, size_t n) { writeAll(gOutput, bytes, n); }

// Reads the next piece of the input; false at its end.
static bool moreInput(void) {
  const ssize_t n = read(gInput.fd, gInput.buffer, kBuffer);
  if (n < 0) err(1, "read");
  gInput.used = 0;
  gInput.filled = (size_t)n;
  return n > 0;
}

// Compresses (a gzip member, zlib's default level) or decompresses one. 15 is the largest window, and 16 more
// ask zlib for gzip's header and trailer (RFC 1952), which it writes and checks by itself; 8 is its default
// for memory. Nothing is freed: the process ends behind it.
static void runZlib(bool compress, Sink* sink) {
  unsigned char* const out = must(malloc(kCoded), "memory");
  z_stream z = {.next_in = NULL};
  int result = compress ? deflateInit2(&z, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY)
                        : inflateInit2(&z, 15 + 16);
  for (bool more = true; result != Z_STREAM_END;) {
    // zlib may have output left when its input is used up, so that more is read only when there is none at
    // all.
    if (z.avail_in == 0 && more) {
      more = moreInput();
      z.next_in = gInput.buffer;
      z.avail_in = (unsigned)gInput.filled;
    }
    z.next_out = out;
    z.avail_out = kCoded;
    result = compress ? deflate(&z, more ? Z_NO_FLUSH : Z_FINISH) : inflate(&z, Z_NO_FLUSH);
    // Among these is Z_BUF_ERROR, which is what comes of a file that is cut: no input and nothing to put out.
    if (result != Z_OK && result != Z_STREAM_END) errx(1, "zlib: %d", result);
    sink(out, kCoded - z.avail_out);
  }
}

// Blocks of 900,000 bytes, which is the program's default, too, and one stream. The library reads the
// stream's end only behind the last block's output: so a file without more input before that is cut.
static void runBzip2(bool compress, Sink* sink) {
  unsigned char* const out = must(malloc(kCoded), "memory");
  bz_stream b = {.next_in = NULL};
  int result = compress ? BZ2_bzCompressInit(&b, 9, 0, 0) : BZ2_bzDecompressInit(&b, 0, 0);
  for (bool more = true; result != BZ_STREAM_END;) {
    if (b.avail_in == 0 && more) {
      more = moreInput();
      b.next_in = (char*)gInput.buffer;
      b.avail_in = (unsigned)gInput.filled;
    }
    b.next_out = (char*)out;
    b.avail_out = kCoded;
    result = compress ? BZ2_bzCompress(&b, more ? BZ_RUN : BZ_FINISH) : BZ2_bzDecompress(&b);
    if (result < 0 || (!compress && !more)) errx(1, "bzip2: %d", result);
    sink(out, kCoded - b.avail_out);
  }
}

// LZW codes come in groups of eight, as many bytes as a code has bits; what is left of a group when the width
// changes is not used.
static struct {
  unsigned char group[16 + 4];  // room for a four-byte load at any of its bits
  unsigned bit, bits, width;
} gCodes;

// The rest of the group is dropped by leaving no bits in it.
static void setWidth(unsigned width) {
  gCodes.width = width;
  gCodes.bit = gCodes.bits = 0;
}

// Codes begin with their lowest bits, in the lowest bits of their first byte. A load of four bytes, on a
// machine that has the lowest byte first, holds any code at any bit: 16 bits behind 7. What is left at the
// end and is shorter than a code is padding.
static int nextCode(void) {  // -1 at the end
  if (gCodes.bit + gCodes.width > gCodes.bits) {
    size_t n = 0;
    while (n < gCodes.width && (gInput.used < gInput.filled || moreInput())) {
      const size_t taken = least(gCodes.width - n, gInput.filled - gInput.used);
      // A group may begin in one piece of the input and end in the next.
      memcpy(gCodes.group + n, gInput.buffer + gInput.used, taken);
      gInput.used += taken;
      n += taken;
    }
    gCodes.bit = 0;
    gCodes.bits = (unsigned)n * 8;
    if (gCodes.bits < gCodes.width) return -1;
  }
  unsigned word;
  // By memcpy, since a code may begin at any address.
  memcpy(&word, gCodes.group + gCodes.bit / 8, sizeof word);
  const unsigned code = word >> gCodes.bit % 8 & ((1u << gCodes.width) - 1);
  gCodes.bit += gCodes.width;
  return (int)code;
}

// A code's text is kept as its place in the output, where it stands as the text of an earlier code and the
// byte behind that. Once the table is full nothing new is referred to, and the space behind is used again.
static void runLzw(Sink* sink) {
  enum { kClear = 256 };
  static struct {
    const unsigned char* text;
    size_t length;
  } table[1 << 16];
  // The two bytes that compress writes first.
  if (!moreInput() || gInput.filled < 3 || memcmp(gInput.buffer, "\x1f\x9d", 2) != 0) errx(1, "no .Z file");
  // The third byte: five bits for the widest code, and whether 256 clears the table ("block mode"); new codes
  // begin behind it then.
  const unsigned widest = gInput.buffer[2] & 31, blockMode = gInput.buffer[2] & 128,
                 first = blockMode ? 257 : 256;
  if (widest < 9 || widest > 16) errx(1, "no .Z file");
  gInput.used = 3;
  // 64 GiB of addresses, of which only what is written takes memory: texts never have to be moved.
  const int flags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE;  // memory is taken as it is written
  unsigned char* const space =
      must(mmap(NULL, (size_t)1 << 36, PROT_READ | PROT_WRITE, flags, -1, 0), "memory");
  // Every byte is a text by itself; these stay in front of all that is written.
  for (unsigned i = 0; i < 256; ++i) {
    space[i] = (unsigned char)i;
    table[i].text = space + i;
    table[i].length = 1;
  }
  // What lies between `done` and `out` has not been handed over yet.
  unsigned char *out = space + 256, *done = out, *reuse = NULL;
  unsigned entries = first;
  // 0 also behind a clear: the code that follows is a byte by itself and makes no entry.
  size_t last = 0;  // length of the text of the code before
  setWidth(9);
  for (int next; (next = nextCode()) >= 0;) {
    const unsigned code = (unsigned)next;
    // No text that was written counts any more, so that the space is used from its beginning again.
    if (code == kClear && blockMode) {
      sink(done, (size_t)(out - done));
      out = done = space + 256;
      reuse = NULL;
      entries = first;
      last = 0;
      setWidth(9);
      continue;
    }
    // Made before the code is looked up, because it may be the very entry: its last byte is then its own
    // first one, which the copy below has written by the time it is read.
    if (last > 0 && entries < 1u << widest) {
      table[entries].text = out - last;
      table[entries++].length = last + 1;
    }
    // Without this check a damaged file would lead to texts that were never written.
    if (code >= entries || (code == kClear && blockMode)) errx(1, "a damaged .Z file");
    const unsigned char* const text = table[code].text;
    last = table[code].length;
    // Sixteen bytes at a time where the two do not overlap within that; byte by byte where a text goes on
    // into itself.
    if (out - text >= 16) {
      for (size_t i = 0; i < last; i += 16) memcpy(out + i, text + i, 16);  // what is too much is overwritten
    } else {
      for (size_t i = 0; i < last; ++i) out[i] = text[i];
    }
    out += last;
    // Handed over in pieces: a sink has more to do than copy.
    if (out - done >= kCoded) {
      sink(done, (size_t)(out - done));
      if (entries == 1u << widest) {
        if (!reuse) reuse = out;
        out = reuse;
      }
      done = out;
    }
    // The widest stays: once the table is full no code needs more bits.
    if (entries >= 1u << gCodes.width && gCodes.width < widest) setWidth(gCodes.width + 1);
  }
  sink(done, (size_t)(out - done));
}

// An unknown name is found out last, when the files are open already; it ends the program all the same.
bool runCodec(const char* job, const char* from, const char* to) {
  // Any other name decompresses, or is none.
  const bool compress = strcmp(job, "deflate") == 0 || strcmp(job, "bzip2") == 0;
  gInput.fd = openIt(AT_FDCWD, from, O_RDONLY);
  gInput.buffer = must(malloc(kBuffer), "memory");
  if (compress)
    gOutput = openIt(AT_FDCWD, to, O_WRONLY | O_CREAT | O_TRUNC);
  else
    // With no folder given, `to` is NULL and what is decompressed goes nowhere.
    extractInto(to);
  Sink* const sink = compress ? writeOut : feed;
  if (strcmp(job, "deflate") == 0 || strcmp(job, "inflate") == 0)
    runZlib(compress, sink);
  else if (strcmp(job, "bzip2") == 0 || strcmp(job, "bunzip2") == 0)
    runBzip2(compress, sink);
  else if (strcmp(job, "lzw") == 0)
    runLzw(sink);
  else
    return false;
  // Says nothing where nothing was extracted.
  checkEnded();
  return true;
}
