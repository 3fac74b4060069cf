// VTFltMgr.hpp - a C++ face of VTFltMgr.dll for backup programs. Header only, C++17.
//
// The order of the calls in one incremental backup of one volume. It is no program to copy: whenever a result is no success
// the backup ends without a report. samples/ has whole programs.
//
//     ... vtfltmgr::CanApplicationUseDriver(app), else register it: see RegisterApplication ...
//     const std::wstring volumeName = vtfltmgr::VolumeNameOf(L"E:\\");
//     vtfltmgr::Result result = vtfltmgr::ReplicateVerifyList(app);
//     ... no backup unless vtfltmgr::CanDriverWork(): while the driver is silent nothing is collected, with success ...
//     result = vtfltmgr::ReplicateVerifyList(app);            // again: what a silence made the first one miss
//     bool everything = vtfltmgr::IsVerifyRequired(app, volumeName);
//     vtfltmgr::BitmapManager manager;
//     result = manager.Open(volume, volumeName, app);
//     result = manager.PrepareForSnapshot();
//     ... take the snapshot ...
//     vtfltmgr::ChangeMap changes;
//     result = manager.Fetch(changes);                        // sizes are negotiated
//     everything = everything || result.IsVerifyRequired() || changes.Blocks() < blocks;
//     ... the same questions once more, block size and length compared with those of the last backup before the snapshot
//         and here: a yes, a silent driver or a change now means everything, now and next time ...
//     for (const vtfltmgr::Extent& extent : changes.Extents(blocks))
//         ... copy extent.count blocks from extent.first on ...
//     vtfltmgr::ChangeMap written;                            // what the snapshot itself changed
//     result = vtfltmgr::FetchBitmap(snapshot, written, true);
//     ... when snapshots are tracked: only if written.Resize(changes.Length()), result = manager.HandBack(written) ...
//     result = manager.ReportSuccess();                       // only when the copy is durable
//
// Nothing here throws but std::bad_alloc. The rules that a backup program must keep stand in docs/library.md: this
// header makes them shorter to write, not unnecessary. Threads: as VTFltMgr.h says; see BitmapManager.
#ifndef VTFLTMGR_VTFLTMGR_HPP
#define VTFLTMGR_VTFLTMGR_HPP

#include <vtfltmgr/VTFltMgr.h>

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

namespace vtfltmgr {

// A volume's name as the system spells it, \\?\Volume{...}\. rootPath: any path of the volume's root, a mount path or that
// name in whatever letters, with the backslash at its end. What is called volumeName below has to be this one: files know
// no letter case, but verify lists and the names of mutexes do. Empty when there is none; GetLastError() says why.
[[nodiscard]] inline std::wstring VolumeNameOf(const std::wstring& rootPath)
{
    wchar_t name[64] = {}; // 49 characters and a NUL
    if (!GetVolumeNameForVolumeMountPointW(rootPath.c_str(), name, static_cast<DWORD>(std::size(name))))
        return {};
    return name;
}

// What a function of the library answered. Not to be dropped: a failure that nobody looks at is a backup that lies.
class [[nodiscard]] Result {
public:
    constexpr Result() noexcept = default;
    constexpr explicit Result(DWORD code) noexcept : m_code(code) {}

    [[nodiscard]] constexpr DWORD Code() const noexcept { return m_code; }
    [[nodiscard]] constexpr bool IsSuccess() const noexcept { return m_code == ERROR_SUCCESS; }
    // The bitmap may be short: this backup reads the whole volume.
    [[nodiscard]] constexpr bool IsVerifyRequired() const noexcept { return m_code == VTFLT_VERIFY_REQUIRED; }
    // A bitmap was given: whole, or short.
    [[nodiscard]] constexpr bool HasBitmap() const noexcept { return IsSuccess() || IsVerifyRequired(); }

    // The code's name where it is one of the library's own or common, else an empty string.
    [[nodiscard]] constexpr const char* Name() const noexcept
    {
        switch (m_code) {
        case ERROR_SUCCESS:
            return "success";
        case VTFLT_VERIFY_REQUIRED:
            return "verify required";
        case VTFLT_INVALID_CONTROL_CODE:
            return "invalid control code";
        case VTFLT_NO_OUTPUT_BUFFER:
            return "no output buffer";
        case VTFLT_INVALID_VOLUME_HANDLE:
            return "invalid volume handle";
        case VTFLT_MUTEX_ACCESS:
            return "a mutex could not be had";
        case VTFLT_NO_APPLICATION:
            return "no application is registered";
        case VTFLT_APP_LIST_FAILED:
            return "the list of applications could not be read";
        case VTFLT_APP_NOT_REGISTERED:
            return "the application is not registered";
        case VTFLT_FAILED:
            return "general failure";
        case ERROR_NOT_ENOUGH_MEMORY:
            return "not enough memory";
        case ERROR_INVALID_PARAMETER:
            return "invalid parameter";
        default:
            return "";
        }
    }

