// Tests a backup program that knows nothing of the simulator: starts it, unmodified, under simulated machines, and compares
// what it leaves with the snapshot that it was taken from.
//
//     find_bugs PROGRAM
//
// PROGRAM takes VOLUME APPLICATION COPY, and a snapshot by the command in LOOP_SNAPSHOT, as loop.cpp does. Exit code: how
// many of the three examples failed; 99 when something else went wrong.
#include <vtfltsim/VTFltSim.hpp>

#include <cstdio>
#include <cwchar>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr DWORD BLOCK = 4096;
constexpr std::uint64_t LENGTH = 64 * BLOCK - 512;

// One machine with one volume, a copy of it, and the program.
class Trial {
public:
    explicit Trial(std::wstring program)
        : m_program(std::move(program)), m_volume(m_machine.AddVolume(LENGTH, BLOCK)),
          m_copy(m_machine.directory() + L".copy")
    {
        wchar_t self[MAX_PATH] = {};
        GetModuleFileNameW(nullptr, self, MAX_PATH);
        // The snapshot's command is this program: see wmain.
        SetEnvironmentVariableW(L"LOOP_SNAPSHOT", (L"\"" + std::wstring(self) + L"\" --snapshot").c_str());
        SetEnvironmentVariableW(L"TRIAL_MACHINE", m_machine.directory().c_str());
        SetEnvironmentVariableW(L"TRIAL_VOLUME", m_volume.guid.c_str());
        // Begin with a backup that went well.
        Write(5, 1);
        if (BackUp() != 0 || !EqualsSnapshot())
            throw vtfltsim::SimError("a plain backup", 0);
    }
    Trial(const Trial&) = delete;
    Trial& operator=(const Trial&) = delete;
    ~Trial() { DeleteFileW(m_copy.c_str()); }

    vtfltsim::SimMachine& Machine() { return m_machine; }
    const vtfltsim::Volume& Volume() const { return m_volume; }

    void Write(std::uint64_t block, std::uint8_t value)
    {
        m_machine.Write(m_volume, block * BLOCK, Bytes(BLOCK, value));
    }

    // Runs the program to its end. calls: what goes wrong in it, see VTFltSim.h.
    DWORD BackUp(const std::wstring& calls = {})
    {
        SetEnvironmentVariableW(VTFLTSIM_CALLS_VARIABLE, calls.empty() ? nullptr : calls.c_str());
        const std::wstring line = L"\"" + m_program + L"\" " + m_volume.guid + L" Trial \"" + m_copy + L"\"";
        PROCESS_INFORMATION process = {};
        vtfltsim::Check("VTFltSimStartProgram",
                        VTFltSimStartProgram(m_machine.directory().c_str(), line.c_str(), 0, &process));
        WaitForSingleObject(process.hProcess, INFINITE);
        DWORD code = 0;
        GetExitCodeProcess(process.hProcess, &code);
        CloseHandle(process.hThread);
        CloseHandle(process.hProcess);
        SetEnvironmentVariableW(VTFLTSIM_CALLS_VARIABLE, nullptr);
        return code;
    }

    Bytes Copy() const
    {
        Bytes bytes(LENGTH + 1); // one more: a longer file is another one
        std::FILE* const file = _wfopen(m_copy.c_str(), L"rb");
        bytes.resize(file != nullptr ? std::fread(bytes.data(), 1, bytes.size(), file) : 0);
        if (file != nullptr)
            std::fclose(file);
        return bytes;
    }
    void PutBack(const Bytes& copy) const
    {
        std::FILE* const file = _wfopen(m_copy.c_str(), L"wb");
        if (file == nullptr || std::fwrite(copy.data(), 1, copy.size(), file) != copy.size() || std::fclose(file) != 0)
            throw vtfltsim::SimError("putting the copy back", 0);
    }
    // Whether the copy is what the last snapshot shows.
    bool EqualsSnapshot() const
    {
        VTFLTSIM_SNAPSHOT_INFO last = {};
        last.size = sizeof(last);
        for (DWORD i = 0; VTFltSimEnumSnapshot(m_machine.handle(), i, &last) == 0; ++i) {
        }
        Bytes bytes(LENGTH);
        vtfltsim::Check("VTFltSimReadSnapshot", VTFltSimReadSnapshot(m_machine.handle(), last.number, 0, bytes.data(),
                                                                     static_cast<DWORD>(bytes.size())));
        return Copy() == bytes;
    }

private:
    vtfltsim::SimMachine m_machine;
    std::wstring m_program;
    vtfltsim::Volume m_volume;
    std::wstring m_copy;
};

// [lost tracking] The driver loses track of the volume, and of a write. The program is told, and has to read everything.
bool ReadsEverythingWhenTrackingWasLost(const std::wstring& program)
{
    Trial trial(program);
    trial.Write(9, 2);
    vtfltsim::Check("VTFltSimLoseTracking",
                    VTFltSimLoseTracking(trial.Machine().handle(), trial.Volume().guid.c_str()));
    return trial.BackUp() == 0 && trial.EqualsSnapshot();
}
// [end]

// [flush] The copy cannot be flushed, and the power goes: what was not flushed is gone. The next run has to bring it again.
bool ForgetsNothingBeforeTheCopyIsOnTheDisk(const std::wstring& program)
{
    Trial trial(program);
    trial.Write(9, 2);
    const Bytes onTheDisk = trial.Copy();
    const DWORD ended = trial.BackUp(L"fail|FlushFileBuffers|.copy|1|1|1117");
    trial.PutBack(onTheDisk);
    return ended != 0 && trial.BackUp() == 0 && trial.EqualsSnapshot();
}
// [end]

// [moment] Somebody writes right before the snapshot. The snapshot shows it, so the copy has to have it.
bool HasWhatWasWrittenRightBeforeTheSnapshot(const std::wstring& program)
{
    Trial trial(program);
    trial.Write(9, 2);
    SetEnvironmentVariableW(L"TRIAL_WRITES", L"1");
    const DWORD ended = trial.BackUp();
    SetEnvironmentVariableW(L"TRIAL_WRITES", nullptr);
    return ended == 0 && trial.EqualsSnapshot();
}
// [end]

// What the tested program starts for its snapshot. With TRIAL_WRITES some program has written to block 20 just before.
int TakeSnapshot()
{
    vtfltsim::SimMachine machine{std::wstring(_wgetenv(L"TRIAL_MACHINE"))};
    const vtfltsim::Volume volume{_wgetenv(L"TRIAL_VOLUME")};
    if (_wgetenv(L"TRIAL_WRITES") != nullptr)
        machine.Write(volume, 20 * BLOCK, Bytes(BLOCK, 3));
    std::printf("%ls\n", machine.TakeSnapshot(volume).path.c_str());
    return 0;
}

int Try(const char* name, bool (*example)(const std::wstring&), const std::wstring& program)
{
    const bool good = example(program);
    std::printf("%-47s %s\n", name, good ? "ok" : "FAILED");
    std::fflush(stdout); // before the next program's own lines
    return good ? 0 : 1;
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    if (argc != 2)
        return 99;
    try {
        if (std::wcscmp(argv[1], L"--snapshot") == 0)
            return TakeSnapshot();
        return Try("reads everything when tracking was lost", ReadsEverythingWhenTrackingWasLost, argv[1]) +
               Try("forgets nothing before the copy is on the disk", ForgetsNothingBeforeTheCopyIsOnTheDisk, argv[1]) +
               Try("has what was written right before the snapshot", HasWhatWasWrittenRightBeforeTheSnapshot, argv[1]);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "find_bugs: %s\n", failure.what());
        return 99;
    }
}
