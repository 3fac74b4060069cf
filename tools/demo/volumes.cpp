#include "volumes.h"

#include <algorithm>
#include <stdexcept>

namespace vtdemo {
namespace {

constexpr std::uint64_t KIB = 1024;
constexpr std::uint64_t MIB = 1024 * KIB;
constexpr std::uint64_t GIB = 1024 * MIB;
constexpr std::uint64_t SPOT = 1 * GIB + 5 * KIB; // distance of the places where a sparse volume holds data

bool Sparse(const DemoVolume& volume)
{
    return volume.length >= GIB;
}

void Check(const char* what, DWORD error)
{
    if (error != 0)
        throw std::runtime_error(std::string(what) + " failed with error " + std::to_string(error));
}

} // namespace

std::vector<DemoVolume> DemoVolumes()
{
    return {
        {"big 64 GiB, 64 KiB blocks", 64 * GIB, 65536, 8 * MIB, 0, 0},
        {"odd 24 MiB, 64 KiB blocks", 24 * MIB + 4611, 65536, 16 * MIB, 2 * MIB, MIB},
        {"fine 4 MiB, 4 KiB blocks", 4 * MIB, 4096, 3 * MIB, MIB, 256 * KIB},
        {"moved 6 MiB, 16 KiB blocks", 6 * MIB, 16384, 6 * MIB, 512 * KIB, 512 * KIB},
    };
}

void AddVolume(VTFLTSIM_MACHINE machine, DemoVolume& volume, wchar_t letter)
{
    volume.mountPath = std::wstring(1, letter) + L":\\";
    VTFLTSIM_VOLUME_CONFIG config = {};
    config.size = sizeof(config);
    config.length = volume.length;
    config.blockSize = volume.blockSize;
    config.mountPath = volume.mountPath.c_str();
    WCHAR guid[VTFLTSIM_GUID_CHARS] = {};
    Check("VTFltSimAddVolume", VTFltSimAddVolume(machine, &config, guid));
    volume.guid = guid;

    std::mt19937 random(static_cast<unsigned>(letter));
    std::vector<unsigned char> piece(256 * KIB);
    for (std::uint64_t done = 0; done < volume.filled; done += piece.size()) {
        std::generate(piece.begin(), piece.end(), [&] { return static_cast<unsigned char>(random()); });
        const std::uint64_t offset = Sparse(volume) ? done / piece.size() * SPOT : done;
        Check("VTFltSimWriteVolume", VTFltSimWriteVolume(machine, volume.guid.c_str(), offset, piece.data(),
                                                         static_cast<DWORD>(piece.size())));
    }
}

Writer::Writer(VTFLTSIM_MACHINE machine, const DemoVolume& volume, unsigned seed)
    : m_machine(machine), m_volume(volume), m_random(seed), m_thread([this] { Run(); })
{
}

Writer::~Writer()
{
    m_stop = true;
    m_thread.join();
}

std::uint64_t Writer::PickOffset(std::uint64_t length)
{
    if (Sparse(m_volume))
        return m_random() % 60 * SPOT + m_random() % 8192;
    const bool anywhere = m_random() % 64 == 0;
    const std::uint64_t from = anywhere ? 0 : m_volume.hotOffset;
    const std::uint64_t room = anywhere ? m_volume.filled : m_volume.hotLength;
    return from + m_random() % (room - length);
}

void Writer::Run()
{
    std::vector<unsigned char> data;
    while (!m_stop) {
        data.assign(1 + m_random() % 6000, 0);
        // Now and then zeros, so that blocks become empty again.
        if (m_random() % 8 != 0)
            std::generate(data.begin(), data.end(), [this] { return static_cast<unsigned char>(m_random()); });
        const DWORD error = VTFltSimWriteVolume(m_machine, m_volume.guid.c_str(), PickOffset(data.size()), data.data(),
                                                static_cast<DWORD>(data.size()));
        // A volume that has just become shorter refuses a write behind its end.
        if (error == 0)
            ++m_writes;
        Sleep(5 + m_random() % 10);
    }
}

} // namespace vtdemo
