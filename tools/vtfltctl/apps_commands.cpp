// apps: who is registered, and who is to be.
#include "bitmap_live.h"
#include "common/application_id.h"
#include "common/registry_value.h"
#include "common/volume_name.h"
#include "library.h"
#include "output.h"
#include "volume_lock.h"

#include "apps/resync_lists.h"
#include "apps/volume_name.h"
#include "registry/multi_string.h"
#include "registry/multi_string_value.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <vtfltmgr/VTFltMgr.h>

#include <memory>

namespace vtfltctl {
namespace {

Exit ListApplications(const Context& context)
{
    Json applications = Json::array();
    std::string text;
    for (const std::wstring& application : RegisteredApplications()) {
        applications.push_back(ToUtf8(application));
        text += Shown(application) + "\n";
    }
    if (text.empty())
        text = "No application is registered.\n";
    return Answer(context, Exit::Ok, {{"applications", applications}}, text);
}

Exit RegisterApplication(const Context& context, const std::wstring& application)
{
    if (application.empty())
        throw Failure(Exit::Usage, "the application ID is empty");
    const std::vector<std::wstring> registered = RegisteredApplications();
    if (const std::string reason = toolkit::UnsuitableBecause(application, registered); !reason.empty())
        throw Failure(Exit::Refused, fmt::format("application ID {} is refused: {}", Quoted(application), reason));
    const bool already = IsRegistered(application);
    Require(VTRegisterApplication(application.c_str()), fmt::format("register {}", Quoted(application)));
    // The library answers 0 for an ID that it found as another entry's tail and did not add.
    if (!IsRegistered(application))
        throw Failure(Exit::Refused, fmt::format("application {} was not registered: its ID is found in another one's",
                                                 Quoted(application)));
    return Answer(context, Exit::Ok,
                  {{"application", ToUtf8(application)}, {"changed", !already}, {"registered", true}},
                  fmt::format("Application {} {}.\n", Quoted(application),
                              already ? "is registered already; nothing was changed"
                                      : "is registered, with fresh bitmaps on every fixed volume"));
}

// The library takes out of the list what it finds first, which may be the end of another ID.
void RequireFoundAsItself(const std::wstring& application)
{
    const toolkit::RegistryValue list =
        toolkit::ReadMultiString(vtflt::APPLICATION_IDS_KEY, vtflt::APPLICATION_IDS_VALUE);
    const int position = vtflt::FindMultiSZEntry(list.bytes, application);
    if (position <= 0)
        return;
    const std::size_t before = (static_cast<std::size_t>(position) - 1) * sizeof(wchar_t);
    if (list.bytes[before] != 0 || list.bytes[before + 1] != 0)
        throw Failure(Exit::Refused,
                      fmt::format("{} is found first at the end of another application's ID, which would be cut; "
                                  "\"vtfltctl doctor\" says which: unregister that one first",
                                  Quoted(application)));
}

Exit UnregisterApplication(const Context& context, const std::wstring& application)
{
    RequireRegistered(application);
    RequireFoundAsItself(application);
    RequireYes(context, fmt::format("would unregister {} and delete its bitmap files on every fixed volume",
                                    Quoted(application)));
    Require(VTUnregisterApplication(application.c_str()), fmt::format("unregister {}", Quoted(application)));
    // The library takes one entry off the list, and an ID can be there twice.
    const bool still = IsRegistered(application);
    return Answer(context, Exit::Ok, {{"application", ToUtf8(application)}, {"changed", true}, {"registered", still}},
                  still ? fmt::format("Application {} was registered more than once and still is registered, without "
                                      "bitmap files. Its next backup of every volume must verify.\n",
                                      Quoted(application))
                        : fmt::format("Application {} is unregistered and its bitmap files are deleted. Its verify "
                                      "list stays and names every volume.\n",
                                      Quoted(application)));
}

// ---- clean

constexpr DWORD MERGE_LIST = 0;

struct CleanOptions {
    std::string application;
    std::string volume;
};

std::unique_ptr<VolumeLock> LockForDeleting(const bitmap::VolumeName& volume)
{
    try {
        return std::make_unique<VolumeLock>(volume.name);
    } catch (const bitmap::ReadError& error) {
        if (error.Code() == WAIT_TIMEOUT)
            throw Failure(Exit::Busy, fmt::format("a backup works on the bitmap files of {}; nothing was changed there",
                                                  Shown(volume.name)));
        throw Failure(Exit::Unreadable, fmt::format("cannot lock the bitmap files of {}: {}; nothing was changed there",
                                                    Shown(volume.name), ErrorText(error.Code())));
    }
}

bool IsThere(const std::wstring& path)
{
    return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::vector<std::wstring> FilesOf(const bitmap::VolumeName& volume, const std::wstring& application)
{
    std::vector<std::wstring> files;
    for (const bool base : {true, false}) {
        std::wstring path = bitmap::BitmapPath(volume, application, base);
        // The library cuts a long path, so the file can be that of another ID with the same beginning.
        if (!path.ends_with(application + L".dat"))
            throw Failure(Exit::Refused, fmt::format("{} is too long: the path of its bitmap files would be cut",
                                                     Quoted(application)));
        if (IsThere(path))
            files.push_back(std::move(path));
    }
    return files;
}

std::vector<bitmap::VolumeName> VolumesToClean(const std::string& volume)
{
    if (!volume.empty())
        return {bitmap::FindVolumeByName(ToWide(volume))};
    std::vector<std::wstring> paths;
    if (const DWORD error = toolkit::EnumerateVolumePaths(paths); error != ERROR_SUCCESS)
        throw Failure(Exit::Device, "cannot list the volumes: " + ErrorText(error));
    std::vector<bitmap::VolumeName> volumes;
    for (const std::wstring& path : paths) {
        if (GetDriveTypeW(path.c_str()) == DRIVE_FIXED)
            volumes.push_back({vtflt::GetVolumeName(path), path});
    }
    return volumes;
}

// Whose files these are: names of files ignore case.
std::vector<std::wstring> OwnersOf(const std::wstring& application)
{
    std::vector<std::wstring> owners = RegisteredApplications();
    std::erase_if(owners, [&](const std::wstring& id) { return !toolkit::EqualIgnoringCase(id, application); });
    return owners;
}

// An owner's next backup must know that it has to verify before the files are gone.
void CleanVolume(const bitmap::VolumeName& volume, const std::vector<std::wstring>& files,
                 const std::vector<std::wstring>& owners)
{
    const std::unique_ptr<VolumeLock> lock = LockForDeleting(volume);
    vtflt::CVolumeListForResync lists;
    for (const std::wstring& owner : owners)
        Require(lists.UpdateApplicationValue({vtflt::GetVolumeGuid(volume.path)}, vtflt::MakeVerifyListName(owner),
                                             MERGE_LIST),
                "put the volume on the verify list of " + Quoted(owner));
    for (const std::wstring& file : files) {
        const DWORD error = DeleteFileW(file.c_str()) ? ERROR_SUCCESS : GetLastError();
        if (error != ERROR_SUCCESS && IsThere(file))
            throw Failure(Exit::Unreadable, fmt::format("cannot delete {}: {}", Shown(file), ErrorText(error)));
    }
}

Exit CleanApplication(const Context& context, const CleanOptions& options)
{
    const std::wstring application = ToWide(options.application);
    if (application.empty())
        throw Failure(Exit::Usage, "the application ID is empty");
    if (application.find_first_of(L"<>:\"/\\|?*") != std::wstring::npos)
        throw Failure(Exit::Usage, fmt::format("{} cannot stand in a file name, so no bitmap file is named after it",
                                               Quoted(application)));
    struct Found {
        bitmap::VolumeName volume;
        std::vector<std::wstring> files;
    };
    std::vector<Found> found;
    Json names = Json::array();
    std::string text;
    for (const bitmap::VolumeName& volume : VolumesToClean(options.volume)) {
        std::vector<std::wstring> files = FilesOf(volume, application);
        for (const std::wstring& file : files) {
            names.push_back(ToUtf8(file));
            text += "deleted " + Shown(file) + "\n";
        }
        if (!files.empty())
            found.push_back({volume, std::move(files)});
    }
    if (found.empty())
        throw Failure(Exit::NotFound, fmt::format("{} has no bitmap files there", Quoted(application)));
    const std::vector<std::wstring> owners = OwnersOf(application);
    RequireYes(context,
               fmt::format("would delete {} of {}{}", CountText(names.size(), "bitmap file"), Quoted(application),
                           owners.empty() ? "" : ", whose next backup there must then verify"));
    for (const Found& one : found)
        CleanVolume(one.volume, one.files, owners);
    return Answer(context, Exit::Ok, {{"application", ToUtf8(application)}, {"deleted", names}}, text);
}

} // namespace

void AddAppsCommands(CLI::App& app, Context& context)
{
    CLI::App& group = AddGroup(app, "apps", "The registered applications");
    AddCommand(group, context, "list", "List the registered applications, in the order of registration",
               [&context] { return ListApplications(context); });

    const auto id = std::make_shared<std::string>();
    CLI::App& add = AddCommand(group, context, "register",
                               "Register an application and give it fresh bitmaps on every fixed volume",
                               [&context, id] { return RegisterApplication(context, ToWide(*id)); });
    add.add_option("APP", *id, "application ID, taken exactly")->required();
    CLI::App& remove = AddCommand(group, context, "unregister",
                                  "Unregister an application and delete its bitmap files on every fixed volume",
                                  [&context, id] { return UnregisterApplication(context, ToWide(*id)); });
    remove.add_option("APP", *id, "application ID, compared exactly")->required();
    AddYes(remove, context, "the application's bitmap files");

    const auto options = std::make_shared<CleanOptions>();
    CLI::App& clean = AddCommand(group, context, "clean",
                                 "Delete the bitmap files of an application, registered or not: if it is, its next "
                                 "backup must verify",
                                 [&context, options] { return CleanApplication(context, *options); });
    clean.add_option("APP", options->application, "application ID that the files are named after")->required();
    clean.add_option("--volume", options->volume, "of this volume only: {...}, \\\\?\\Volume{...}\\ or a mount path")
        ->type_name("VOLUME");
    AddYes(clean, context, "the bitmap files");
}

} // namespace vtfltctl
