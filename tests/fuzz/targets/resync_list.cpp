// The lists of volumes, and the names of volumes in them.
#include "apps/resync_lists.h"
#include "apps/resync_text.h"
#include "apps/volume_name.h"
#include "common/volume_name.h"
#include "fuzz/fuzz.h"
#include "fuzz/system.h"
#include "registry/multi_string.h"

#include <algorithm>

namespace fuzz {

namespace {

using Strings = std::vector<std::wstring>;

void CheckNames(const std::wstring& path, const std::wstring& entry)
{
    const std::wstring name = vtflt::GetVolumeName(path);
    const std::size_t first = path.find_first_of(L"Volume");
    std::wstring expected = first == std::wstring::npos ? path : path.substr(first);
    if (!expected.empty() && expected.back() == L'\\')
        expected.pop_back();
    FUZZ_HOLDS(name == expected);
    const std::wstring guid = vtflt::GetVolumeGuid(path);
    FUZZ_HOLDS(guid.size() <= path.size() && path.find(guid) != std::wstring::npos);
    FUZZ_HOLDS(vtflt::ListEntryMatchesVolume(entry, path) == (path.find(entry) != std::wstring::npos));
    // What is marked by a volume's name is found by it again. An empty name is in every path, and is no mark: see
    // CheckWritten.
    if (vtflt::IsVolumeGuidPath(path) && !guid.empty())
        FUZZ_HOLDS(vtflt::ListEntryMatchesVolume(guid, path));

    const auto braced = toolkit::ParseVolumeGuid(path);
    if (!braced)
        return;
    FUZZ_HOLDS(braced->size() == 38 && vtflt::IsBracedGuid(*braced));
    FUZZ_HOLDS(toolkit::ParseVolumeGuid(*braced) == braced && toolkit::ParseVolumeGuid(L"Volume" + *braced) == braced);
}

void CheckSplit(const Strings& list)
{
    Strings handOut;
    Strings keep;
    vtflt::SplitDriverList(list, handOut, keep);
    FUZZ_HOLDS(handOut.size() + keep.size() == list.size());
    auto nextOut = handOut.begin();
    auto nextKept = keep.begin();
    for (const std::wstring& entry : list) {
        const bool braced = !entry.empty() && entry.front() == L'{' && entry.back() == L'}';
        FUZZ_HOLDS((braced ? *nextOut++ : *nextKept++) == entry);
    }
}

// What is written of a list and read again is the list, but that a separator parts an entry, and that nothing is kept of
// a part without a character.
void CheckStored(const Strings& list)
{
    std::wstring text;
    Strings expected;
    for (const std::wstring& entry : list) {
        vtflt::AppendToListText(text, entry);
        FUZZ_HOLDS(vtflt::ListTextHolds(text, entry));
        for (std::size_t at = 0; at <= entry.size();) {
            const std::size_t end = std::min(entry.find(L'*', at), entry.size());
            if (end != at)
                expected.push_back(entry.substr(at, end - at));
            at = end + 1;
        }
    }
    const std::wstring stored = vtflt::ListTextToMultiString(text);
    FUZZ_HOLDS(stored.size() >= 2 && stored.size() <= std::max<std::size_t>(text.size() + 1, 2));
    FUZZ_HOLDS(stored.back() == L'\0' && stored.find(L'*') == std::wstring::npos);
    vtflt::RegistryBytes bytes(stored.size() * 2);
    std::memcpy(bytes.data(), stored.data(), bytes.size());
    FUZZ_HOLDS(vtflt::IsWellFormedMultiString(bytes));
    if (text.find(L'\0') != std::wstring::npos)
        return;
    Strings read;
    vtflt::AppendStrings(bytes, read);
    FUZZ_HOLDS(read == expected);
}

bool Has(const Strings& list, const std::wstring& entry)
{
    return std::find(list.begin(), list.end(), entry) != list.end();
}

Strings ReadBack()
{
    Strings read;
    FUZZ_HOLDS(vtflt::CVolumeListForResync().GetDriverVolumeList(read, L"App.Last") == ERROR_SUCCESS);
    return read;
}

// Through the registry: a list with an empty entry is refused, and nothing is touched; every other one is read again, and
// what is merged in stands there with all that it does not hold already.
void CheckWritten(const Strings& list, const Strings& more)
{
    TheSystem() = {};
    vtflt::CVolumeListForResync store;
    const auto isEmpty = [](const std::wstring& entry) { return entry.empty(); };
    const auto write = [&](const Strings& entries, DWORD replace) {
        const auto before = TheSystem().values;
        const unsigned calls = TheSystem().calls;
        const DWORD result = store.UpdateApplicationValue(entries, L"App.Last", replace);
        FUZZ_HOLDS(TheSystem().openHandles == 0 && TheSystem().heldMutexes == 0);
        if (std::any_of(entries.begin(), entries.end(), isEmpty)) {
            FUZZ_HOLDS(result == ERROR_INVALID_PARAMETER && TheSystem().calls == calls);
            FUZZ_HOLDS(TheSystem().values.size() == before.size() &&
                       std::equal(before.begin(), before.end(), TheSystem().values.begin(),
                                  [](const auto& a, const auto& b) { return a.second.bytes == b.second.bytes; }));
            return false;
        }
        FUZZ_HOLDS(result == ERROR_SUCCESS);
        return true;
    };
    const auto isPlain = [](const std::wstring& entry) {
        return entry.find(L'*') == std::wstring::npos && entry.find(L'\0') == std::wstring::npos;
    };
    if (!std::all_of(list.begin(), list.end(), isPlain) || !std::all_of(more.begin(), more.end(), isPlain))
        return;
    if (!write(list, 1))
        return;
    FUZZ_HOLDS(ReadBack() == list);
    if (!write(more, 0)) {
        FUZZ_HOLDS(ReadBack() == list);
        return;
    }
    const Strings merged = ReadBack();
    for (const std::wstring& entry : more)
        FUZZ_HOLDS(Has(merged, entry));
    for (const std::wstring& entry : list) {
        FUZZ_HOLDS(Has(merged, entry) || std::any_of(merged.begin(), merged.end(), [&](const std::wstring& other) {
                       return other.find(entry) != std::wstring::npos;
                   }));
    }
}

} // namespace

void ResyncList(const std::uint8_t* bytes, std::size_t count)
{
    Input input(bytes, count);
    const std::wstring path = input.Text(input.Byte() % 64);
    const std::wstring entry = input.Text(input.Byte() % 48);
    CheckNames(path, entry);
    CheckNames(L"\\\\?\\Volume{" + entry + L"}\\", entry);

    vtflt::RegistryBytes raw = input.Rest();
    Strings list;
    vtflt::AppendStrings(raw, list);
    CheckSplit(list);
    CheckStored(list);
    CheckWritten(list, {vtflt::GetVolumeGuid(path)});
    CheckWritten({entry}, list);
    for (std::wstring& one : list)
        one = L'{' + one + L'}';
    CheckSplit(list);
}

} // namespace fuzz
