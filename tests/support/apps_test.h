// The fixture of cases around applications and their lists: stored bytes, faults of registry calls, names of mutexes
// held by something else.
#pragma once

#include "driver/protocol.h"
#include "support/machine_test.h"

#include <map>
#include <string_view>
#include <winioctl.h>

namespace vttest {

inline constexpr DWORD NO_MUTEX = 0x10005;
inline constexpr DWORD NOT_REGISTERED = 0x10009;
inline constexpr DWORD NO_ACCESS = ERROR_ACCESS_DENIED;

using Entries = std::vector<std::wstring>;

inline std::wstring ListMutex(const std::wstring& suffix)
{
    return std::wstring(L"VTBitmapManager.") + DRIVER_LIST + suffix + L".Mutex";
}

class AppsTest : public MachineTest {
protected:
    static constexpr DWORD BLOCK = 65536;
    static constexpr std::uint64_t LENGTH = 100 * BLOCK;

    void Register(const std::wstring& appId)
    {
        ASSERT_EQ(0u, VTRegisterApplication(appId.c_str()));
        log.Clear();
    }

    // The characters as bytes, nothing added.
    static Bytes Raw(std::wstring_view text)
    {
        Bytes bytes;
        for (const wchar_t character : text) {
            bytes.push_back(static_cast<std::uint8_t>(character & 0xFF));
            bytes.push_back(static_cast<std::uint8_t>(character >> 8 & 0xFF));
        }
        return bytes;
    }

    void StoreIds(std::wstring_view text, DWORD type = REG_MULTI_SZ)
    {
        machine.WriteValue(APP_IDS_KEY, APP_IDS_VALUE, type, Raw(text));
    }
    void StoreList(const std::wstring& suffix, std::wstring_view text, DWORD type = REG_MULTI_SZ)
    {
        machine.WriteValue(SERVICE_KEY, DRIVER_LIST + suffix, type, Raw(text));
    }

    // The value is a multi-string of exactly these characters.
    void ExpectIds(std::wstring_view text) const { ExpectValue(APP_IDS_KEY, APP_IDS_VALUE, text); }
    void ExpectList(const std::wstring& suffix, std::wstring_view text) const
    {
        ExpectValue(SERVICE_KEY, DRIVER_LIST + suffix, text);
    }
    void ExpectNoIds() const { EXPECT_FALSE(ValueExists(APP_IDS_KEY, APP_IDS_VALUE)); }
    void ExpectNoList(const std::wstring& suffix) const
    {
        EXPECT_FALSE(ValueExists(SERVICE_KEY, DRIVER_LIST + suffix)) << Narrow(suffix);
    }

    bool HasBitmaps(const Volume& volume, const std::wstring& appId) const
    {
        return FileExists(volume, BaseName(appId)) && FileExists(volume, ChildName(appId));
    }
    bool HasNoBitmaps(const Volume& volume, const std::wstring& appId) const
    {
        return !FileExists(volume, BaseName(appId)) && !FileExists(volume, ChildName(appId));
    }
    // Bits that a fresh bitmap has not: whoever resets the bitmap takes them off.
    void MarkBitmaps(const Volume& volume, const std::wstring& appId) const
    {
        const Bytes marked = MakeBitmapImage(BLOCK, Bytes(29, 0xAA));
        WriteFileBytes(volume, BaseName(appId), marked);
        WriteFileBytes(volume, ChildName(appId), marked);
    }
    bool AreMarked(const Volume& volume, const std::wstring& appId) const
    {
        const Bytes marked(29, 0xAA);
        return Base(volume, appId).Bitmap() == marked && Child(volume, appId).Bitmap() == marked;
    }
    bool AreFresh(const Volume& volume, const std::wstring& appId) const
    {
        const Bytes clear(29);
        return Base(volume, appId).Bitmap() == clear && Child(volume, appId).Bitmap() == clear;
    }

    // Holds a mutex's name with an object of another kind.
    static vtflt::UniqueHandle Occupy(const std::wstring& name)
    {
        return vtflt::UniqueHandle(CreateEventW(nullptr, FALSE, FALSE, name.c_str()));
    }
    // What the guard says of such a name.
    static LogRecord NotMade(const std::wstring& name)
    {
        return {0, ERROR_INVALID_HANDLE, L"CMutexController::getAccess Failed to CreateMutex[" + name + L"] error: 6"};
    }
    static LogRecord NotTaken(const std::wstring& operation, const std::wstring& name)
    {
        return {0, NO_MUTEX, operation + L"Failed to get the access while creating mutex: " + name};
    }

    // The nth matching call does nothing and gives this value.
    static void ForceCall(const wchar_t* function, const std::wstring& match, ULONGLONG value, DWORD nth = 1)
    {
        VTFLTSIM_CALL_FAULT fault = {};
        fault.size = sizeof(fault);
        fault.what = VTFLTSIM_CALL_RETURNS;
        fault.function = function;
        fault.match = match.c_str();
        fault.nth = nth;
        fault.count = 1;
        fault.value = value;
        vtfltsim::Check("VTFltSimSetCallFault", VTFltSimSetCallFault(&fault));
    }
    // The fault struck; it is over now, so that looking at the state meets none.
    static void ExpectStruck(DWORD times = 1)
    {
        EXPECT_EQ(times, VTFltSimGetCallFaultHits());
        VTFltSimClearCallFaults();
    }

    // The calls of these functions that an operation made, in order.
    template <class Operation>
    static std::vector<std::wstring> CallsOf(const std::vector<std::wstring>& functions, const Operation& operation)
    {
        VTFltSimRecord(1);
        operation();
        VTFltSimRecord(0);
        std::vector<std::wstring> calls;
        for (const std::wstring& line : LibraryCalls()) {
            const std::wstring function = line.substr(0, line.find(L' '));
            for (const std::wstring& wanted : functions) {
                if (function == wanted)
                    calls.push_back(line);
            }
        }
        return calls;
    }
    static void ExpectCalls(const std::vector<std::wstring>& expected, const std::vector<std::wstring>& actual)
    {
        std::string lines;
        for (const std::wstring& line : actual)
            lines += "  " + Narrow(line) + "\n";
        EXPECT_TRUE(expected == actual) << "called:\n" << lines;
    }

private:
    void ExpectValue(const std::wstring& key, const std::wstring& value, std::wstring_view text) const
    {
        DWORD type = 0;
        const Bytes bytes = machine.ReadValue(key, value, &type);
        EXPECT_EQ(static_cast<DWORD>(REG_MULTI_SZ), type) << Narrow(value);
        EXPECT_TRUE(bytes == Raw(text)) << Narrow(value) << " holds " << Show(bytes) << " and not " << Narrow(text);
    }
    // A NUL shows as a question mark.
    static std::string Show(const Bytes& bytes)
    {
        std::wstring text;
        for (std::size_t i = 0; i + 1 < bytes.size(); i += 2)
            text.push_back(static_cast<wchar_t>(bytes[i] | (bytes[i + 1] << 8)));
        return Narrow(text) + (bytes.size() % 2 != 0 ? " and a byte" : "");
    }
};

} // namespace vttest
