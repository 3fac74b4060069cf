#include "machine.h"

#include "bitmap_bits.h"
#include "common/registry_value.h"
#include "common/text.h"
#include "common/volume_name.h"
#include "failure.h"
#include "library.h"

#include "apps/resync_lists.h"
#include "apps/resync_text.h"
#include "apps/volume_name.h"
#include "bitmap/container.h"
#include "driver/request.h"
#include "registry/multi_string.h"
#include "win/owners.h"

#include <vtfltmgr/VTFltMgr.h>

#include <algorithm>

namespace vtfltctl {
namespace {

constexpr std::wstring_view LIST_NAME = L"DeviceListForReSync";
constexpr std::wstring_view VERIFY_ENDING = L".Last";

BitmapFileFacts LookAtFile(const VolumeFacts& volume, const std::wstring& application, bool base,
                           std::unique_ptr<bitmap::ByteSource>& source)
{
    BitmapFileFacts facts;
    facts.path = bitmap::BitmapPath(volume.name, application, base);
    try {
        source = bitmap::OpenFileIfThere(facts.path);
        facts.there = source != nullptr;
        if (!facts.there)
            return facts;
        facts.file = bitmap::Inspect(*source, bitmap::Kind::Record);
        if (facts.Usable() && volume.geometry.blockSize != 0 && volume.geometry.volumeBytes != 0)
            facts.misfits = bitmap::Misfits(*facts.file, volume.geometry.volumeBytes, volume.geometry.blockSize);
    } catch (const bitmap::ReadError& error) {
        facts.there = true;
        facts.file.reset();
        facts.readError = bitmap::ReadErrorText(facts.path, error);
    } catch (const Failure& failure) {
        facts.there = true;
        facts.readError = failure.what();
    }
    return facts;
}

// What the next backup gets from the files: the driver's own bits come to it, and cannot be seen without moving them.
void CountOwed(const VolumeFacts& volume, HoldingFacts& holding, bitmap::ByteSource& base, bitmap::ByteSource& child)
{
    const bool known = volume.geometry.blockSize != 0 && volume.geometry.volumeBytes != 0;
    // Bits of blocks of different sizes cannot be counted together, and mean nothing in the driver's.
    if (holding.base.file->blockSize != holding.child.file->blockSize ||
        (known && holding.base.file->blockSize != volume.geometry.blockSize))
        return;
    const std::uint64_t blocks =
        known ? volume.geometry.VolumeBlocks() : std::max(holding.base.file->Blocks(), holding.child.file->Blocks());
    bitmap::FileBits baseBits(base, *holding.base.file, blocks);
    bitmap::FileBits childBits(child, *holding.child.file, blocks);
    bitmap::CombinedBits either(baseBits, childBits, bitmap::CombinedBits::Rule::Either);
    const bitmap::Totals totals = bitmap::TotalsOf(either);
    const std::uint32_t blockSize = holding.base.file->blockSize;
    holding.owedBlocks = totals.Set();
    holding.owedBytes = bitmap::SaturatedProduct(totals.Set(), blockSize);
    // A last block that is only partly on the volume.
    if (known && totals.End() == blocks)
        holding.owedBytes -= blocks * blockSize - volume.geometry.volumeBytes;
}

HoldingFacts LookAtHolding(const VolumeFacts& volume, const std::wstring& application)
{
    HoldingFacts holding;
    holding.application = application;
    std::unique_ptr<bitmap::ByteSource> base;
    std::unique_ptr<bitmap::ByteSource> child;
    holding.base = LookAtFile(volume, application, true, base);
    holding.child = LookAtFile(volume, application, false, child);
    if (!holding.base.Usable() || !holding.child.Usable())
        return holding;
    try {
        CountOwed(volume, holding, *base, *child);
    } catch (const bitmap::ReadError& error) {
        holding.base.readError = bitmap::ReadErrorText(holding.base.path, error);
    }
    return holding;
}

void ListFolder(VolumeFacts& volume)
{
    const std::wstring pattern = vtflt::BitmapFolderPath(volume.name.name) + L"\\*";
    WIN32_FIND_DATAW found = {};
    const vtflt::UniqueFileSearch search(FindFirstFileW(pattern.c_str(), &found));
    if (!search) {
        const DWORD error = GetLastError();
        if (error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND)
            volume.folderError = error;
        return;
    }
    do {
        if ((found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0)
            volume.files.emplace_back(found.cFileName);
    } while (FindNextFileW(search.get(), &found));
    std::sort(volume.files.begin(), volume.files.end());
}

std::vector<std::wstring> MountPaths(const std::wstring& volumePath)
{
    std::vector<std::wstring> paths;
    std::vector<wchar_t> names(1024);
    DWORD needed = 0;
    if (!GetVolumePathNamesForVolumeNameW(volumePath.c_str(), names.data(), static_cast<DWORD>(names.size()) - 2,
                                          &needed))
        return paths;
    for (const wchar_t* p = names.data(); *p != L'\0'; p += paths.back().size() + 1)
        paths.emplace_back(p);
    return paths;
}

VolumeFacts LookAtVolume(const std::wstring& path, const std::wstring& guid,
                         const std::vector<ApplicationFacts>& applications)
{
    VolumeFacts volume;
    volume.name = {L"Volume" + guid, path};
    volume.guid = guid;
    volume.mountPaths = MountPaths(path);
    const std::wstring device = vtflt::StripTrailingBackslash(path);
    vtflt::UniqueHandle handle;
    volume.openError = vtflt::OpenDevice(device.c_str(), handle);
    handle.reset();
    volume.geometry = bitmap::QueryGeometry(volume.name);
    volume.monitored = VTIsDeviceMonitored(device.c_str()) == 0;
    ListFolder(volume);
    for (const ApplicationFacts& application : applications)
        volume.holdings.push_back(LookAtHolding(volume, application.id));
    return volume;
}

void LookAtApplications(MachineFacts& machine)
{
    const toolkit::RegistryValue read = ReadApplicationIds();
    machine.applicationsError = read.error == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : read.error;
    std::vector<std::wstring> ids;
    if (read.error == ERROR_SUCCESS)
        vtflt::AppendValueEntries(read.bytes, ids);
    for (const std::wstring& id : ids)
        machine.applications.push_back({id, ReadVolumeList(id), ReadVolumeList(vtflt::MakeVerifyListName(id))});
}

void FindForeignLists(MachineFacts& machine)
{
    vtflt::UniqueKey key;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, vtflt::RESYNC_LISTS_KEY, 0, KEY_READ, key.put()) != ERROR_SUCCESS)
        return;
    std::vector<wchar_t> name(16384);
    for (DWORD index = 0;; ++index) {
        auto length = static_cast<DWORD>(name.size());
        if (RegEnumValueW(key.get(), index, name.data(), &length, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            return;
        const std::wstring_view value(name.data(), length);
        if (value.size() <= LIST_NAME.size() ||
            !toolkit::EqualIgnoringCase(value.substr(0, LIST_NAME.size()), LIST_NAME))
            continue;
        const std::wstring_view suffix = value.substr(LIST_NAME.size());
        std::wstring_view owner = suffix;
        if (toolkit::EndsWithIgnoringCase(owner, VERIFY_ENDING))
            owner.remove_suffix(VERIFY_ENDING.size());
        const bool known = std::any_of(machine.applications.begin(), machine.applications.end(),
                                       [&](const ApplicationFacts& application) {
                                           return toolkit::EqualIgnoringCase(application.id, owner) ||
                                                  toolkit::EqualIgnoringCase(application.id, suffix);
                                       });
        if (!known)
            machine.foreignLists.emplace_back(suffix);
    }
}

} // namespace

MachineFacts LookAtMachine()
{
    MachineFacts machine;
    machine.driver = LookAtDriver();
    machine.snapshots = LookAtSwitch(SNAPSHOT_CLASS);
    LookAtApplications(machine);
    machine.driverList = ReadVolumeList({});
    FindForeignLists(machine);
    const toolkit::RegistryValue dumps =
        toolkit::ReadRegistryValue(L"SOFTWARE\\Veltrix\\Shared\\CBTDriver", L"DumpBitmap");
    machine.dumps = dumps.error == ERROR_SUCCESS && dumps.type == REG_DWORD && dumps.bytes.size() == 4 &&
                    dumps.bytes[0] == 1 && dumps.bytes[1] == 0 && dumps.bytes[2] == 0 && dumps.bytes[3] == 0;
    std::vector<std::wstring> paths;
    machine.volumesError = toolkit::EnumerateVolumePaths(paths);
    for (const std::wstring& path : paths) {
        const std::optional<std::wstring> guid = toolkit::ParseVolumeGuid(path);
        if (!guid)
            continue;
        machine.volumeGuids.push_back(*guid);
        if (GetDriveTypeW(path.c_str()) == DRIVE_FIXED)
            machine.volumes.push_back(LookAtVolume(path, *guid, machine.applications));
    }
    return machine;
}

} // namespace vtfltctl
