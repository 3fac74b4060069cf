// Checking a chain: every manifest, every index, every stored block, and that each backup has what it builds on.
#pragma once

#include "repository.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace vtbackup {

struct CheckedBackup {
    std::uint64_t sequence = 0;
    std::string problem; // empty: it can be restored
};

struct ChainCheck {
    std::vector<CheckedBackup> backups;
    std::uint64_t blocks = 0; // stored blocks whose checksum was compared
    std::uint64_t bytes = 0;
    [[nodiscard]] bool Good() const noexcept;
};

ChainCheck CheckChain(const Chain& chain);

// Whether a backup has what it builds on among the whole ones, which are those before it that can be restored. Empty:
// yes; else what is wrong. Throws Failure(Damaged) when a change of the volume's length left a block that no restore takes.
std::string LinkProblem(const Chain& chain, const std::map<std::uint64_t, Manifest>& whole, const Manifest& manifest);

} // namespace vtbackup
