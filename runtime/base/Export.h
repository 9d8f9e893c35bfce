// MORVANE_API marks what an application may link against. The shared library is compiled with hidden
// visibility, so that everything else stays inside.
//
// So its inner names cannot meet those of a program, and may change between versions. A class that is
// thrown, cast or derived from outside has to be marked as a whole, because its type is described by
// symbols, too.
#pragma once

#if defined(__GNUC__)
#define MORVANE_API __attribute__((visibility("default")))
#else
// A compiler without the attribute shows every name, which harms nothing but their privacy.
// A compiler without the attribute shows every name, which harms nothing but their privacy.
#define MORVANE_API
#endif