    friend constexpr bool operator==(Result a, Result b) noexcept { return a.m_code == b.m_code; }
    friend constexpr bool operator!=(Result a, Result b) noexcept { return a.m_code != b.m_code; }

private:
    DWORD m_code = ERROR_SUCCESS;
};

// A run of changed blocks, as long as it goes.
struct Extent {
    std::uint64_t first = 0;
    std::uint64_t count = 0;
};

// The changed blocks of a volume, as VTFltGetBitmap lays them out: a header of 16 bytes, then a bit a block.
class ChangeMap {
public:
    ChangeMap() = default;
    // All clear. length: of the whole buffer, as another map's Length() gives it.
    explicit ChangeMap(std::size_t length) : m_buffer(length) {}

    // To another length of the whole buffer; what is new is clear. Whether nothing was cut off that is set.
    [[nodiscard]] bool Resize(std::size_t length)
    {
        const std::uint64_t before = CountChanged(Blocks());
        m_buffer.resize(length);
        return CountChanged(Blocks()) == before;
    }

    [[nodiscard]] void* Data() noexcept { return m_buffer.data(); }
    [[nodiscard]] DWORD Length() const noexcept { return static_cast<DWORD>(m_buffer.size()); }
    // How many blocks the map speaks of: those of the volume, rounded up.
    [[nodiscard]] std::uint64_t Blocks() const noexcept
    {
        return m_buffer.size() <= VTFLT_BITMAP_HEADER_BYTES ? 0 : (m_buffer.size() - VTFLT_BITMAP_HEADER_BYTES) * 8;
    }
    // false for a block that the map does not speak of.
    [[nodiscard]] bool IsChanged(std::uint64_t block) const noexcept
    {
        return block < Blocks() && (ByteOf(block) & MaskOf(block)) != 0;
    }
    // Nothing happens for a block that the map does not speak of.
    void Set(std::uint64_t block) noexcept
    {
        if (block < Blocks())
            m_buffer[IndexOf(block)] = static_cast<unsigned char>(ByteOf(block) | MaskOf(block));
    }
    // What is behind the header only: the header of a map that is handed back must be zero.
    void ClearHeader() noexcept
    {
        for (std::size_t i = 0; i < m_buffer.size() && i < VTFLT_BITMAP_HEADER_BYTES; ++i)
            m_buffer[i] = 0;
    }

    // The runs of changed blocks below an end, in ascending order; walked over once. The map must outlive it.
    class ExtentRange;
    [[nodiscard]] ExtentRange Extents(std::uint64_t end) const noexcept;
    [[nodiscard]] ExtentRange Extents() const noexcept;

    // How many blocks below an end changed.
    [[nodiscard]] std::uint64_t CountChanged(std::uint64_t end) const noexcept;

private:
    static std::size_t IndexOf(std::uint64_t block) noexcept
    {
        return VTFLT_BITMAP_HEADER_BYTES + static_cast<std::size_t>(block / 8);
    }
    static unsigned MaskOf(std::uint64_t block) noexcept { return 0x80U >> (block % 8); }
    [[nodiscard]] unsigned ByteOf(std::uint64_t block) const noexcept { return m_buffer[IndexOf(block)]; }
    // The first block from one on, and before an end, that is changed or not; the end when there is none.
    [[nodiscard]] std::uint64_t Find(std::uint64_t block, std::uint64_t end, bool changed) const noexcept
    {
        const unsigned char skipped = changed ? 0x00 : 0xFF;
        while (block < end && IsChanged(block) != changed)
            block += block % 8 == 0 && ByteOf(block) == skipped ? 8U : 1U;
        return block < end ? block : end;
    }

    std::vector<unsigned char> m_buffer;
};

class ChangeMap::ExtentRange {
public:
    class Iterator {
    public:
        using iterator_category = std::input_iterator_tag;
        using value_type = Extent;
        using difference_type = std::ptrdiff_t;
        using pointer = const Extent*;
        using reference = const Extent&;

        Iterator() noexcept = default;
        Iterator(const ChangeMap* map, std::uint64_t from, std::uint64_t end) noexcept : m_map(map), m_end(end)
        {
            FindNext(from);
        }

