// Restoring one backup of a chain, into a file or onto a volume.
#pragma once

#include "machine.h"
#include "repository.h"

#include <cstdint>
#include <string>

namespace vtbackup {

struct RestoreRequest {
    std::uint64_t sequence = 0; // 0: the latest
    std::wstring target;        // a file's path, or a volume's name
    bool overwrite = false;     // an existing file may be replaced
};

struct RestoreResult {
    std::uint64_t sequence = 0;
    std::uint64_t volumeLength = 0;
    std::uint64_t bytesWritten = 0;
    bool ontoVolume = false;
};

// A file appears under its name only when it is whole; a damaged block ends the restore with Failure(Damaged).
// A volume that was being restored when that happened is half new, half old: the message says so.
// repository: where the chain is; it may not lie on the volume that is written to.
RestoreResult Restore(const Machine& machine, const Repository& repository, const Chain& chain,
                      const RestoreRequest& request);

} // namespace vtbackup
