// A backup application that runs cycles on one volume while another does: each cycle writes some blocks, prepares,
// takes a snapshot, fetches the bitmap and reports success.
//
//     cycle_child <machine directory> <volume {...}> <application> <first block> <cycles> <ready> <start> <output>
//
// Signals the event "ready" and waits for "start". The output file gets every block that a bitmap named, as 64-bit
// numbers. In cycle c the blocks first + 2 * (8 c) to first + 2 * (8 c + 7), every other one, are written. Exit code: 0,
// or the first failure.
#include "vtfltmgr/VTFltMgr.h"
#include "vtfltsim/VTFltSim.hpp"

#include <cstdlib>
#include <set>
#include <string>
#include <vector>

namespace {

constexpr DWORD BAD_ARGUMENTS = 0xFFFF;
constexpr unsigned BLOCKS_PER_CYCLE = 8;

std::wstring Wide(const char* text)
{
    const std::string bytes = text; // plain ASCII here
    return std::wstring(bytes.begin(), bytes.end());
}

DWORD Fetch(HANDLE handle, std::set<std::uint64_t>& named)
{
    std::vector<std::uint8_t> buffer(VTFLT_BITMAP_HEADER_BYTES);
    BYTE input = 0;
    DWORD size = 0;
    DWORD result = VTFltGetBitmap(handle, &input, 0, buffer.data(), static_cast<DWORD>(buffer.size()), &size, 0);
    if (result == ERROR_MORE_DATA || result == ERROR_INSUFFICIENT_BUFFER) {
        buffer.assign(size, 0);
        result = VTFltGetBitmap(handle, &input, 0, buffer.data(), static_cast<DWORD>(buffer.size()), &size, 0);
    }
    if (result != 0)
        return result;
    for (std::size_t bit = 0; bit < (buffer.size() - VTFLT_BITMAP_HEADER_BYTES) * 8; ++bit) {
        if ((buffer[VTFLT_BITMAP_HEADER_BYTES + bit / 8] & (0x80u >> (bit % 8))) != 0)
            named.insert(bit);
    }
    return 0;
}

DWORD RunCycle(vtfltsim::SimMachine& machine, const vtfltsim::Volume& volume, HANDLE handle, std::uint64_t firstBlock,
               std::set<std::uint64_t>& named)
{
    for (unsigned i = 0; i < BLOCKS_PER_CYCLE; ++i)
        machine.TouchBlock(volume, firstBlock + 2 * i);
    DWORD result = VTFltPrepareForSnapshot(handle);
    if (result != 0)
        return result;
    const vtfltsim::Snapshot snapshot = machine.TakeSnapshot(volume);
    result = Fetch(handle, named);
    if (result == 0)
        result = VTFltReplicationSuccess(handle);
    machine.DeleteSnapshot(snapshot);
    return result;
}

bool Save(const std::wstring& path, const std::set<std::uint64_t>& named)
{
    const std::vector<std::uint64_t> numbers(named.begin(), named.end());
    const HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return false;
    const auto bytes = static_cast<DWORD>(numbers.size() * sizeof(numbers[0]));
    DWORD written = 0;
    const bool saved = WriteFile(file, numbers.data(), bytes, &written, nullptr) && written == bytes;
    CloseHandle(file);
    return saved;
}

DWORD Run(char** argv)
{
    vtfltsim::SimMachine machine(Wide(argv[1]));
    const vtfltsim::Volume volume{Wide(argv[2])};
    const std::uint64_t firstBlock = std::strtoull(argv[4], nullptr, 10);
    const unsigned long cycles = std::strtoul(argv[5], nullptr, 10);
    const HANDLE ready = OpenEventW(EVENT_MODIFY_STATE, FALSE, Wide(argv[6]).c_str());
    const HANDLE start = OpenEventW(SYNCHRONIZE, FALSE, Wide(argv[7]).c_str());
    if (ready == nullptr || start == nullptr)
        return BAD_ARGUMENTS;
    machine.Attach(L"VTFltMgr.dll");
    machine.AttachProgram();
    const HANDLE handle = CreateFileW(volume.Path().c_str(), GENERIC_READ | GENERIC_WRITE,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    if (handle == INVALID_HANDLE_VALUE)
        return GetLastError();
    DWORD result = VTFltInitBitmapManager(handle, volume.Root().c_str(), Wide(argv[3]).c_str());
    SetEvent(ready);
    WaitForSingleObject(start, INFINITE);

    std::set<std::uint64_t> named;
    for (unsigned long cycle = 0; cycle < cycles && result == 0; ++cycle)
        result = RunCycle(machine, volume, handle, firstBlock + 2 * BLOCKS_PER_CYCLE * cycle, named);
    if (result == 0)
        result = VTFltDeinitBitmapManager(handle);
    CloseHandle(handle);
    machine.Detach();
    return result == 0 && !Save(Wide(argv[8]), named) ? GetLastError() : result;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 9)
        return BAD_ARGUMENTS;
    try {
        return static_cast<int>(Run(argv));
    } catch (const vtfltsim::SimError& error) {
        return static_cast<int>(error.code() != 0 ? error.code() : BAD_ARGUMENTS);
    }
}
