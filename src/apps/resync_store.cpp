// The three operations on one stored list.
#include "apps/resync_lists.h"

#include "apps/mutex_controller.h"
#include "apps/resync_text.h"
#include "bitmap/result_codes.h"
#include "log/log.h"
#include "registry/multi_string.h"
#include "registry/value.h"

#include <algorithm>

namespace vtflt {

namespace {

constexpr std::size_t FIRST_READ_CHARACTERS = 4096;
constexpr std::size_t READ_GROWTH_CHARACTERS = 256;
// The least that a multi-string can be read into.
constexpr std::size_t MINIMUM_READ_CHARACTERS = 2;

// Reads a value into room for so many characters; value is cut to what was read, and not defined behind a failure.
DWORD QueryIntoRoom(HKEY key, const wchar_t* valueName, std::size_t characters, DWORD& type, RegistryBytes& value)
{
    if (characters < MINIMUM_READ_CHARACTERS)
        return ERROR_INSUFFICIENT_BUFFER;
    const std::size_t bytes = characters * sizeof(wchar_t);
    // A long list is asked for again and again, with a little more room each time: the memory doubles, and nothing of it is
    // cleared twice.
    if (bytes > value.capacity())
        value.reserve(std::max(bytes, 2 * value.capacity()));
    value.resize(bytes);
    auto size = static_cast<DWORD>(bytes);
    const auto error = static_cast<DWORD>(RegQueryValueExW(key, valueName, nullptr, &type, value.data(), &size));
    if (error == ERROR_SUCCESS)
        value.resize(size);
    return error;
}

// Reads a multi-string whole. 0; 2 when absent; 13 when it is not well formed; else the registry's error.
DWORD QueryMultiStringValue(HKEY key, const wchar_t* valueName, RegistryBytes& value)
{
    DWORD type = REG_NONE;
    std::size_t room = FIRST_READ_CHARACTERS;
    DWORD error = QueryIntoRoom(key, valueName, room, type, value);
    while (error == ERROR_MORE_DATA) {
        room += READ_GROWTH_CHARACTERS;
        error = QueryIntoRoom(key, valueName, room, type, value);
    }
    if (error != ERROR_SUCCESS)
        return error;
    return type == REG_MULTI_SZ && IsWellFormedMultiString(value) ? ERROR_SUCCESS : ERROR_INVALID_DATA;
}

DWORD SetMultiStringValue(HKEY key, const wchar_t* valueName, const std::wstring& characters)
{
    return static_cast<DWORD>(RegSetValueExW(key, valueName, 0, REG_MULTI_SZ,
                                             reinterpret_cast<const BYTE*>(characters.data()),
                                             static_cast<DWORD>(characters.size() * sizeof(wchar_t))));
}

// Deletes a value; one that is absent already is no error.
DWORD DeleteValue(HKEY key, const wchar_t* valueName)
{
    const auto error = static_cast<DWORD>(RegDeleteValueW(key, valueName));
    return error == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : error;
}

} // namespace

std::wstring MakeVerifyListName(const std::wstring& appId)
{
    return appId + L".Last";
}

DWORD CVolumeListForResync::GetDriverVolumeList(std::vector<std::wstring>& volumes, const std::wstring& suffix)
{
    const std::wstring valueName = MakeListValueName(suffix);
    const std::wstring mutexName = BuildMutexName(valueName);
    CMutexController mutex;
    if (mutex.getAccess(mutexName) != ERROR_SUCCESS) {
        Log(LOG_ERROR, BM_ERR_MUTEX_ACCESS,
            L"CVolumeListForResync::GetDriverVolumeListFailed to get the access while creating mutex: %s",
            mutexName.c_str());
        return BM_ERR_MUTEX_ACCESS;
    }
    UniqueKey key;
    DWORD error = OpenSettingsKey(RESYNC_LISTS_KEY, key);
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"CVolumeListForResync::GetDriverVolumeList::CreateKey %s error %d", RESYNC_LISTS_KEY,
            error);
        return error;
    }

    RegistryBytes value;
    error = QueryMultiStringValue(key.get(), valueName.c_str(), value);
    if (error == ERROR_FILE_NOT_FOUND)
        return ERROR_SUCCESS;
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"CVolumeListForResync::GetDriverVolumeList::QueryMultiStringValue %s error %d",
            valueName.c_str(), error);
        return error;
    }
    AppendStrings(value, volumes);
    return ERROR_SUCCESS;
}

