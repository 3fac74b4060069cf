// vtfltsim.exe as a process: what it prints and how it ends.
#include "support/start_again.h"
#include "vtfltsim/VTFltSim.hpp"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace vtfltsim;

struct Result {
    DWORD exitCode = 0xFFFFFFFF;
    std::string text; // of both outputs
};

class SimCommandLineTest : public ::testing::Test {
protected:
    SimCommandLineTest() : m_volume(m_machine.AddVolume(1 << 20, 4096)) {}

    // command, the machine's folder, and the rest of the command line.
    Result Run(const wchar_t* command, const std::wstring& rest = {}) const
    {
        SECURITY_ATTRIBUTES inheritable = {sizeof(inheritable), nullptr, TRUE};
        HANDLE reader = nullptr;
        HANDLE writer = nullptr;
        EXPECT_TRUE(CreatePipe(&reader, &writer, &inheritable, 0));
        SetHandleInformation(reader, HANDLE_FLAG_INHERIT, 0);
        STARTUPINFOW startup = {};
        startup.cb = sizeof(startup);
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdOutput = writer;
        startup.hStdError = writer;
        std::wstring line = Program() + L" " + command + L" \"" + m_machine.directory() + L"\" " + rest;
        PROCESS_INFORMATION process = {};
        const bool started = vttest::StartAgain([&] {
            return CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                                  &process);
        });
        CloseHandle(writer);
        Result result;
        char buffer[1024];
        DWORD moved = 0;
        while (started && ReadFile(reader, buffer, sizeof(buffer), &moved, nullptr) && moved != 0)
            result.text.append(buffer, moved);
        CloseHandle(reader);
        if (!started)
            return result;
        WaitForSingleObject(process.hProcess, INFINITE);
        GetExitCodeProcess(process.hProcess, &result.exitCode);
        CloseHandle(process.hThread);
        CloseHandle(process.hProcess);
        return result;
    }

    static std::wstring Program()
    {
        WCHAR path[MAX_PATH] = {};
        GetModuleFileNameW(nullptr, path, MAX_PATH);
        std::wstring program = path;
        program.resize(program.rfind(L'\\') + 1);
        return L"\"" + program + L"vtfltsim.exe\"";
    }
    static std::string Narrow(const std::wstring& text) { return std::string(text.begin(), text.end()); }

    SimMachine m_machine;
    Volume m_volume;
};

TEST_F(SimCommandLineTest, WhatCannotBeReadIsNamedAndTheRestIsShown)
{
    const Volume second = m_machine.AddVolume(1 << 20, 4096);
    m_machine.TakeSnapshot(second);
    const Result whole = Run(L"show");
    EXPECT_EQ(0u, whole.exitCode);
    EXPECT_NE(std::string::npos, whole.text.find("volume " + Narrow(m_volume.guid))) << whole.text;

    ASSERT_TRUE(DeleteFileW((m_machine.directory() + L"\\volumes\\" + m_volume.guid + L"\\tracking.1.bin").c_str()));
    const Result result = Run(L"show");
    EXPECT_EQ(1u, result.exitCode);
    EXPECT_NE(std::string::npos, result.text.find("volume 1 from the start cannot be read, error 2")) << result.text;
    EXPECT_NE(std::string::npos, result.text.find("volume " + Narrow(second.guid))) << result.text;
    EXPECT_NE(std::string::npos, result.text.find("snapshot 1 of " + Narrow(second.guid))) << result.text;
}

TEST_F(SimCommandLineTest, ABlockSizeThatDoesNotFitIsAnError)
{
    for (const wchar_t* size : {L"4G", L"4295032832", L"0"}) { // the second one's low half is 64K
        const Result added = Run(L"add-volume", L"1M --block-size " + std::wstring(size));
        EXPECT_EQ(2u, added.exitCode) << added.text;
        EXPECT_NE(std::string::npos, added.text.find("--block-size")) << added.text;
        const Result changed = Run(L"block-size", m_volume.guid + L" " + size);
        EXPECT_EQ(2u, changed.exitCode) << changed.text;
    }
    EXPECT_EQ(4096u, m_machine.Info(m_volume).blockSize);
    VTFLTSIM_VOLUME_INFO info = {};
    info.size = sizeof(info);
    EXPECT_EQ(259u, VTFltSimEnumVolume(m_machine.handle(), 1, &info)); // none was added
    EXPECT_EQ(0u, Run(L"block-size", m_volume.guid + L" 8K").exitCode);
    EXPECT_EQ(8192u, m_machine.Info(m_volume).blockSize);
}

} // namespace
