// Runs vtbackup.exe as a process of its own, as any scheduler would, and reads what it prints.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

namespace vtdemo {

// What one run of vtbackup said. Fields that its output did not have are empty or 0.
struct Answer {
    DWORD exitCode = 0;
    std::string output;  // all of standard output
    std::string message; // why it failed
    std::string kind;
    std::vector<std::string> reasons;
    std::uint64_t sequence = 0;
    std::uint64_t blocks = 0; // reported as changed
    std::uint64_t bytesRead = 0;
    std::uint64_t volumeLength = 0;
    bool reported = false;
    DWORD snapshot = 0; // its number, when it was kept
};

class Child {
public:
    // calls: what the simulator shall do to this process (VTFLTSIM_CALLS), or empty.
    Child(const std::vector<std::wstring>& arguments, const std::wstring& calls = {});
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // Ends the process at once, as a crash would.
    void Terminate();
    // Reads its output to the end and waits for it.
    Answer Finish();
    [[nodiscard]] HANDLE Process() const noexcept { return m_process; }

private:
    HANDLE m_process = nullptr;
    HANDLE m_output = nullptr;
};

inline Answer RunChild(const std::vector<std::wstring>& arguments, const std::wstring& calls = {})
{
    return Child(arguments, calls).Finish();
}

} // namespace vtdemo