DWORD CVolumeListForResync::ClearDriverRegValue(const std::wstring& suffix)
{
    const std::wstring valueName = MakeListValueName(suffix);
    const std::wstring mutexName = BuildMutexName(valueName);
    CMutexController mutex;
    if (mutex.getAccess(mutexName) != ERROR_SUCCESS) {
        Log(LOG_ERROR, BM_ERR_MUTEX_ACCESS,
            L"CVolumeListForResync::ClearDriverRegValueFailed to get the access while creating mutex: %s",
            mutexName.c_str());
        return BM_ERR_MUTEX_ACCESS;
    }
    UniqueKey key;
    DWORD error = OpenSettingsKey(RESYNC_LISTS_KEY, key);
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"CVolumeListForResync::ClearDriverRegValue::CreateKey %s error %d", RESYNC_LISTS_KEY,
            error);
        return error;
    }
    error = DeleteValue(key.get(), valueName.c_str());
    Log(LOG_DETAIL, ERROR_SUCCESS,
        L"CVolumeListForResync::ClearDriverRegValue::Deleting Driver reg Value %s retcode %d", valueName.c_str(),
        error);
    return error;
}

DWORD CVolumeListForResync::UpdateApplicationValue(const std::vector<std::wstring>& volumes, const std::wstring& suffix,
                                                   DWORD replace)
{
    const std::wstring valueName = MakeListValueName(suffix);
    // Stored, the empty string ends a list: it would take every mark behind it away.
    if (std::find(volumes.begin(), volumes.end(), std::wstring()) != volumes.end()) {
        Log(LOG_ERROR, ERROR_INVALID_PARAMETER,
            L"CVolumeListForResync::UpdateApplicationValue: A volume without a name cannot be added to %s",
            valueName.c_str());
        return ERROR_INVALID_PARAMETER;
    }
    const std::wstring mutexName = BuildMutexName(valueName);
    CMutexController mutex;
    if (mutex.getAccess(mutexName) != ERROR_SUCCESS) {
        Log(LOG_ERROR, BM_ERR_MUTEX_ACCESS,
            L"CVolumeListForResync::UpdateApplicationValueFailed to get the access while creating mutex: %s",
            mutexName.c_str());
        return BM_ERR_MUTEX_ACCESS;
    }
    UniqueKey key;
    DWORD error = OpenSettingsKey(RESYNC_LISTS_KEY, key);
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"CVolumeListForResync::UpdateApplicationValue::CreateKey %s error %d", RESYNC_LISTS_KEY,
            error);
        return error;
    }

    std::wstring text;
    for (const std::wstring& volume : volumes) {
        AppendToListText(text, volume);
        Log(LOG_INFORMATION, ERROR_SUCCESS, L"CVolumeListForResync::UpdateApplicationValueAdding the new volume %s",
            volume.c_str());
    }
    if (replace == 0) {
        error = MergeStoredList(suffix, text);
        if (error != ERROR_SUCCESS)
            return error;
    }

    if (text.empty()) {
        error = DeleteValue(key.get(), valueName.c_str());
        if (error != ERROR_SUCCESS)
            Log(LOG_ERROR, error, L"CVolumeListForResync::UpdateApplicationValue::DeleteValue %s retcode %d",
                valueName.c_str(), error);
        return error;
    }
    Log(LOG_INFORMATION, ERROR_SUCCESS, L"CVolumeListForResync::UpdateApplicationValue::SetMultiStringValue %s to %s",
        valueName.c_str(), text.c_str());
    return SetMultiStringValue(key.get(), valueName.c_str(), ListTextToMultiString(text));
}

// Old entries that cannot be read may be marks that some backup still needs: writing only the new ones would drop
// them, so the caller writes nothing.
DWORD CVolumeListForResync::MergeStoredList(const std::wstring& suffix, std::wstring& text)
{
    std::vector<std::wstring> stored;
    const DWORD error = GetDriverVolumeList(stored, suffix);
    if (error != ERROR_SUCCESS)
        return error;
    for (const std::wstring& entry : stored) {
        if (ListTextHolds(text, entry))
            continue;
        AppendToListText(text, entry);
        Log(LOG_INFORMATION, ERROR_SUCCESS,
            L"CVolumeListForResync::UpdateApplicationValueAdding the existing volume %s", entry.c_str());
    }
    return ERROR_SUCCESS;
}

} // namespace vtflt
