// The bitmap manager: one volume, served for one calling application.
//
// At initialisation it learns every registered application and makes a container for each, so that what the driver
// reports reaches all of them; the snapshot operations consume only the bitmaps of the calling application, the
// current application. The operations of VTDeviceIoControl run under the volume's mutex from end to end. A manager
// has no lock of its own: its owner decides which threads reach it.
#pragma once

#include "bitmap/container.h"
#include "bitmap/result_codes.h"
#include "win/windows.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace vtflt {

// What the exports hold per volume handle. All results are 0, a Windows error or a BM_ERR_ code.
class IMultiBitmapManager {
public:
    // Sends or carries out one driver request on a volume; arguments as DeviceIoControl has them.
    virtual DWORD VTDeviceIoControl(HANDLE hVolume, DWORD controlCode, void* inBuffer, DWORD inLength, void* outBuffer,
                                    DWORD outLength, DWORD* pBytesReturned, OVERLAPPED* pOverlapped) = 0;
    // Learns the volume (a volume GUID path) and the calling application. Once, before anything else.
    virtual DWORD InitBitMapManager(const std::wstring& volumeName, const std::wstring& appId) = 0;
    // Releases the containers. Always 0.
    virtual DWORD DeinitBitMapManager() = 0;
    // 0x10001 when the volume is on the current application's verify list or the list cannot be read, else 0.
    virtual DWORD IsVerifyRequired() = 0;
    // Takes the volume off the current application's verify list. A list that cannot be read is left as it is, with
    // the read's error.
    virtual DWORD resetVerifyVolume() = 0;
    // Deletes the bitmap files of every application on a volume, which need not be this manager's.
    virtual DWORD RemoveBitmaps(std::wstring volumePath) = 0;
    // ORs the driver's bitmap into every application's child bitmap.
    virtual DWORD UpdateAllChildBitmap(DWORD length, const BYTE* driverBitmap) = 0;
    // Folds the current application's child bitmap into its base bitmap.
    virtual DWORD UpdateBaseBitmapWithChild() = 0;
    // Clears the current application's child bitmap, which must have been loaded, and writes it. Behind VTDeviceIoControl
    // no child is loaded.
    virtual DWORD ResetChildBitmap() = 0;
    // Clears the current application's base bitmap, which must have been loaded, and writes it.
    virtual DWORD ResetBaseBitmap() = 0;
    // Copies the current application's base bitmap. *pLength: the buffer's size in, the bytes copied out.
    virtual DWORD GetBaseBitmap(DWORD* pLength, BYTE* buffer) = 0;
    // ORs the application's own snapshot changes into its child bitmap.
    virtual DWORD SyncSnapshotChangesToChildBitmap(DWORD length, const BYTE* changes) = 0;

    virtual ~IMultiBitmapManager() = default;
};

class CMultiBitmapManager final : public IMultiBitmapManager {
public:
    DWORD VTDeviceIoControl(HANDLE hVolume, DWORD controlCode, void* inBuffer, DWORD inLength, void* outBuffer,
                            DWORD outLength, DWORD* pBytesReturned, OVERLAPPED* pOverlapped) override;
    DWORD InitBitMapManager(const std::wstring& volumeName, const std::wstring& appId) override;
    DWORD DeinitBitMapManager() override;
    DWORD IsVerifyRequired() override;
    DWORD resetVerifyVolume() override;
    DWORD RemoveBitmaps(std::wstring volumePath) override;
    DWORD UpdateAllChildBitmap(DWORD length, const BYTE* driverBitmap) override;
    DWORD UpdateBaseBitmapWithChild() override;
    DWORD ResetChildBitmap() override;
    DWORD ResetBaseBitmap() override;
    DWORD GetBaseBitmap(DWORD* pLength, BYTE* buffer) override;
    DWORD SyncSnapshotChangesToChildBitmap(DWORD length, const BYTE* changes) override;

    // Restarts every application's bitmaps in the driver's present block size.
    DWORD RemapAllAppBitmap();

private:
    // One call of VTDeviceIoControl, for handing on.
    struct Request {
        HANDLE hVolume;
        DWORD controlCode;
        void* inBuffer;
        DWORD inLength;
        void* outBuffer;
        DWORD outLength;
        DWORD* pBytesReturned;
        OVERLAPPED* pOverlapped;
    };

    // Init (manager.cpp)
    DWORD InitApplications();
    void AddContainer(const std::wstring& appId);
    // Null, and a null entry in the map, when the current application has no container.
    CBitmapContainer* CurrentContainer();
    bool IsCurrent(const std::wstring& appId) const { return appId == m_strAppId; }
    // To be asked when the current application has one: then no entry of the map is null.
    bool HasEveryContainer() const;
    std::wstring MutexName() const;

    // The verify list (manager.cpp)
    DWORD AddVolumeToVerifyList();
    DWORD QueryVerifyList();
    DWORD FindOnVerifyList();
    DWORD RemoveVolumeFromVerifyList();

    // Driver operations (manager_driver.cpp)
    DWORD Dispatch(const Request& request);
    void ReleaseChildren();
    static DWORD Forward(const Request& request);
    static DWORD ForwardBlockSize(const Request& request);
    static DWORD ForwardPrepareForSnapshot(const Request& request);
    static DWORD ForwardPrepareForUninstall(const Request& request);
    DWORD ChangeBlockSize(const Request& request);
    DWORD GetBitmap(const Request& request);
    DWORD GatherChanges(const Request& request, bool& verifyRequired);
    static DWORD ForgetInDriver(HANDLE hVolume);
    void LogVerifyRequired() const;
    DWORD SyncSnapshotChanges(const Request& request);
    DWORD ReplicationSuccess();

    // Merging (manager_merge.cpp)
    DWORD MergeIntoChild(CBitmapContainer& container, DWORD length, const BYTE* driverBitmap);
    static DWORD ReplaceUnreadable(CBitmapContainer& container, DWORD whichBitmap);
    // What became of one bitmap in a remap.
    enum class Remapped { Done, SkipContainer };
    Remapped RemapBitmap(CBitmapContainer& container, DWORD whichBitmap, DWORD& result);

    // Dumps (dump.cpp)
    void DumpDriverBitmap(const void* bytes, DWORD count);
    void DumpBitmapToApplication(const void* bytes, DWORD count);
    void DumpSnapshotChanges(const void* bytes, DWORD count);
    void Dump(const wchar_t* nameFormat, const void* bytes, DWORD count);

    // Between operations it has the memory of one child's record at most. Before the containers, which use it.
    RecordReserve m_reserve;
    std::map<std::wstring, std::unique_ptr<CBitmapContainer>> m_mapContainers;
    std::vector<std::wstring> m_vecAppIds;
    std::wstring m_strAppId;
    std::wstring m_strVolume;
};

// 1 when the registry asks for diagnostic dumps, read afresh every time; else 0.
DWORD IsBitmapDumpEnabled();

// Writes raw bytes to a new dump file; both strings are consumed. 0 or the error. The outcome of a dump never matters
// to the operation that asked for it.
DWORD DumpBitMapToFile(std::wstring fileName, std::wstring volumeName, const void* buffer, DWORD byteCount);

} // namespace vtflt
