// The demonstration's volumes, and the programs that keep writing to them.
#pragma once

#include "vtfltsim/VTFltSim.h"

#include <atomic>
#include <cstdint>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace vtdemo {

struct DemoVolume {
    const char* name;
    std::uint64_t length;
    DWORD blockSize;
    std::uint64_t filled;    // bytes that hold data at first, spread over the volume when it is sparse
    std::uint64_t hotOffset; // where most writes go
    std::uint64_t hotLength;
    std::wstring guid = {};
    std::wstring mountPath = {};
};

// The four volumes, not yet on any machine.
std::vector<DemoVolume> DemoVolumes();
void AddVolume(VTFLTSIM_MACHINE machine, DemoVolume& volume, wchar_t letter);

// Keeps changing one volume until it is destroyed.
class Writer {
public:
    Writer(VTFLTSIM_MACHINE machine, const DemoVolume& volume, unsigned seed);
    ~Writer();
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    [[nodiscard]] std::uint64_t Writes() const noexcept { return m_writes; }

private:
    void Run();
    std::uint64_t PickOffset(std::uint64_t length);

    VTFLTSIM_MACHINE m_machine;
    const DemoVolume& m_volume;
    std::mt19937 m_random;
    std::atomic<bool> m_stop{false};
    std::atomic<std::uint64_t> m_writes{0};
    std::thread m_thread;
};

} // namespace vtdemo
