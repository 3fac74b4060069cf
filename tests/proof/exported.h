// The library's exports, as numbers, and who is told when one is called and when it comes back.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vtproof {

enum class Exported : std::uint8_t {
    InitManager,
    DeinitManager,
    GetBlockSize,
    PrepareForSnapshot,
    GetBitmap,
    SyncSnapshotChanges,
    ReplicationSuccess,
    Register,
    Unregister,
    AppCount,
    AppList,
    ReplicateVerifyList,
    IsVerifyRequired,
    AddVolumesToVerifyList,
    RemoveFromVerifyList,
    CanAppUseDriver,
    CanDriverWork,
    EnableMonitor,
    DisableMonitor,
    StopVolume,
    StopVolumes,
    IsDeviceMonitored,
    Count
};

inline constexpr const char* EXPORT_NAMES[] = {
    "VTFltInitBitmapManager",
    "VTFltDeinitBitmapManager",
    "VTFltGetBlockSize",
    "VTFltPrepareForSnapshot",
    "VTFltGetBitmap",
    "VTFltSynSnapshotChangeBitmapToVolume",
    "VTFltReplicationSuccess",
    "VTRegisterApplication",
    "VTUnregisterApplication",
    "VTGetRegisteredAppCount",
    "VTGetRegisteredAppList",
    "VTReplicateVerifyList",
    "VTIsVerifyRequired",
    "VTAddVolumesToAppVerifyList",
    "VTRemoveApplicationVolResyncList",
    "VTCanAppUseBLIDriver",
    "VTCanBLIDriverWork",
    "VTFltEnableMonitorForSnapshot",
    "VTFltDisableMonitorForSnapshot",
    "VTFltStopMonitorVolume",
    "VTFltStopMonitorVolumes",
    "VTIsDeviceMonitored",
};
inline constexpr std::size_t EXPORT_COUNT = static_cast<std::size_t>(Exported::Count);
static_assert(sizeof(EXPORT_NAMES) / sizeof(EXPORT_NAMES[0]) == EXPORT_COUNT);

// Told of every export that an application of the world calls, in its process and on its thread. What it does there must
// allocate nothing: it would count as the process's.
class ExportWatch {
public:
    virtual ~ExportWatch() = default;
    virtual void Enters(std::size_t application, Exported exported) noexcept = 0;
    virtual void Leaves(std::size_t application, Exported exported) noexcept = 0;
};

} // namespace vtproof
