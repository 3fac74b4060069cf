// The one way into the system headers, so that every file sees the same subset of them.
#pragma once

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif

#include <windows.h>

#include <winioctl.h>
#include <winsvc.h>
