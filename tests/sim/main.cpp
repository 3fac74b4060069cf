// The test program; started by itself as "sim_tests --child <directory> <volume>", it is another process on the
// same machine, attached like any program.
#include "vtfltsim/VTFltSim.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

std::wstring Widen(const char* text)
{
    return std::wstring(text, text + std::strlen(text)); // plain ASCII here
}

// Opens the volume by its device path and writes the bytes "child" at block 5 (of 4096). 0, or the error.
int RunChild(const char* directory, const char* volume)
{
    VTFLTSIM_MACHINE machine = nullptr;
    DWORD code = VTFltSimOpen(Widen(directory).c_str(), &machine);
    if (code == 0)
        code = VTFltSimAttachModule(machine, nullptr);
    if (code != 0)
        return static_cast<int>(code);
    const HANDLE handle = CreateFileW((L"\\\\?\\Volume" + Widen(volume)).c_str(), GENERIC_READ | GENERIC_WRITE,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    if (handle == INVALID_HANDLE_VALUE)
        return static_cast<int>(GetLastError());
    SetFilePointer(handle, 5 * 4096, nullptr, FILE_BEGIN);
    DWORD moved = 0;
    if (!WriteFile(handle, "child", 5, &moved, nullptr))
        return static_cast<int>(GetLastError());
    CloseHandle(handle);
    VTFltSimClose(machine);
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 4 && std::strcmp(argv[1], "--child") == 0)
        return RunChild(argv[2], argv[3]);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
