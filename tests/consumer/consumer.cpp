// Fetches one changed block of a simulated volume through the C++ face.
#include <vtfltmgr/VTFltMgr.hpp>
#include <vtfltmgr/version.h>
#include <vtfltsim/VTFltSim.hpp>

#include <cstdio>

int main()
{
    vtfltsim::SimMachine machine;
    const vtfltsim::Volume volume = machine.AddVolume(64ULL << 20, 65536);
    machine.Attach(L"VTFltMgr.dll");
    machine.AttachProgram();
    if (!vtfltmgr::RegisterApplication(L"Consumer").IsSuccess())
        return 1;
    machine.TouchBlock(volume, 3);
    const HANDLE device = CreateFileW(volume.Path().c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                      OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    vtfltmgr::BitmapManager manager;
    vtfltmgr::ChangeMap changes;
    if (!manager.Open(device, volume.Root(), L"Consumer").IsSuccess() || !manager.Fetch(changes).IsSuccess())
        return 2;
    manager.Close();
    CloseHandle(device);
    for (const vtfltmgr::Extent& extent : changes.Extents())
        std::printf("VTFltMgr %s: block %llu, %llu\n", VTFLTMGR_VERSION, static_cast<unsigned long long>(extent.first),
                    static_cast<unsigned long long>(extent.count));
    return changes.CountChanged(1024) == 1 && changes.IsChanged(3) ? 0 : 3;
}
