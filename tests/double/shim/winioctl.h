/* The header of mingw-w64: Wine's lacks several of the disk structures. */
#pragma once

#include <windows.h>

#ifndef USN
#define USN LONGLONG
#endif
#ifndef __MINGW_EXTENSION
#define __MINGW_EXTENSION __extension__
#endif

#include "/usr/share/mingw-w64/include/winioctl.h"
