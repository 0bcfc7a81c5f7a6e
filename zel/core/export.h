// Symbol visibility of the zel shared library.
//
// ZEL_API marks what the library exports: everything else stays private to
// libzel.so / zel.dll. ZEL_BUILDING_LIBRARY is defined only while the library
// itself is compiled.
#pragma once

#if defined(_WIN32)
#if defined(ZEL_BUILDING_LIBRARY)
#define ZEL_API __declspec(dllexport)
#else
#define ZEL_API __declspec(dllimport)
#endif
#else
#define ZEL_API __attribute__((visibility("default")))
#endif
