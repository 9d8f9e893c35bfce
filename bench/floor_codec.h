// The floor of compressed archives.
#pragma once

#include <stdbool.h>

// deflate and bzip2 compress a file into another; inflate, bunzip2 and lzw decompress an archive and extract
// it (without a folder they only decompress). False for any other name.
bool runCodec(const char* job, const char* from, const char* to);
