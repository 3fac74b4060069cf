#include "backup_pause.h"
#include "commands.h"
#include "common/text.h"
#include "fixed_volumes.h"
#include "library.h"
#include "output.h"
#include "volume_lists.h"

#include "apps/resync_lists.h"
#include "apps/volume_name.h"

#include <fmt/format.h>

#include <memory>

namespace vtfltctl {
namespace {

struct FilesOfVolume {
    bitmap::VolumeName volume;
    std::vector<std::wstring> files;
};

// Whose files these are: names of files ignore case.
std::vector<std::wstring> OwnersOf(const std::wstring& application)
{
    std::vector<std::wstring> owners = RegisteredApplications();
    std::erase_if(owners, [&](const std::wstring& id) { return !toolkit::EqualIgnoringCase(id, application); });
    return owners;
}

// An owner's next backup must know that it has to verify before the files are gone.
void CleanVolume(const FilesOfVolume& found, const std::vector<std::wstring>& owners)
{
    // In the library's order of mutexes.
    const std::unique_ptr<LibraryLock> applications = LockApplications();
    const std::unique_ptr<VolumeLock> lock = LockBitmapFiles(found.volume);
    for (const std::wstring& owner : owners)
        AddToList(vtflt::MakeVerifyListName(owner), {vtflt::GetVolumeGuid(found.volume.path)}, VerifyListName(owner));
    for (const std::wstring& file : found.files) {
        const DWORD error = DeleteFileW(file.c_str()) ? ERROR_SUCCESS : GetLastError();
        if (error != ERROR_SUCCESS && MayBeThere(file))
            throw Failure(Exit::Unreadable, fmt::format("cannot delete {}: {}", Shown(file), ErrorText(error)));
    }
}

std::vector<FilesOfVolume> FindFiles(const std::wstring& application, const std::string& volume)
{
    std::vector<FilesOfVolume> found;
    const std::vector<bitmap::VolumeName> volumes =
        volume.empty() ? FixedVolumes() : std::vector<bitmap::VolumeName>{bitmap::FindVolumeByName(ToWide(volume))};
    for (const bitmap::VolumeName& one : volumes) {
        std::vector<std::wstring> files = BitmapFilesOf(one, application);
        if (!files.empty())
            found.push_back({one, std::move(files)});
    }
    return found;
}

} // namespace

Exit CleanApplication(const Context& context, const CleanOptions& options)
{
    const std::wstring application = ToWide(options.application);
    if (application.empty())
        throw Failure(Exit::Usage, "the application ID is empty");
    if (application.find_first_of(L"<>:\"/\\|?*") != std::wstring::npos)
        throw Failure(Exit::Usage, fmt::format("{} cannot stand in a file name, so no bitmap file is named after it",
                                               Quoted(application)));
    const std::vector<FilesOfVolume> found = FindFiles(application, options.volume);
    if (found.empty())
        throw Failure(Exit::NotFound, fmt::format("{} has no bitmap files there", Quoted(application)));
    Json names = Json::array();
    std::string text;
    for (const FilesOfVolume& one : found) {
        for (const std::wstring& file : one.files) {
            names.push_back(ToUtf8(file));
            text += "deleted " + Shown(file) + "\n";
        }
    }
    const std::vector<std::wstring> owners = OwnersOf(application);
    RequireYes(context,
               fmt::format("would delete {} of {}{}", CountText(names.size(), "bitmap file"), Quoted(application),
                           owners.empty() ? "" : ", whose next backup there must then verify"));
    // A backup that runs takes the mark off by its success.
    std::vector<std::unique_ptr<BackupPause>> pauses;
    for (const std::wstring& owner : owners)
        pauses.push_back(std::make_unique<BackupPause>(context, owner));
    for (const FilesOfVolume& one : found)
        CleanVolume(one, owners);
    return Answer(context, Exit::Ok, {{"application", ToUtf8(application)}, {"deleted", names}}, text);
}

} // namespace vtfltctl
