// Reads runs of blocks of a device, checking for Ctrl-C between reads.
#pragma once

#include "interrupt.h"
#include "progress.h"
#include "volume.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

namespace vtbackup {

inline bool IsZero(const unsigned char* bytes, std::size_t length)
{
    return length == 0 || (bytes[0] == 0 && std::memcmp(bytes, bytes + 1, length - 1) == 0);
}

// Reads runs of blocks in large pieces and hands them on one by one.
class BlockFeed {
public:
    BlockFeed(const Volume& device, Geometry geometry, Progress& progress)
        : m_device(device), m_geometry(geometry), m_progress(progress),
          m_perRead(std::max<std::uint64_t>(1, READ_BYTES / geometry.blockSize)),
          m_buffer(static_cast<std::size_t>(m_perRead * geometry.blockSize))
    {
    }

    template <class Visit> // (block, bytes, length)
    void Run(BlockRun run, Visit visit)
    {
        run.end = std::min(run.end, m_geometry.Blocks());
        for (std::uint64_t first = run.begin; first < run.end; first += m_perRead) {
            StopIfInterrupted();
            const std::uint64_t last = std::min(run.end, first + m_perRead) - 1;
            const auto bytes =
                static_cast<std::uint32_t>((last - first) * m_geometry.blockSize + m_geometry.BytesOf(last));
            m_device.ReadAt(first * m_geometry.blockSize, m_buffer.data(), bytes);
            m_bytesRead += bytes;
            for (std::uint64_t block = first; block <= last; ++block)
                visit(block, m_buffer.data() + (block - first) * m_geometry.blockSize, m_geometry.BytesOf(block));
            m_progress.Add(bytes);
        }
    }

    [[nodiscard]] std::uint64_t BytesRead() const noexcept { return m_bytesRead; }

private:
    static constexpr std::uint64_t READ_BYTES = 1024 * 1024;

    const Volume& m_device;
    Geometry m_geometry;
    Progress& m_progress;
    std::uint64_t m_perRead;
    std::vector<unsigned char> m_buffer;
    std::uint64_t m_bytesRead = 0;
};

} // namespace vtbackup