        reference operator*() const noexcept { return m_extent; }
        pointer operator->() const noexcept { return &m_extent; }
        Iterator& operator++() noexcept
        {
            FindNext(m_extent.first + m_extent.count);
            return *this;
        }
        Iterator operator++(int) noexcept
        {
            const Iterator before = *this;
            ++*this;
            return before;
        }
        // Only whether there is one more is compared.
        friend bool operator==(const Iterator& a, const Iterator& b) noexcept
        {
            return (a.m_extent.count == 0) == (b.m_extent.count == 0) && a.m_extent.first == b.m_extent.first;
        }
        friend bool operator!=(const Iterator& a, const Iterator& b) noexcept { return !(a == b); }

    private:
        void FindNext(std::uint64_t from) noexcept
        {
            const std::uint64_t first = m_map->Find(from, m_end, true);
            m_extent = first == m_end ? Extent{} : Extent{first, m_map->Find(first, m_end, false) - first};
        }

        const ChangeMap* m_map = nullptr;
        std::uint64_t m_end = 0;
        Extent m_extent;
    };

    ExtentRange(const ChangeMap& map, std::uint64_t end) noexcept
        : m_map(&map), m_end(end < map.Blocks() ? end : map.Blocks())
    {
    }
    [[nodiscard]] Iterator begin() const noexcept { return Iterator(m_map, 0, m_end); }
    [[nodiscard]] Iterator end() const noexcept { return Iterator(); }

private:
    const ChangeMap* m_map;
    std::uint64_t m_end;
};

inline ChangeMap::ExtentRange ChangeMap::Extents(std::uint64_t end) const noexcept
{
    return ExtentRange(*this, end);
}

inline ChangeMap::ExtentRange ChangeMap::Extents() const noexcept
{
    return ExtentRange(*this, Blocks());
}

inline std::uint64_t ChangeMap::CountChanged(std::uint64_t end) const noexcept
{
    std::uint64_t count = 0;
    for (const Extent& extent : Extents(end))
        count += extent.count;
    return count;
}

// Fetches a bitmap, the buffer's length negotiated. map is whole after the results 0 and 0x10001; after 0x10001 changes
// may be missing in it. A map without a block, which only a driver gives that answers the question for the length by
// success, counts as 0x10001. After any other result it is empty, and nothing was forgotten: end the backup, and do not ask
// again for the same snapshot (see VTFltGetBitmap). direct: the driver's own bitmap of this very handle (of a
// snapshot, say), which needs no manager and forgets nothing.
inline Result FetchBitmap(HANDLE volume, ChangeMap& map, bool direct)
{
    // The length may change between two questions while a volume is resized, but not for ever.
    constexpr int QUESTIONS = 8;
    unsigned char input = 0;
    // The first question has room for a header only: its answer names the exact length. The library merges the whole
    // buffer, so it is as long as that, and all of it is zero.
    map = ChangeMap(VTFLT_BITMAP_HEADER_BYTES);
    DWORD result = VTFLT_FAILED;
    for (int i = 0; i < QUESTIONS; ++i) {
        DWORD size = 0;
        result = VTFltGetBitmap(volume, &input, 0, map.Data(), map.Length(), &size, direct ? 1 : 0);
        if (result == ERROR_SUCCESS || result == VTFLT_VERIFY_REQUIRED) {
            // A bitmap shorter than was asked for says nothing of the rest, and one that is a header says nothing at all.
            const bool whole = size == map.Length() && size > VTFLT_BITMAP_HEADER_BYTES;
            map.ClearHeader();
            return Result(whole ? result : VTFLT_VERIFY_REQUIRED);
        }
        if ((result != ERROR_MORE_DATA && result != ERROR_INSUFFICIENT_BUFFER) || size <= VTFLT_BITMAP_HEADER_BYTES ||
            size == map.Length())
            break;
        map = ChangeMap(size);
    }
    map = ChangeMap();
    return Result(result);
}

// Owns the bitmap manager of one volume for one application: one per backup. The volume's handle stays the caller's,
// and must stay open as long. One thread at a time uses an object; and Open, Close and the destructor of any object may not
// run while another thread is in a function of any other object, for the library's table of handles has no lock. A program
// that backs volumes up on several threads takes one lock of its own around Open and Close, and shared around the rest
// (std::shared_mutex).
class BitmapManager {
public:
    BitmapManager() noexcept = default;
    BitmapManager(BitmapManager&& other) noexcept : m_volume(std::exchange(other.m_volume, nullptr)) {}
    BitmapManager& operator=(BitmapManager&& other) noexcept
    {
        if (this != &other) {
            Close();
            m_volume = std::exchange(other.m_volume, nullptr);
        }
        return *this;
    }
    BitmapManager(const BitmapManager&) = delete;
    BitmapManager& operator=(const BitmapManager&) = delete;
    ~BitmapManager() { Close(); }

