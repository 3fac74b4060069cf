// An application that fetches bitmaps of one simulated volume, and what the driver tells it.
#pragma once

#include "bare_fetch.h"

#include "vtfltmgr/VTFltMgr.h"

#include <cstring>

namespace bench {

// What changed since the last fetch. No two fetches are told the same: a merge that adds nothing would be a special case.
enum class Changes {
    Scattered, // one block in a hundred, anywhere
    InRuns,    // as many, in runs of 8192 blocks
};

class FetchSession {
public:
    FetchSession(vtfltsim::SimMachine& machine, const vtfltsim::Volume& volume, int caller)
        : m_volume(CreateFileW(volume.Path().c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                               nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr)),
          m_root(volume.Root()), m_appId(AppIdOf(caller)),
          m_length(VTFLT_BITMAP_HEADER_BYTES + (machine.Info(volume).bitmapBytes + 7) / 8 * 8),
          m_grownLength(m_length + m_length / 4 / 8 * 8), m_buffer(m_grownLength)
    {
        Change(Changes::Scattered);
        StartManager();
    }
    FetchSession(const FetchSession&) = delete;
    FetchSession& operator=(const FetchSession&) = delete;
    ~FetchSession() { EndManager(); }

    void Change(Changes changes)
    {
        ++s_turn;
        std::fill(m_buffer.begin(), m_buffer.end(), std::uint8_t{0});
        if (changes == Changes::Scattered)
            Scatter();
        else
            Cluster();
    }

    // A manager is made for a backup, and fetches once. What it costs to make it is no part of the fetch.
    void RenewManager()
    {
        EndManager();
        StartManager();
    }

    void Fetch() { FetchInto(m_length); }
    // As after the volume has grown by a quarter.
    void FetchGrown() { FetchInto(m_grownLength); }
    void ReplicationSuccess() { RequireZero(VTFltReplicationSuccess(m_volume.get()), "VTFltReplicationSuccess"); }
    void SyncSnapshotChanges()
    {
        RequireZero(VTFltSynSnapshotChangeBitmapToVolume(m_volume.get(), m_buffer.data(), m_length),
                    "VTFltSynSnapshotChangeBitmapToVolume");
    }

    DWORD RecordBytes() const { return RecordBytesFor(m_length); }
    DWORD GrownRecordBytes() const { return RecordBytesFor(m_grownLength); }

private:
    static DWORD RecordBytesFor(DWORD length) { return (length + 4187) & ~4095u; }

    void StartManager()
    {
        RequireZero(VTFltInitBitmapManager(m_volume.get(), m_root.c_str(), m_appId.c_str()), "VTFltInitBitmapManager");
    }
    void EndManager() { VTFltDeinitBitmapManager(m_volume.get()); }

    void FetchInto(DWORD length)
    {
        std::memset(m_buffer.data(), 0, VTFLT_BITMAP_HEADER_BYTES);
        BYTE input = 0;
        DWORD size = 0;
        RequireZero(VTFltGetBitmap(m_volume.get(), &input, 0, m_buffer.data(), length, &size, 0), "VTFltGetBitmap");
    }

    void Scatter()
    {
        std::uint32_t random = s_turn;
        for (std::size_t i = VTFLT_BITMAP_HEADER_BYTES + s_turn % 12; i < m_buffer.size(); i += 12) {
            random = random * 1664525 + 1013904223;
            m_buffer[i] = static_cast<std::uint8_t>(0x80u >> (random >> 29));
        }
    }
    void Cluster()
    {
        constexpr std::size_t RUN = 1024;
        for (std::size_t i = VTFLT_BITMAP_HEADER_BYTES + s_turn % 100 * RUN; i + RUN <= m_buffer.size(); i += 100 * RUN)
            std::fill_n(m_buffer.begin() + static_cast<std::ptrdiff_t>(i), RUN, std::uint8_t{0xFF});
    }

    Handle m_volume;
    std::wstring m_root;
    std::wstring m_appId;
    DWORD m_length;
    DWORD m_grownLength;
    std::vector<std::uint8_t> m_buffer;
    static inline std::uint32_t s_turn = 0;
};

} // namespace bench
