// The export that asks whether the driver tracks a device.
#include "api/library.h"
#include "driver/request.h"
#include "log/log.h"
#include "vtfltmgr/VTFltMgr.h"

#include <cwchar>

namespace vtflt {

namespace {

// The answers; the sense is the one that callers rely on.
constexpr DWORD IS_MONITORED = 0;
constexpr DWORD IS_NOT_MONITORED = 1;

struct DeviceQuery {
    std::unique_ptr<std::uint8_t[]> bytes; // null when memory was short
    DWORD length = 0;
};

DeviceQuery MakeDeviceQuery(const wchar_t* deviceName)
{
    DeviceQuery query;
    const std::size_t nameBytes = std::wcslen(deviceName) * sizeof(wchar_t);
    if (nameBytes > MAX_DEVICE_NAME_BYTES)
        return query;
    const auto wireBytes = static_cast<std::uint32_t>(nameBytes);
    query.length = DeviceQueryLength(wireBytes);
    query.bytes.reset(new (std::nothrow) std::uint8_t[query.length]());
    if (query.bytes != nullptr)
        WriteDeviceQuery(query.bytes.get(), deviceName, wireBytes);
    return query;
}

// A name of the reply with its end, wherever the driver put one.
template <std::size_t FieldUnits>
struct ReplyName {
    wchar_t text[FieldUnits + 1] = {};

    explicit ReplyName(const char16_t (&field)[FieldUnits])
    {
        for (std::size_t unit = 0; unit < FieldUnits; ++unit)
            text[unit] = static_cast<wchar_t>(field[unit]);
    }
};

DWORD AskDriver(HANDLE device, const DeviceQuery& query)
{
    DeviceReply reply = {};
    reply.Size = sizeof(reply);
    DWORD returned = 0;
    const DWORD status = SendRequest(device, VTFLTCTL_UPDATE_DEVICE_CONFIG, query.bytes.get(), query.length, &reply,
                                     sizeof(reply), &returned);

    const ReplyName volumeName(reply.VolumeName);
    const ReplyName replyDeviceName(reply.DeviceName);
    Log(LOG_INFORMATION, status,
        L"VTIsDeviceMonitored() Send VTFLTCTL_UPDATE_DEVICE_CONFIG. Volume:%s Device:%s IsFiltered:%d.\n",
        volumeName.text, replyDeviceName.text, reply.IsFiltered);
    return status == ERROR_SUCCESS && reply.IsFiltered != 0 ? IS_MONITORED : IS_NOT_MONITORED;
}

DWORD IsDeviceMonitored(LPCWSTR deviceName)
{
    if (deviceName == nullptr) {
        Log(LOG_INFORMATION, ERROR_SUCCESS, L"VTIsDeviceMonitored() Empty DevName \n");
        return IS_MONITORED;
    }

    const DeviceQuery query = MakeDeviceQuery(deviceName);
    if (query.bytes == nullptr) {
        Log(LOG_INFORMATION, ERROR_SUCCESS, L"VTIsDeviceMonitored() OUT OF Memory.\n");
        return IS_NOT_MONITORED;
    }

    UniqueHandle device;
    const DWORD error = OpenDevice(CONTROL_DEVICE, device);
    if (error != ERROR_SUCCESS) {
        Log(LOG_INFORMATION, ERROR_SUCCESS, L"Open %s failed, Error code:%d\n", CONTROL_DEVICE, error);
        return IS_NOT_MONITORED;
    }

    const DWORD answer = AskDriver(device.get(), query);
    // The question is asked and logged for an empty name too, but no device has that name: whatever the driver says, it
    // is not monitored.
    return *deviceName != L'\0' ? answer : IS_NOT_MONITORED;
}

} // namespace

} // namespace vtflt

extern "C" DWORD WINAPI VTIsDeviceMonitored(LPCWSTR deviceName)
{
    return vtflt::Guarded<DWORD>(L"VTIsDeviceMonitored", vtflt::IS_NOT_MONITORED, vtflt::IS_NOT_MONITORED,
                                 [&] { return vtflt::IsDeviceMonitored(deviceName); });
}
