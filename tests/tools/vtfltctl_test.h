// What the tests of vtfltctl share: a simulated machine, and the program as a child process.
#pragma once

#include "tools/vtlog_test.h" // Process
#include "vtfltsim/VTFltSim.hpp"

#include <nlohmann/json.hpp>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace vtfltctl_test {

// Exit codes, as the manual lists them.
enum : DWORD {
    EXIT_OK = 0,
    EXIT_USAGE = 2,
    EXIT_BUSY = 3,
    EXIT_REFUSED = 4,
    EXIT_DRIVER_DOWN = 5,
    EXIT_DAMAGED = 6,
    EXIT_DEVICE = 9,
    EXIT_NOT_FOUND = 10,
    EXIT_UNREADABLE = 11,
    EXIT_VERIFY_REQUIRED = 12,
    EXIT_UNKNOWN = 13,
    EXIT_NOT_MONITORED = 14,
};

inline constexpr wchar_t IDS_KEY[] = L"SOFTWARE\\Veltrix\\Shared\\CBTDriver\\AppIDs";
inline constexpr wchar_t LISTS_KEY[] = L"SYSTEM\\CurrentControlSet\\Services\\VTFlt";
inline constexpr wchar_t COUNT_KEY[] =
    L"SOFTWARE\\Veltrix\\Lumen Protect\\Engine\\VTFltMgr\\{533C5B84-EC70-11D2-9505-00C04F79DEAF}";

class VtFltCtlTest : public testing::Test {
protected:
    VtFltCtlTest();

    // Runs a command on the machine.
    [[nodiscard]] vtlog_test::Result Run(std::vector<std::wstring> arguments) const;
    // The same with --json. The case fails unless standard output is one object that fits its schema, whose "result"
    // goes with the exit code.
    [[nodiscard]] nlohmann::json RunJson(std::vector<std::wstring> arguments, DWORD exitCode) const;
    // A command that must fail with this code: says why on standard error, prints nothing else, prints the same
    // message as JSON, and changes nothing, twice. The message is given back.
    std::string ExpectRefusal(const std::vector<std::wstring>& arguments, DWORD exitCode) const;
    // Registers an application and lets it be as after its first backup: without the marks that make that one verify.
    void Register(const std::wstring& application) const;
    void DeleteValue(const wchar_t* key, const std::wstring& value) const;

    // Every registry value of the machine and every file on its volumes, for comparison.
    [[nodiscard]] std::string Fingerprint() const;

    [[nodiscard]] std::wstring BitmapFile(const wchar_t* which, const std::wstring& application) const;
    // Stores a multi-string, well-formed or of this type.
    void StoreList(const std::wstring& value, const std::vector<std::wstring>& entries, const wchar_t* key = LISTS_KEY,
                   DWORD type = REG_MULTI_SZ);
    [[nodiscard]] std::vector<std::wstring> StoredList(const std::wstring& value, const wchar_t* key = LISTS_KEY) const;
    void StoreNumber(const wchar_t* key, const wchar_t* value, DWORD number);

    vtfltsim::SimMachine machine;
    vtfltsim::Volume volume; // E:\, 1 MiB in blocks of 4 KiB
};

std::vector<std::uint8_t> ReadBytes(const std::wstring& path);
void WriteBytes(const std::wstring& path, const std::vector<std::uint8_t>& bytes);

} // namespace vtfltctl_test
