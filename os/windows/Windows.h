// The system's own header, without its macros `min` and `max`.
// For the sources of this folder alone.
#pragma once

#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef _WIN32_WINNT
#define _WIN32_WINNT 0x0601  // Windows 7
#endif
#include <windows.h>
