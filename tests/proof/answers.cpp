#include "proof/answers.h"

#include "vtfltmgr/VTFltMgr.h"

#include <algorithm>
#include <initializer_list>
#include <iterator>

namespace vtproof {

namespace {

// Of Windows' errors those that a fault gives here (a fault of one function has room for three digits: 450 is 1450 there), and
// those that the double and the simulated machine give by themselves.
constexpr std::uint32_t WINDOWS_ERRORS[] = {0,  1,  2,   3,   5,   6,   8,   13,  21,  31,   32,
                                            50, 87, 112, 122, 145, 183, 234, 359, 450, 1359, 1450};

bool IsOneOf(std::uint32_t result, std::initializer_list<std::uint32_t> these)
{
    return std::find(these.begin(), these.end(), result) != these.end();
}

} // namespace

bool IsDocumented(Exported exported, std::uint32_t result)
{
    const bool windows =
        std::find(std::begin(WINDOWS_ERRORS), std::end(WINDOWS_ERRORS), result) != std::end(WINDOWS_ERRORS);
    switch (exported) {
    case Exported::InitManager:
        return IsOneOf(result, {0, ERROR_INVALID_PARAMETER, VTFLT_NO_APPLICATION, VTFLT_APP_LIST_FAILED,
                                VTFLT_APP_NOT_REGISTERED, ERROR_NOT_ENOUGH_MEMORY, VTFLT_FAILED});
    case Exported::DeinitManager:
        return IsOneOf(result, {0, ERROR_INVALID_PARAMETER});
    case Exported::GetBlockSize:
    case Exported::PrepareForSnapshot:
    case Exported::AddVolumesToVerifyList:
        return windows || result == VTFLT_MUTEX_ACCESS;
    case Exported::GetBitmap:
        return windows || IsOneOf(result, {VTFLT_VERIFY_REQUIRED, VTFLT_MUTEX_ACCESS, VTFLT_FAILED});
    case Exported::SyncSnapshotChanges:
        // The error of a bitmap file that cannot be read whole is the general one.
        return windows || IsOneOf(result, {VTFLT_VERIFY_REQUIRED, VTFLT_MUTEX_ACCESS, VTFLT_FAILED});
    case Exported::ReplicationSuccess:
    case Exported::Register:
    case Exported::StopVolume:
        return windows || IsOneOf(result, {VTFLT_MUTEX_ACCESS, VTFLT_FAILED});
    case Exported::Unregister:
    case Exported::ReplicateVerifyList:
    case Exported::RemoveFromVerifyList:
        return windows || IsOneOf(result, {VTFLT_APP_NOT_REGISTERED, VTFLT_MUTEX_ACCESS});
    case Exported::AppCount:
    case Exported::AppList:
        return windows;
    case Exported::EnableMonitor:
    case Exported::DisableMonitor:
        // A wait that fails gives its own answer, all ones.
        return windows || result == WAIT_FAILED;
    case Exported::IsVerifyRequired:
    case Exported::CanAppUseDriver:
    case Exported::CanDriverWork:
    case Exported::IsDeviceMonitored:
        return result <= 1;
    default:
        return true; // the errors of all volumes, one OR the other
    }
}

} // namespace vtproof
