#include "proof/expected.h"

#include <algorithm>

namespace vtproof {

Expected::Expected(std::size_t applications, const std::vector<std::size_t>& volumeGrains)
{
    for (const std::size_t grains : volumeGrains)
        m_volumes.emplace_back(grains, 0);
    m_backups.assign(applications, std::vector<Backup>(m_volumes.size()));
}

void Expected::Write(std::size_t volume, std::size_t first, std::size_t count)
{
    ++m_clock;
    Grains& grains = m_volumes[volume];
    const std::size_t end = std::min(first + count, grains.size());
    for (std::size_t grain = first; grain < end; ++grain)
        grains[grain] = m_clock;
}

void Expected::Resize(std::size_t volume, std::size_t grains)
{
    ++m_clock;
    m_volumes[volume].resize(grains, m_clock);
}

std::string Expected::TakeReported(std::size_t application, std::size_t volume, const Grains& snapshot,
                                   const Reported& reported)
{
    Backup& backup = At(application, volume);
    if (backup.grains.size() != snapshot.size())
        return "an incremental backup of a volume whose length changed";
    for (std::size_t grain = 0; grain < snapshot.size(); ++grain) {
        const std::size_t block = grain / reported.grainsPerBlock;
        if (block < reported.blocks.size() && reported.blocks[block])
            backup.grains[grain] = snapshot[grain];
    }
    for (std::size_t grain = 0; grain < snapshot.size(); ++grain) {
        if (backup.grains[grain] == snapshot[grain])
            continue;
        return "LOST: grain " + std::to_string(grain) + " (block " + std::to_string(grain / reported.grainsPerBlock) +
               ") of volume " + std::to_string(volume) + " was written at " + std::to_string(snapshot[grain]) +
               ", application " + std::to_string(application) + " still has " + std::to_string(backup.grains[grain]);
    }
    return {};
}

void Expected::TakeAll(std::size_t application, std::size_t volume, const Grains& snapshot)
{
    At(application, volume).grains = snapshot;
}

void Expected::WriteIntoBackup(std::size_t application, std::size_t volume, std::size_t first, std::size_t count)
{
    ++m_clock;
    Backup& backup = At(application, volume);
    const std::size_t end = std::min(first + count, backup.grains.size());
    for (std::size_t grain = first; grain < end; ++grain)
        backup.grains[grain] = m_clock;
    HandBack(application, volume, first, count);
}

void Expected::HandBack(std::size_t application, std::size_t volume, std::size_t first, std::size_t count)
{
    ++m_clock;
    for (std::size_t grain = first; grain < first + count; ++grain)
        At(application, volume).handedBack.emplace_back(grain, m_clock);
}

void Expected::NoteSuccess(std::size_t application, std::size_t volume, Version snapshotTaken)
{
    Backup& backup = At(application, volume);
    backup.clean = snapshotTaken;
    std::erase_if(backup.handedBack, [snapshotTaken](const auto& one) { return one.second <= snapshotTaken; });
}

std::string Expected::CheckNothingElse(std::size_t application, std::size_t volume, const Grains& snapshot,
                                       const Reported& reported) const
{
    const Backup& backup = At(application, volume);
    // By block, with one block of room on either side.
    std::vector<bool> allowed(reported.blocks.size() + 2);
    const auto mark = [&](std::size_t grain) {
        const std::size_t block = grain / reported.grainsPerBlock;
        for (std::size_t at = block; at <= block + 2 && at < allowed.size(); ++at)
            allowed[at] = true;
    };
    for (std::size_t grain = 0; grain < snapshot.size(); ++grain) {
        if (snapshot[grain] > backup.clean)
            mark(grain);
    }
    for (const auto& [grain, when] : backup.handedBack)
        mark(grain);
    for (std::size_t block = 0; block < reported.blocks.size(); ++block) {
        if (reported.blocks[block] && !allowed[block + 1])
            return "block " + std::to_string(block) + " of volume " + std::to_string(volume) +
                   " is reported to application " + std::to_string(application) + " and nobody wrote near it";
    }
    return {};
}

} // namespace vtproof
