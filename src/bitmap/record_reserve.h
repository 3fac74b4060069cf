// The memory of one record that is no longer needed, kept for the next file that is read.
//
// New memory of the size of a large record costs more than reading its file: the system clears each page when it is first
// touched. An operation that reads one application's record after the other does it with the memory of few, and so do the
// operations of one backup.
#pragma once

#include "bitmap/record.h"

#include <cstdint>
#include <memory>
#include <utility>

namespace vtflt {

class RecordReserve {
public:
    // Smaller ones are quick to get.
    static constexpr std::uint32_t SMALLEST_KEPT = 65536;

    // A record of so many bytes, to be filled whole: what stands in it is not defined. Null when memory is short.
    std::unique_ptr<BitmapRecord> Take(std::uint32_t size) noexcept
    {
        if (m_kept != nullptr && m_kept->Size() == size)
            return std::move(m_kept);
        // Never both at once.
        m_kept.reset();
        return BitmapRecord::Allocate(size);
    }

    // Takes what its owner has no use for; null, too.
    void Keep(std::unique_ptr<BitmapRecord> record) noexcept
    {
        if (record != nullptr && record->Size() >= SMALLEST_KEPT)
            m_kept = std::move(record);
    }

    void Drop() noexcept { m_kept.reset(); }

private:
    std::unique_ptr<BitmapRecord> m_kept;
};

} // namespace vtflt
