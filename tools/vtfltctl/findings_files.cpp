// Checks of one volume: is it tracked, and do its bitmap files fit the applications, the driver and the volume?
#include "bitmap_name.h"
#include "common/text.h"
#include "findings_parts.h"
#include "output.h"

#include "apps/resync_lists.h"
#include "apps/volume_name.h"

#include <fmt/format.h>

#include <algorithm>
#include <initializer_list>

namespace vtfltctl {
namespace {

using bitmap::Flaw;
using bitmap::Verdict;

Mend Clean(const std::wstring& application, const VolumeFacts& volume)
{
    return {{"apps clean", {application}, "--volume \"" + ToUtf8(volume.guid) + "\" --yes"}};
}

std::string FlawTexts(const bitmap::FileFacts& file)
{
    std::string text;
    for (const Flaw flaw : file.flaws)
        text += (text.empty() ? "" : " ") + bitmap::FlawText(flaw, file);
    return text;
}

void CheckTracking(const MachineFacts& machine, const VolumeFacts& volume, std::vector<Finding>& findings)
{
    if (volume.openError != ERROR_SUCCESS) {
        findings.push_back(
            {"volume-unreadable",
             Severity::Unknown,
             {},
             volume.guid,
             fmt::format("The volume {} cannot be opened: {}.", Shown(volume.guid), ErrorText(volume.openError)),
             "Whether its bitmap files fit is not known, and no application can back it up.",
             {}});
        return;
    }
    // Without the driver nothing is tracked; that is said once, and not for each volume.
    if (machine.driver.generation == Generation::None || machine.applications.empty())
        return;
    if (!volume.monitored)
        findings.push_back({"not-monitored",
                            Severity::Verify,
                            {},
                            volume.guid,
                            fmt::format("The driver does not track the volume {}.", Shown(volume.guid)),
                            "Its next backup must verify, and gets no bitmap until the driver tracks it again.",
                            {}});
    else if (volume.geometry.blockSize == 0 || volume.geometry.volumeBytes == 0)
        findings.push_back(
            {"geometry-unknown",
             Severity::Unknown,
             {},
             volume.guid,
             fmt::format("The volume {} does not tell its length or its tracking block size.", Shown(volume.guid)),
             "Whether its bitmap files fit is not known.",
             {}});
}

void CheckUnusable(const VolumeFacts& volume, const HoldingFacts& holding, const BitmapFileFacts& bitmap,
                   std::vector<Finding>& findings)
{
    if (!bitmap.readError.empty()) {
        findings.push_back({"file-unreadable",
                            Severity::Unknown,
                            holding.application,
                            volume.guid,
                            bitmap.readError + ".",
                            "Whether the next backup can use it is not known.",
                            {}});
        return;
    }
    const std::string flaws = FlawTexts(*bitmap.file);
    if (bitmap::VerdictOf(*bitmap.file) == Verdict::BlocksAll)
        findings.push_back({"file-cut-short", Severity::Damaged, holding.application, volume.guid,
                            fmt::format("{} is cut short. {}", Shown(bitmap.path), flaws),
                            // Everybody's fetch hands the driver's bits to every child; the base is its owner's alone.
                            &bitmap == &holding.base
                                ? "Until it is gone, every fetch of the application's changes from this volume fails."
                                : "Until it is gone, every fetch of changes from this volume fails, for every "
                                  "application.",
                            Clean(holding.application, volume)});
    else
        findings.push_back({"file-damaged", Severity::Damaged, holding.application, volume.guid,
                            fmt::format("{} is damaged. {}", Shown(bitmap.path), flaws),
                            "The application's next backup of this volume must verify; it then starts a fresh file.",
                            Clean(holding.application, volume)});
}

void CheckUsable(const VolumeFacts& volume, const HoldingFacts& holding, const BitmapFileFacts& bitmap,
                 std::vector<Finding>& findings)
{
    for (const Flaw flaw : bitmap.misfits) {
        const std::string text = fmt::format("{}: {}", Shown(bitmap.path), bitmap::FlawText(flaw, *bitmap.file));
        if (flaw == Flaw::BlockSizeDiffers)
            findings.push_back(
                {"block-size-differs", Severity::Damaged, holding.application, volume.guid,
                 fmt::format("{} The driver tracks blocks of {}.", text, BytesText(volume.geometry.blockSize)),
                 "Its bits mean other places than the driver's: a next backup that does not verify "
                 "misses changes.",
                 Clean(holding.application, volume)});
        else
            findings.push_back({"size-differs",
                                Severity::Note,
                                holding.application,
                                volume.guid,
                                text,
                                flaw == Flaw::CoversLess
                                    ? "The next fetch makes it longer; the driver has the changes behind its end."
                                    : "The next fetch makes it shorter.",
                                {}});
    }
    if (bitmap::VerdictOf(*bitmap.file) == Verdict::Doubtful)
        findings.push_back(
            {"file-doubtful",
             Severity::Note,
             holding.application,
             volume.guid,
             fmt::format("{} is not as the library writes it. {}", Shown(bitmap.path), FlawTexts(*bitmap.file)),
             "The library uses it all the same.",
             {}});
}

// True when the application is still to be told apart: it has no usable pair of files.
void CheckHolding(const VolumeFacts& volume, const HoldingFacts& holding, std::vector<Finding>& findings)
{
    if (!holding.base.there && !holding.child.there) {
        findings.push_back(
            {"files-missing",
             Severity::Verify,
             holding.application,
             volume.guid,
             fmt::format("{} has no bitmap files on {}.", Quoted(holding.application), Shown(volume.guid)),
             "Its next backup of this volume must verify, and makes new ones.",
             {}});
        return;
    }
    for (const BitmapFileFacts* bitmap : {&holding.base, &holding.child}) {
        if (!bitmap->there)
            findings.push_back({"files-missing",
                                Severity::Verify,
                                holding.application,
                                volume.guid,
                                fmt::format("{} is missing.", Shown(bitmap->path)),
                                "The application's next backup of this volume must verify, and makes a new one.",
                                {}});
        else if (bitmap->Usable())
            CheckUsable(volume, holding, *bitmap, findings);
        else
            CheckUnusable(volume, holding, *bitmap, findings);
    }
}

void CheckVerifyList(const MachineFacts& machine, const VolumeFacts& volume, std::vector<Finding>& findings)
{
    for (const ApplicationFacts& application : machine.applications) {
        if (Names(application.verify, volume))
            findings.push_back(
                {"verify-listed",
                 Severity::Verify,
                 application.id,
                 volume.guid,
                 fmt::format("The verify list of {} names {}.", Quoted(application.id), Shown(volume.guid)),
                 "Its next backup of this volume must verify, which takes it off the list.",
                 {}});
    }
}

// Whoever unregisters leaves a verify list with every volume. Files without that mark are those of an application whose
// place in the list of applications was lost, and it may not know.
void CheckOrphan(const VolumeFacts& volume, const std::wstring& file, const std::wstring& owner,
                 std::vector<Finding>& findings)
{
    const std::string text =
        fmt::format("{} on {} belongs to {}, which is not registered", Shown(file), Shown(volume.guid), Quoted(owner));
    const ListFacts verify = ReadVolumeList(vtflt::MakeVerifyListName(owner));
    if (Names(verify, volume))
        findings.push_back({"file-orphaned", Severity::Note, owner, volume.guid, text + ".",
                            "No backup suffers: should it be registered again, its next backup must verify.",
                            Clean(owner, volume)});
    else
        findings.push_back(
            {"file-orphaned",
             Severity::Verify,
             owner,
             volume.guid,
             text + ", and its verify list does not name the volume: its registration was probably lost.",
             "Its backups fail, or miss what is written from now on. Register it again (vtfltctl apps "
             "register), after which its next backup verifies; delete the files (vtfltctl apps clean) only "
             "when it is gone for good.",
             {}});
}

void CheckOrphans(const MachineFacts& machine, const VolumeFacts& volume, std::vector<Finding>& findings)
{
    if (volume.folderError != ERROR_SUCCESS)
        findings.push_back({"folder-unreadable",
                            Severity::Unknown,
                            {},
                            volume.guid,
                            fmt::format("The folder of the bitmap files on {} cannot be listed: {}.",
                                        Shown(volume.guid), ErrorText(volume.folderError)),
                            "Files that belong to nobody are not seen.",
                            {}});
    // Without the list of applications every file would belong to nobody.
    if (machine.applicationsError != ERROR_SUCCESS)
        return;
    std::vector<std::wstring> seen;
    for (const std::wstring& file : volume.files) {
        const bitmap::NameFacts name = bitmap::ParseBitmapName(ToUtf8(file));
        if (name.role != bitmap::Role::Base && name.role != bitmap::Role::Child)
            continue;
        const std::wstring owner = ToWide(name.application);
        const auto isOwner = [&](const std::wstring& id) { return toolkit::EqualIgnoringCase(id, owner); };
        const bool registered = std::any_of(machine.applications.begin(), machine.applications.end(),
                                            [&](const ApplicationFacts& a) { return isOwner(a.id); });
        if (registered || std::any_of(seen.begin(), seen.end(), isOwner))
            continue;
        seen.push_back(owner);
        CheckOrphan(volume, file, owner, findings);
    }
}

} // namespace

void CheckVolume(const MachineFacts& machine, const VolumeFacts& volume, std::vector<Finding>& findings)
{
    CheckTracking(machine, volume, findings);
    for (const HoldingFacts& holding : volume.holdings)
        CheckHolding(volume, holding, findings);
    CheckVerifyList(machine, volume, findings);
    CheckOrphans(machine, volume, findings);
}

} // namespace vtfltctl
