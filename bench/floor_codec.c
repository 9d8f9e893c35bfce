// The floor of compressed archives: the codec alone, between a file and what takes its bytes.
#define _GNU_SOURCE
#include "floor.h"

#include <bzlib.h>
#include <err.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>
#include <zlib.h>

enum { kCoded = 1 << 18 };  // what a codec makes in one go

static struct {
  int fd;
  unsigned char* buffer;
  size_t used, filled;
} gInput;

static int gOutput = -1;

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

// Compresses (a gzip member, zlib's default level) or decompresses one.
static void runZlib(bool compress, Sink* sink) {
  unsigned char* const out = must(malloc(kCoded), "memory");
  z_stream z = {.next_in = NULL};
  int result = compress ? deflateInit2(&z, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY)
                        : inflateInit2(&z, 15 + 16);
  for (bool more = true; result != Z_STREAM_END;) {
    if (z.avail_in == 0 && more) {
      more = moreInput();
      z.next_in = gInput.buffer;
      z.avail_in = (unsigned)gInput.filled;
    }
    z.next_out = out;
    z.avail_out = kCoded;
    result = compress ? deflate(&z, more ? Z_NO_FLUSH : Z_FINISH) : inflate(&z, Z_NO_FLUSH);
    if (result != Z_OK && result != Z_STREAM_END) errx(1, "zlib: %d", result);
    sink(out, kCoded - z.avail_out);
  }
}

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

static void setWidth(unsigned width) {
  gCodes.width = width;
  gCodes.bit = gCodes.bits = 0;
}

static int nextCode(void) {  // -1 at the end
  if (gCodes.bit + gCodes.width > gCodes.bits) {
    size_t n = 0;
    while (n < gCodes.width && (gInput.used < gInput.filled || moreInput())) {
      const size_t taken = least(gCodes.width - n, gInput.filled - gInput.used);
      memcpy(gCodes.group + n, gInput.buffer + gInput.used, taken);
      gInput.used += taken;
      n += taken;
    }
    gCodes.bit = 0;
    gCodes.bits = (unsigned)n * 8;
    if (gCodes.bits < gCodes.width) return -1;
  }
  unsigned word;
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
  if (!moreInput() || gInput.filled < 3 || memcmp(gInput.buffer, "\x1f\x9d", 2) != 0) errx(1, "no .Z file");
  const unsigned widest = gInput.buffer[2] & 31, blockMode = gInput.buffer[2] & 128,
                 first = blockMode ? 257 : 256;
  if (widest < 9 || widest > 16) errx(1, "no .Z file");
  gInput.used = 3;
  const int flags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE;  // memory is taken as it is written
  unsigned char* const space =
      must(mmap(NULL, (size_t)1 << 36, PROT_READ | PROT_WRITE, flags, -1, 0), "memory");
  for (unsigned i = 0; i < 256; ++i) {
    space[i] = (unsigned char)i;
    table[i].text = space + i;
    table[i].length = 1;
  }
  unsigned char *out = space + 256, *done = out, *reuse = NULL;
  unsigned entries = first;
  size_t last = 0;  // length of the text of the code before
  setWidth(9);
  for (int next; (next = nextCode()) >= 0;) {
    const unsigned code = (unsigned)next;
    if (code == kClear && blockMode) {
      sink(done, (size_t)(out - done));
      out = done = space + 256;
      reuse = NULL;
      entries = first;
      last = 0;
      setWidth(9);
      continue;
    }
    if (last > 0 && entries < 1u << widest) {
      table[entries].text = out - last;
      table[entries++].length = last + 1;
    }
    if (code >= entries || (code == kClear && blockMode)) errx(1, "a damaged .Z file");
    const unsigned char* const text = table[code].text;
    last = table[code].length;
    if (out - text >= 16) {
      for (size_t i = 0; i < last; i += 16) memcpy(out + i, text + i, 16);  // what is too much is overwritten
    } else {
      for (size_t i = 0; i < last; ++i) out[i] = text[i];
    }
    out += last;
    if (out - done >= kCoded) {
      sink(done, (size_t)(out - done));
      if (entries == 1u << widest) {
        if (!reuse) reuse = out;
        out = reuse;
      }
      done = out;
    }
    if (entries >= 1u << gCodes.width && gCodes.width < widest) setWidth(gCodes.width + 1);
  }
  sink(done, (size_t)(out - done));
}

bool runCodec(const char* job, const char* from, const char* to) {
  const bool compress = strcmp(job, "deflate") == 0 || strcmp(job, "bzip2") == 0;
  gInput.fd = openIt(AT_FDCWD, from, O_RDONLY);
  gInput.buffer = must(malloc(kBuffer), "memory");
  if (compress)
    gOutput = openIt(AT_FDCWD, to, O_WRONLY | O_CREAT | O_TRUNC);
  else
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
  checkEnded();
  return true;
}
