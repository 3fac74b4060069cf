// A volume or a snapshot, opened as a device: its geometry, its contents, its ranges that were ever written.
// Every method throws Failure(Exit::Device) with the device's name and the system's reason.
#pragma once

#include "handle.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vtbackup {

// The name of a volume in its three forms.
struct VolumeName {
    std::wstring guid; // {...}, as verify lists hold it
    [[nodiscard]] std::wstring Component() const { return L"Volume" + guid; }
    [[nodiscard]] std::wstring Path() const { return L"\\\\?\\" + Component() + L"\\"; } // as the library takes it
    [[nodiscard]] std::wstring Device() const { return L"\\\\?\\" + Component(); }       // as CreateFileW opens it
};

// Takes {...}, Volume{...}, \\?\Volume{...}[\] or a mount path such as E:\. Throws Failure(Usage) for a name of
// another form and Failure(NotFound) for a mount path that no volume has.
VolumeName ResolveVolumeName(std::wstring_view text);
// Whether enumeration shows the volume under this very spelling.
bool IsListed(const VolumeName& name);
// The name when the text is one of the GUID forms.
std::optional<VolumeName> ParseVolumeName(std::wstring_view text);
// GUIDs of all fixed volumes, sorted, so that whoever locks them all does it in one order.
std::vector<VolumeName> FixedVolumes();

// Whether the system says of what kind the volume is, and that it is none that a verify list can name.
bool IsKnownNotToBeFixed(const VolumeName& name);

// The blocks [begin, end).
struct BlockRun {
    std::uint64_t begin = 0;
    std::uint64_t end = 0;
};

// No buffer for a block is larger, whatever a file or a driver says.
constexpr std::uint32_t MAX_BLOCK_SIZE = 64 * 1024 * 1024;

struct Geometry {
    std::uint64_t length = 0; // bytes
    std::uint32_t blockSize = 0;
    [[nodiscard]] std::uint64_t Blocks() const noexcept
    {
        return length / blockSize + (length % blockSize != 0 ? 1 : 0);
    }
    // The last block may be shorter than the others.
    [[nodiscard]] std::uint32_t BytesOf(std::uint64_t block) const noexcept
    {
        const std::uint64_t rest = length - block * blockSize;
        return rest < blockSize ? static_cast<std::uint32_t>(rest) : blockSize;
    }
};

class Volume {
public:
    enum class Access { Read, ReadWrite };
    // knowsWhatWasWritten: a simulated device, which may be asked for the ranges that were ever written.
    Volume(std::wstring device, Access access, bool knowsWhatWasWritten = false);

    [[nodiscard]] HANDLE Get() const noexcept { return m_handle.Get(); }
    [[nodiscard]] bool KnowsWhatWasWritten() const noexcept { return m_knowsWhatWasWritten; }
    [[nodiscard]] std::string Name() const;
    [[nodiscard]] std::uint64_t Length() const;
    void ReadAt(std::uint64_t offset, void* out, std::uint32_t length) const;
    void WriteAt(std::uint64_t offset, const void* bytes, std::uint32_t length) const;
    void Flush() const;

private:
    std::wstring m_device;
    bool m_knowsWhatWasWritten;
    Handle m_handle;
};

// Walks over the runs of blocks of a device that may hold something else than zeros. A simulated device says which
// ranges were never written (FSCTL_QUERY_ALLOCATED_RANGES), and these are left out. A real one is not asked and is one
// single run: that request is for files, and what stands between us and a real volume may answer it with no range at all.
class AllocatedWalk {
public:
    AllocatedWalk(const Volume& volume, Geometry geometry);
    std::optional<BlockRun> Next();

private:
    bool FetchPage();
    void TakeTheRest(); // everything from here on may hold data
    std::optional<BlockRun> NextRaw();

    const Volume& m_volume;
    Geometry m_geometry;
    std::uint64_t m_offset = 0; // everything before it was asked for
    bool m_supported = true;
    std::vector<BlockRun> m_page;
    std::size_t m_place = 0;
    std::optional<BlockRun> m_pending;
};

} // namespace vtbackup
