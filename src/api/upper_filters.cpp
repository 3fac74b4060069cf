#include "api/upper_filters.h"

#include "bitmap/result_codes.h"
#include "driver/protocol.h"
#include "log/log.h"
#include "registry/multi_string.h"
#include "win/owners.h"

#include <cstdint>
#include <new>

namespace vtflt {

namespace {

constexpr wchar_t VOLUME_CLASS_KEY[] =
    L"System\\CurrentControlSet\\Control\\Class\\{71A27CDD-812A-11D0-BEC7-08002BE2092F}";
constexpr wchar_t SNAPSHOT_PROVIDER[] = L"volsnap";

// The filter list's bytes with one NUL more, so that a list which was stored without its end has one. False after
// logging the failure.
bool ReadFilterList(HKEY classKey, RegistryBytes& list)
{
    DWORD size = 0;
    DWORD error = static_cast<DWORD>(RegQueryValueExW(classKey, UPPER_FILTERS_VALUE, nullptr, nullptr, nullptr, &size));
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"Error: failed to registry key [%s], rc:%d.", UPPER_FILTERS_VALUE, error);
        return false;
    }

    try {
        list.assign(std::size_t{size} + sizeof(wchar_t), 0);
    } catch (const std::bad_alloc&) {
        Log(LOG_ERROR, ERROR_NOT_ENOUGH_MEMORY, L"Error: allocate memory %d bytes failed in IsValueIsMutliSZRegistry.",
            size);
        return false;
    }

    DWORD stored = size;
    error = static_cast<DWORD>(RegQueryValueExW(classKey, UPPER_FILTERS_VALUE, nullptr, nullptr, list.data(), &stored));
    if (error != ERROR_SUCCESS) {
        // Readers of the log know the driver's name, printed as a number, in the place of the code; the code stands in
        // the record.
        Log(LOG_ERROR, error, L"Error: failed to query volume upper filter list. rc: %d.",
            static_cast<DWORD>(reinterpret_cast<std::uintptr_t>(DRIVER_NAME)));
        return false;
    }
    // The value may have become shorter since its size was asked.
    if (stored < size)
        list.resize(std::size_t{stored} + sizeof(wchar_t));
    return true;
}

bool IsOrderGood(const RegistryBytes& list)
{
    const int driver = FindMultiSZEntry(list, DRIVER_NAME);
    if (driver < 0) {
        Log(LOG_ERROR, BM_ERR_FAILED, L"Error: not found [%s] in the volume class upper filter.", DRIVER_NAME);
        return false;
    }
    // A list without the snapshot provider passes.
    if (driver < FindMultiSZEntry(list, SNAPSHOT_PROVIDER)) {
        Log(LOG_ERROR, BM_ERR_FAILED, L"Error: [%s] is before [volsnap] in the volume class upper filter list.",
            DRIVER_NAME);
        return false;
    }
    return true;
}

} // namespace

bool IsUpperFilterOrderGood()
{
    UniqueKey classKey;
    const DWORD error = static_cast<DWORD>(RegCreateKeyW(HKEY_LOCAL_MACHINE, VOLUME_CLASS_KEY, classKey.put()));
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"Open key %s failed in IsValueInEntry\n", VOLUME_CLASS_KEY);
        return true;
    }

    RegistryBytes list;
    return ReadFilterList(classKey.get(), list) && IsOrderGood(list);
}

} // namespace vtflt
