// The bitmap manager's own result codes; other results are Windows error codes.
#pragma once

#include <cstdint>

namespace vtflt {

// A bitmap was missing or invalid, or the volume is on the verify list: the next backup must verify.
inline constexpr std::uint32_t BM_ERR_VERIFY_REQUIRED = 0x10001;
// The control code is not handled.
inline constexpr std::uint32_t BM_ERR_INVALID_CONTROL_CODE = 0x10002;
// Get-bitmap without an output buffer.
inline constexpr std::uint32_t BM_ERR_NO_OUTPUT_BUFFER = 0x10003;
// The volume handle is null or all ones.
inline constexpr std::uint32_t BM_ERR_INVALID_VOLUME_HANDLE = 0x10004;
// A named mutex could not be taken.
inline constexpr std::uint32_t BM_ERR_MUTEX_ACCESS = 0x10005;
// No application is registered.
inline constexpr std::uint32_t BM_ERR_NO_APPLICATION = 0x10007;
// The registered application list could not be read.
inline constexpr std::uint32_t BM_ERR_APP_LIST_FAILED = 0x10008;
// The calling application is not registered.
inline constexpr std::uint32_t BM_ERR_APP_NOT_REGISTERED = 0x10009;
// A general failure.
inline constexpr std::uint32_t BM_ERR_FAILED = 0xFFFFFFFF;

} // namespace vtflt
