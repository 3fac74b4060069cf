// The lists of volumes, and the names of volumes in them.
#include "apps/resync_text.h"
#include "apps/volume_name.h"
#include "common/volume_name.h"
#include "fuzz/fuzz.h"
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
    // What is marked by a volume's name is found by it again.
    if (vtflt::IsVolumeGuidPath(path))
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

// What is written of a list and read again is the list, but that a separator in an entry ends it.
void CheckStored(const Strings& list)
{
    std::wstring text;
    Strings expected;
    for (const std::wstring& entry : list) {
        vtflt::AppendToListText(text, entry);
        FUZZ_HOLDS(vtflt::ListTextHolds(text, entry));
    }
    const std::wstring stored = vtflt::ListTextToMultiString(text);
    FUZZ_HOLDS(stored.size() == text.size() + 1 && stored.back() == L'\0');
    FUZZ_HOLDS(stored.find(L'*') == std::wstring::npos);
    if (list.empty())
        return;
    vtflt::RegistryBytes bytes(stored.size() * 2);
    std::memcpy(bytes.data(), stored.data(), bytes.size());
    FUZZ_HOLDS(vtflt::IsWellFormedMultiString(bytes));
    const bool isPlain = std::none_of(list.begin(), list.end(), [](const std::wstring& entry) {
        return entry.empty() || entry.find(L'*') != std::wstring::npos || entry.find(L'\0') != std::wstring::npos;
    });
    if (!isPlain)
        return;
    Strings read;
    vtflt::AppendStrings(bytes, read);
    FUZZ_HOLDS(read == list);
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
    for (std::wstring& one : list)
        one = L'{' + one + L'}';
    CheckSplit(list);
}

} // namespace fuzz
