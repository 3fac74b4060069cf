// The fixture of cases around the cycle of one volume: a volume of 100 blocks, registered applications, and what a
// case needs to say of their bitmaps.
//
// The volume's bits are 13 bytes, so a fresh bitmap has 29 and the get-bitmap buffer 32: the first merge always
// writes the child and the base anew in the driver's length.
#pragma once

#include "support/machine_test.h"

#include <initializer_list>
#include <memory>
#include <set>

namespace vttest {

using BlockSet = std::set<std::uint64_t>;

inline constexpr DWORD VERIFY = VTFLT_VERIFY_REQUIRED;

inline LogRecord Failed(DWORD code, std::wstring text)
{
    return {0, code, std::move(text)};
}
inline LogRecord Done(std::wstring text)
{
    return {2, 0, std::move(text)};
}

// A get-bitmap buffer of so many bytes with these blocks set.
inline Bytes BufferOf(std::size_t length, const BlockSet& blocks)
{
    Bytes buffer(length);
    for (const std::uint64_t block : blocks)
        buffer.at(VTFLT_BITMAP_HEADER_BYTES + block / 8) |= static_cast<std::uint8_t>(0x80u >> (block % 8));
    return buffer;
}

class CycleTest : public MachineTest {
protected:
    static constexpr DWORD BLOCK = 65536;
    static constexpr std::uint64_t BLOCKS = 100;
    static constexpr DWORD FRESH_LENGTH = 29;
    static constexpr DWORD BUFFER_LENGTH = 32;

    void Register(const std::wstring& appId)
    {
        ASSERT_EQ(0u, VTRegisterApplication(appId.c_str()));
        log.Clear();
    }

    // A session with its manager; end it before the case ends.
    std::unique_ptr<Session> Open(const std::wstring& appId)
    {
        auto session = std::make_unique<Session>(OpenVolume(volume), volume.Root(), appId);
        EXPECT_EQ(0u, session->Init());
        log.Clear();
        return session;
    }

    void Touch(std::initializer_list<std::uint64_t> blocks)
    {
        for (const std::uint64_t block : blocks)
            machine.TouchBlock(volume, block);
    }

    static BlockSet Blocks(const Session& session)
    {
        const std::vector<std::uint64_t> blocks = session.Blocks();
        return {blocks.begin(), blocks.end()};
    }
    static BlockSet Blocks(const BitmapFile& file)
    {
        const std::vector<std::uint64_t> blocks = file.Blocks();
        return {blocks.begin(), blocks.end()};
    }

    std::wstring VolumeName() const { return L"Volume" + volume.guid; }
    // As the library names them in its messages.
    std::wstring BasePath(const std::wstring& appId) const { return volume.Path() + L"\\" + BaseName(appId); }
    std::wstring ChildPath(const std::wstring& appId) const { return volume.Path() + L"\\" + ChildName(appId); }
    std::vector<std::wstring> OnlyThisVolume() const { return {volume.guid}; }

    // Blocks that the driver has not forgotten.
    std::uint64_t OwedByDriver() const
    {
        const VTFLTSIM_VOLUME_INFO info = machine.Info(volume);
        return info.currentBlocks + info.frozenBlocks + info.pendingBlocks;
    }

    void ClearFaults()
    {
        VTFltSimClearCallFaults();
        VTFltSimClearFaults(machine.handle());
    }

    // The nth matching call does nothing and gives this value.
    static void ForceCall(const wchar_t* function, const std::wstring& match, ULONGLONG value, DWORD error = 0,
                          DWORD nth = 1)
    {
        VTFLTSIM_CALL_FAULT fault = {};
        fault.size = sizeof(fault);
        fault.what = VTFLTSIM_CALL_RETURNS;
        fault.function = function;
        fault.match = match.c_str();
        fault.nth = nth;
        fault.count = 1;
        fault.error = error;
        fault.value = value;
        vtfltsim::Check("VTFltSimSetCallFault", VTFltSimSetCallFault(&fault));
    }

    // The call moves only so many bytes and succeeds.
    static void CutCall(const wchar_t* function, const std::wstring& match, ULONGLONG bytes, DWORD nth = 1)
    {
        VTFLTSIM_CALL_FAULT fault = {};
        fault.size = sizeof(fault);
        fault.what = VTFLTSIM_CALL_SHORT;
        fault.function = function;
        fault.match = match.c_str();
        fault.nth = nth;
        fault.count = 1;
        fault.value = bytes;
        vtfltsim::Check("VTFltSimSetCallFault", VTFltSimSetCallFault(&fault));
    }

    Volume volume = machine.AddVolume(BLOCKS * BLOCK, BLOCK);
};

} // namespace vttest
