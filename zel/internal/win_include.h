// The one place that includes <windows.h>. Only *_win.cpp files include this.
#pragma once

#if !defined(_WIN32)
#error "win_include.h is for Windows builds only"
#endif

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef _WIN32_WINNT
#define _WIN32_WINNT 0x0A00  // Windows 10
#endif

#include <windows.h>
