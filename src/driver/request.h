// The one place that talks to the driver: opens its endpoints and sends requests, always synchronously.
#pragma once

#include "driver/protocol.h"
#include "win/owners.h"

namespace vtflt {

// Opens the control device or a volume by its path (no trailing backslash), for reading, shared with readers
// and writers. Returns 0 and the handle, or the error with the handle empty.
DWORD OpenDevice(const wchar_t* path, UniqueHandle& device);

// Sends one request. Returns 0 on success, else the system's error unchanged. A call that fails without an
// error counts as a success; the last error is cleared before the call, so an old one is never taken for it.
// returned receives the byte count of the reply and must not be null; overlapped is handed on.
DWORD SendRequest(HANDLE device, DWORD controlCode, void* input, DWORD inputLength, void* output, DWORD outputLength,
                  DWORD* returned, OVERLAPPED* overlapped = nullptr);

// Asks a volume for its tracking block size in bytes. Returns 0 or the error; 13 for an answer of zero, by which
// nothing could be divided.
DWORD QueryBlockSize(HANDLE volume, DWORD& blockSize);

// Asks a volume for its length in bytes. Returns 0 or the error; 13 for an answer that is missing or negative.
DWORD QueryVolumeLength(HANDLE volume, LONGLONG& length);

} // namespace vtflt
