// VTFltMgr.dll as this program uses it: results become values or failures, and each negotiation stands once.
#pragma once

#include "change_map.h"
#include "volume.h"

#include <cstdint>
#include <string>
#include <vector>

namespace vtbackup {

std::vector<std::wstring> RegisteredApplications();

// VTReplicateVerifyList's result.
std::uint32_t ReplicatedVerifyList(const std::wstring& application);

// What the registry has for the count of requests for the tracking of snapshots; empty when it has nothing. To be
// compared with itself: no export says whether a request was counted.
std::vector<std::uint8_t> StoredMonitoringCount();

// The bitmap manager of one volume for one application, for the time of one backup: a manager serves only the
// applications that were registered when it was made, so keeping one would withhold changes from later ones.
class BitmapManager {
public:
    BitmapManager(const Volume& volume, const VolumeName& name, const std::wstring& application);
    ~BitmapManager();
    BitmapManager(const BitmapManager&) = delete;
    BitmapManager& operator=(const BitmapManager&) = delete;

    [[nodiscard]] std::uint32_t BlockSize() const;
    void PrepareForSnapshot() const;
    // The library's result; see VTFltMgr.h.
    [[nodiscard]] std::uint32_t HandBack(ChangeMap& changes) const;
    [[nodiscard]] std::uint32_t ReportSuccess() const;

private:
    const Volume& m_volume;
};

struct FetchedMap {
    std::uint32_t result = 0; // 0, VTFLT_VERIFY_REQUIRED, or why there is no map
    ChangeMap map;            // its header cleared
    bool whole = false;       // every byte of it is the library's answer
};
// direct: the device's own bitmap, with no manager.
FetchedMap FetchMap(const Volume& device, bool direct);

std::uint32_t DirectBlockSize(const Volume& device);

// Whether the driver answers for the device itself: of a snapshot that it does not track it refuses to say anything,
// and of any while it is away. Another failure is no such refusal.
bool IsTracked(const Volume& device);

} // namespace vtbackup
