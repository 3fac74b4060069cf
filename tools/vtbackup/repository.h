// A repository's folders and names. docs/repository-format.md describes what lies in them.
#pragma once

#include "manifest.h"
#include "volume.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vtbackup {

// One application's backups of one volume.
class Chain {
public:
    Chain(std::wstring folder, std::string application, VolumeName volume);

    [[nodiscard]] const std::wstring& Folder() const noexcept { return m_folder; }
    [[nodiscard]] const std::string& Application() const noexcept { return m_application; }
    [[nodiscard]] const VolumeName& Volume() const noexcept { return m_volume; }
    [[nodiscard]] std::wstring BackupFolder(std::uint64_t sequence) const;
    [[nodiscard]] std::wstring ManifestPath(std::uint64_t sequence) const;
    [[nodiscard]] std::wstring IndexPath(std::uint64_t sequence) const;
    [[nodiscard]] std::wstring DataPath(std::uint64_t sequence) const;
    [[nodiscard]] std::wstring ReportedPath(std::uint64_t sequence) const;

    // The folders that are there, whole backups or not, ascending. A link to a folder is none.
    [[nodiscard]] std::vector<std::uint64_t> Folders() const;
    // Those with a manifest, ascending.
    [[nodiscard]] std::vector<std::uint64_t> Backups() const;
    // The number of the next backup: higher than every one in use. Throws Failure(Damaged) when there is none left.
    [[nodiscard]] std::uint64_t NextSequence() const;
    // Reads one manifest. Throws Failure(NotFound) when there is no such backup, Failure(Damaged) when the manifest of one
    // is unusable or gone.
    [[nodiscard]] Manifest ReadManifest(std::uint64_t sequence) const;
    // The backups that a restore of this one needs, from its full one to itself. Throws Failure(Damaged) with
    // the missing or damaged member.
    [[nodiscard]] std::vector<Manifest> PathTo(std::uint64_t sequence) const;
    // The evidence of a loss of tracking that was found while this backup was being made (see lost_tracking.h).
    [[nodiscard]] std::wstring LossPath(std::uint64_t sequence) const;
    // The backups for which there is such evidence, ascending.
    [[nodiscard]] std::vector<std::uint64_t> Losses() const;
    // Whether success was reported for a backup. Of one with a manifest only people want to know.
    [[nodiscard]] bool WasReported(std::uint64_t sequence) const;
    // The backups that lost their manifest, ascending: success is reported only when there is one.
    [[nodiscard]] std::vector<std::uint64_t> WithoutManifest() const;
    // What is to be said of such a one.
    [[nodiscard]] std::string ManifestIsGone(std::uint64_t sequence) const;

    // Removes what an ended run left: folders behind the last backup, without a manifest and never reported. Files that no
    // backup has stay, with their folder. Call it under the locks.
    void RemoveUnfinished() const;
    // Makes the folder and says in it whose it is.
    void Create() const;

private:
    std::wstring m_folder;
    std::string m_application;
    VolumeName m_volume;
};

class Repository {
public:
    // Throws Failure(NotFound) when the folder is no repository.
    static Repository Open(const std::wstring& folder);
    // Opens it, or makes it in a folder that is missing or empty.
    static Repository Create(const std::wstring& folder);

    [[nodiscard]] const std::string& Id() const noexcept { return m_id; }
    [[nodiscard]] const std::wstring& Folder() const noexcept { return m_folder; }
    // Throws Failure(Repository) when the chain could only be reached by a link inside of the repository.
    [[nodiscard]] Chain ChainOf(std::wstring_view application, const VolumeName& volume) const;
    // Every chain that is there, optionally of one application or one volume only, by name. What is wrong with those
    // that do not say whose they are comes in problems; they are left out. So does what is wrong with the place of others.
    [[nodiscard]] std::vector<Chain> Chains(std::wstring_view application, const VolumeName* volume,
                                            std::vector<std::string>& problems) const;

private:
    Repository(std::wstring folder, std::string id) : m_folder(std::move(folder)), m_id(std::move(id)) {}
    // The folders that lead to a chain, itself the last.
    [[nodiscard]] std::vector<std::wstring> PlaceOf(std::wstring_view application, const VolumeName& volume) const;

    std::wstring m_folder;
    std::string m_id;
};

// A fresh random name of hexadecimal digits.
constexpr std::size_t RANDOM_ID_DIGITS = 32;
std::string RandomId();

} // namespace vtbackup
