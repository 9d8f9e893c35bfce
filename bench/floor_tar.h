// The floor of plain archives, and what the files of the floor share.
#pragma once

#include <stdbool.h>
#include <stddef.h>

// Bytes: a tar block, and what is read and written in one go. The second is a multiple of the first, so that
// padding always has room in the buffer.
enum { kBlock = 512, kBuffer = 1 << 20 };

static inline size_t least(size_t a, size_t b) { return a < b ? a : b; }

// Each of these ends the program when it fails.
void* must(void* pointer, const char* what);
int openIt(int dir, const char* path, int flags);
void writeAll(int fd, const void* bytes, size_t n);

// The jobs on plain archives. A folder is archived under its name in its parent.
void create(const char* archive, const char* parent, const char* name);
void extract(const char* archive, const char* target);
unsigned countMembers(const char* archive);
void list(const char* archive);
// Prints the data of the member of that name; nothing where there is none.
void first(const char* archive, const char* name);

// Extraction of a plain archive that comes in pieces: into this folder, or nowhere.
// The pieces may have any size; checkEnded ends the program if the end mark has not come.
void extractInto(const char* target);
void feed(const unsigned char* bytes, size_t n);
void checkEnded(void);
