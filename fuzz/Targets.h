// What is fuzzed: each takes any bytes and must neither crash, hang, nor use memory without bound. A broken
// promise ends the process.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

namespace morvane::fuzz {

using Target = void (*)(const uint8_t* data, size_t size);

void header(const uint8_t* data, size_t size);      // one block: parsed, shown, listed
void pax(const uint8_t* data, size_t size);         // pax records, both readers
void gzipHeader(const uint8_t* data, size_t size);  // a gzip member's header, then its data
void lzw(const uint8_t* data, size_t size);         // a .Z file
void archive(const uint8_t* data, size_t size);     // a whole archive: verified, listed, searched
// The same archive through the pull and the push engine, the latter in pieces: same members, same verdict.
void pullAgainstPush(const uint8_t* data, size_t size);

// By the names of the corpus folders.
const std::map<std::string, Target>& targets();

}  // namespace morvane::fuzz
