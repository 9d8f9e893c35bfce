// MORVANE_API marks what an application may link against. The shared library hides everything else.
//
// So its inner names cannot meet those of a program, and may change between versions.
#pragma once

#if defined(__GNUC__)
#define MORVANE_API __attribute__((visibility("default")))
#else
#define MORVANE_API
#endif
