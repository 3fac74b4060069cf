/*
 * Included before every source that runs on the double: functions of Windows' C run-time that the host's headers do
 * not declare.
 */
#pragma once

#ifdef __cplusplus
#include <cstdarg>
#include <cstddef>

extern "C" {
int _vsnwprintf(wchar_t* buffer, std::size_t capacity, const wchar_t* format, va_list arguments);
int _snwprintf(wchar_t* buffer, std::size_t capacity, const wchar_t* format, ...);
int _wtoi(const wchar_t* text);
}
#endif
