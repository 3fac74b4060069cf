// The expected state: what a backup of each application must contain, kept without the library and without Windows.
//
// A volume is a row of grains (sectors). Every write gives the grains that it touches the next version number. A snapshot
// is a copy of the row, and so is an application's backup. A backup that took only the reported blocks must still equal
// the snapshot that it was made of: a grain that differs was written and never reported, and its change is lost.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace vtproof {

using Version = std::uint32_t;
using Grains = std::vector<Version>;

inline constexpr std::uint32_t GRAIN = 512; // bytes

// The blocks that a bitmap reports, and how many grains each of them covers.
struct Reported {
    std::vector<bool> blocks;
    std::uint32_t grainsPerBlock = 1;
};

class Expected {
public:
    Expected(std::size_t applications, const std::vector<std::size_t>& volumeGrains);

    // --- What happens to the volumes.
    void Write(std::size_t volume, std::size_t first, std::size_t count);
    void Resize(std::size_t volume, std::size_t grains);
    const Grains& Volume(std::size_t volume) const { return m_volumes[volume]; }
    Version Clock() const { return m_clock; }

    // --- What happens to the backups. Each gives an empty text, or what is wrong.

    // A backup that takes the reported blocks out of the snapshot, on top of the backup before.
    std::string TakeReported(std::size_t application, std::size_t volume, const Grains& snapshot,
                             const Reported& reported);
    // A backup that reads everything.
    void TakeAll(std::size_t application, std::size_t volume, const Grains& snapshot);
    // The application's backup has something in these grains that the volume has not: it was written into the snapshot.
    void WriteIntoBackup(std::size_t application, std::size_t volume, std::size_t first, std::size_t count);
    // The application hands grains back to be reported once more, whether or not that comes to its end.
    void HandBack(std::size_t application, std::size_t volume, std::size_t first, std::size_t count);
    bool HasBackup(std::size_t application, std::size_t volume) const
    {
        return !At(application, volume).grains.empty();
    }

    // A report of success that was answered with success: nothing older than this version need be reported again.
    void NoteSuccess(std::size_t application, std::size_t volume, Version snapshotTaken);
    // Every reported block lies at most one block beside a grain that was written since the last report of success.
    std::string CheckNothingElse(std::size_t application, std::size_t volume, const Grains& snapshot,
                                 const Reported& reported) const;

private:
    struct Backup {
        Grains grains;
        Version clean = 0;
        // Grains to be reported once more, and when they were handed back.
        std::vector<std::pair<std::size_t, Version>> handedBack;
    };
    Backup& At(std::size_t application, std::size_t volume) { return m_backups[application][volume]; }
    const Backup& At(std::size_t application, std::size_t volume) const { return m_backups[application][volume]; }

    std::vector<Grains> m_volumes;
    std::vector<std::vector<Backup>> m_backups; // by application, then volume
    Version m_clock = 0;
};

} // namespace vtproof
