// What is fuzzed: each takes any bytes and must neither crash, hang, nor use memory without bound. A broken
// promise ends the process.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

namespace morvane::fuzz {

// What an engine calls: any bytes, which stay the caller's. A target keeps nothing from one call to the next,
// because a find has to be repeated by its input alone.
using Target = void (*)(const uint8_t* data, size_t size);

// Each goes straight to the part that it is about, because most bytes would never get past the checks in
// front of it.
void header(const uint8_t* data, size_t size);      // one block: parsed, shown, listed
void pax(const uint8_t* data, size_t size);         // pax records, both readers
void gzipHeader(const uint8_t* data, size_t size);  // a gzip member's header, then its data
void lzw(const uint8_t* data, size_t size);         // a .Z file
// No target makes a file: what an archive holds is never extracted.
void archive(const uint8_t* data, size_t size);  // a whole archive: verified, listed, searched
// The same archive through the pull and the push engine, the latter in pieces: same members, same verdict.
void pullAgainstPush(const uint8_t* data, size_t size);

// By the names of the corpus folders, which are those of the functions. For the tests; a fuzzing program has
// one target (fuzz.cpp).
const std::map<std::string, Target>& targets();

}  // namespace morvane::fuzz