    // volumeName: as VolumeNameOf gives it. Closes what was open before. As VTFltInitBitmapManager: a handle that has a
    // manager already keeps it, with the application that it was made for, and the result is 0. So do not give one handle
    // to two owners, whichever their applications: the second works for the first one's, and whoever closes first closes
    // both. Open the volume once more.
    Result Open(HANDLE volume, const std::wstring& volumeName, const std::wstring& applicationId)
    {
        Close();
        const DWORD result = VTFltInitBitmapManager(volume, volumeName.c_str(), applicationId.c_str());
        if (result == ERROR_SUCCESS)
            m_volume = volume;
        return Result(result);
    }
    void Close() noexcept
    {
        if (m_volume != nullptr)
            VTFltDeinitBitmapManager(std::exchange(m_volume, nullptr));
    }
    [[nodiscard]] bool IsOpen() const noexcept { return m_volume != nullptr; }

    // Bytes of volume a bit of the bitmap.
    Result GetBlockSize(DWORD& blockSize) const { return Result(VTFltGetBlockSize(m_volume, &blockSize, 0)); }
    // Right before the snapshot.
    Result PrepareForSnapshot() const { return Result(VTFltPrepareForSnapshot(m_volume)); }
    // See FetchBitmap. What is fetched stays owed until ReportSuccess.
    Result Fetch(ChangeMap& changes) const { return FetchBitmap(m_volume, changes, false); }
    // Blocks that were written into the application's own snapshot; a map as long as the fetched one. After a failure
    // success must not be reported.
    Result HandBack(ChangeMap& changes) const
    {
        changes.ClearHeader();
        return Result(VTFltSynSnapshotChangeBitmapToVolume(m_volume, changes.Data(), changes.Length()));
    }
    // The copy is complete and durable: what was fetched may be forgotten.
    Result ReportSuccess() const { return Result(VTFltReplicationSuccess(m_volume)); }

private:
    HANDLE m_volume = nullptr;
};

// Whether the driver works and the application is registered; false in doubt.
[[nodiscard]] inline bool CanApplicationUseDriver(const std::wstring& applicationId)
{
    return VTCanAppUseBLIDriver(applicationId.c_str()) != 0;
}

// Puts every fixed volume on the application's verify list; it need not be registered.
inline Result AddVolumesToVerifyList(const std::wstring& applicationId)
{
    return Result(VTAddVolumesToAppVerifyList(applicationId.c_str()));
}

// Only when CanApplicationUseDriver says no, and after AddVolumesToVerifyList: where the application was registered once
// and is not any more, this drops what was owed to it and marks nothing. And only if CanDriverWork says yes, and then
// IsVerifyRequired of every fixed volume that the application backs up: while the driver does not work,
// AddVolumesToVerifyList succeeds without a mark. See VTRegisterApplication.
inline Result RegisterApplication(const std::wstring& applicationId)
{
    return Result(VTRegisterApplication(applicationId.c_str()));
}

inline Result UnregisterApplication(const std::wstring& applicationId)
{
    return Result(VTUnregisterApplication(applicationId.c_str()));
}

// Collects the volumes that lost tracking. Before IsVerifyRequired, each time, and twice, with CanDriverWork saying yes in
// between: while the driver is silent this is a success that collects nothing.
inline Result ReplicateVerifyList(const std::wstring& applicationId)
{
    return Result(VTReplicateVerifyList(applicationId.c_str()));
}

// Whether this application's next backup of the volume must read all of it; true in doubt, with two exceptions: false when
// the volume is not on the list and its mutex cannot be opened or its bitmap files cannot be read (Fetch fails then, too),
// and false when volumeName is spelled in other letters than VolumeNameOf gives: no entry of the list is found then.
[[nodiscard]] inline bool IsVerifyRequired(const std::wstring& applicationId, const std::wstring& volumeName)
{
    return VTIsVerifyRequired(applicationId.c_str(), volumeName.c_str()) != 0;
}

// Whether the driver works; may reinstall it, which takes its time.
[[nodiscard]] inline bool CanDriverWork()
{
    return VTCanBLIDriverWork() != 0;
}

} // namespace vtfltmgr

#endif
