// The demonstration's own copy of what a snapshot held, taken through the simulator and not through vtbackup.
#pragma once

#include "vtfltsim/VTFltSim.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace vtdemo {

using Chunk = std::shared_ptr<const std::vector<unsigned char>>;

// The contents of a volume at one moment: chunks that hold something; all others are zero.
struct Contents {
    std::uint64_t length = 0;
    std::map<std::uint64_t, Chunk> chunks;
};

// Copies a snapshot. Chunks that equal the earlier contents share their memory with them.
Contents CopySnapshot(VTFLTSIM_MACHINE machine, DWORD snapshot, const Contents* earlier);

// Each compares every byte and says where the first difference lies; an empty text means that there is none.
std::string CompareFile(const std::wstring& path, const Contents& expected);
std::string CompareVolume(VTFLTSIM_MACHINE machine, const std::wstring& volume, const Contents& expected);

} // namespace vtdemo
