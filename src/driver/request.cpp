#include "driver/request.h"

namespace vtflt {

DWORD OpenDevice(const wchar_t* path, UniqueHandle& device)
{
    device.reset(CreateFileW(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                             FILE_ATTRIBUTE_NORMAL, nullptr));
    if (device.valid())
        return ERROR_SUCCESS;
    const DWORD error = GetLastError();
    return error != ERROR_SUCCESS ? error : ERROR_GEN_FAILURE;
}

DWORD SendRequest(HANDLE device, DWORD controlCode, void* input, DWORD inputLength, void* output, DWORD outputLength,
                  DWORD* returned, OVERLAPPED* overlapped)
{
    SetLastError(ERROR_SUCCESS);
    if (DeviceIoControl(device, controlCode, input, inputLength, output, outputLength, returned, overlapped))
        return ERROR_SUCCESS;
    return GetLastError();
}

DWORD QueryBlockSize(HANDLE volume, DWORD& blockSize)
{
    DWORD answer = 0;
    DWORD returned = 0;
    blockSize = 0;
    const DWORD error = SendRequest(volume, VTFLTCTL_GET_BLOCK_SIZE, nullptr, 0, &answer, sizeof(answer), &returned);
    if (error != ERROR_SUCCESS)
        return error;
    if (answer == 0)
        return ERROR_INVALID_DATA;
    blockSize = answer;
    return ERROR_SUCCESS;
}

DWORD QueryVolumeLength(HANDLE volume, LONGLONG& length)
{
    GET_LENGTH_INFORMATION answer = {};
    answer.Length.QuadPart = -1;
    DWORD returned = 0;
    length = 0;
    const DWORD error = SendRequest(volume, IOCTL_DISK_GET_LENGTH_INFO, nullptr, 0, &answer, sizeof(answer), &returned);
    if (error != ERROR_SUCCESS)
        return error;
    if (answer.Length.QuadPart < 0)
        return ERROR_INVALID_DATA;
    length = answer.Length.QuadPart;
    return ERROR_SUCCESS;
}

} // namespace vtflt
