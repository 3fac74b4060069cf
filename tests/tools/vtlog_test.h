// What the tests of vtlog share: the program as a child process, and files for it to read.
#pragma once

#include "win/owners.h"

#include <nlohmann/json.hpp>

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace vtlog_test {

// Exit codes, as the manual lists them.
enum : DWORD {
    EXIT_OK = 0,
    EXIT_INTERNAL = 1,
    EXIT_USAGE = 2,
    EXIT_BUSY = 3,
    EXIT_NO_LOG = 4,
    EXIT_INTERRUPTED = 8,
    EXIT_NOT_FOUND = 10,
    EXIT_UNREADABLE = 11,
    EXIT_VERIFY_REQUIRED = 12,
    EXIT_UNKNOWN = 13,
};

// What one run of vtlog said.
struct Result {
    DWORD exitCode = 0;
    std::string out;
    std::string err;

    [[nodiscard]] std::vector<std::string> Lines() const; // of out, without their line ends
    // Every line of out as a JSON object; fails the test when one is none.
    [[nodiscard]] std::vector<nlohmann::json> Json() const;
};

// A running vtlog, or another program of the build folder. What it prints is read as it comes.
class Process {
public:
    // variables are added to the environment, as NAME=value.
    explicit Process(const std::vector<std::wstring>& arguments, const std::vector<std::wstring>& variables = {},
                     const std::wstring& program = L"vtlog.exe");
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    [[nodiscard]] DWORD Id() const noexcept { return m_id; }
    [[nodiscard]] HANDLE Get() const noexcept { return m_process.get(); }
    // Writes to its standard input.
    void Type(std::string_view text);
    // Waits until it has printed the text; false when it ended without.
    bool AwaitOutput(std::string_view text);
    // The same for standard error.
    bool AwaitDiagnosis(std::string_view text);
    void Terminate();
    // Closes its standard input and waits for its end.
    Result Finish();

private:
    void Collect(HANDLE pipe, std::string& text);

    vtflt::UniqueHandle m_process;
    vtflt::UniqueHandle m_in;
    vtflt::UniqueHandle m_outPipe;
    vtflt::UniqueHandle m_errPipe;
    DWORD m_id = 0;
    std::mutex m_lock; // guards what follows
    std::condition_variable m_changed;
    std::string m_out;
    std::string m_err;
    bool m_outEnded = false;
    bool m_errEnded = false;
    std::thread m_outReader;
    std::thread m_errReader;
};

// A folder of its own for every case, gone afterwards.
class VtLogTest : public testing::Test {
protected:
    VtLogTest();
    ~VtLogTest() override;

    [[nodiscard]] static Result Run(const std::vector<std::wstring>& arguments);
    [[nodiscard]] std::wstring Path(const std::wstring& name) const { return folder + L"\\" + name; }
    // Files as the library makes them: the mark and UTF-16, or bytes as they are. Both give the path.
    std::wstring WriteWide(const std::wstring& name, std::wstring_view text) const;
    std::wstring WriteBytes(const std::wstring& name, std::string_view bytes) const;

    std::wstring folder;
};

// One record with its line end: "[2026/11/21 10:00:01:000   00   00100   00200   0X00000005] text   {a.exe::b.dll(0.1)}".
std::wstring Record(const std::wstring& time, int level, unsigned long code, const std::wstring& text,
                    unsigned pid = 100, unsigned tid = 200);
// The first lines of a file, written at that time.
std::wstring SummaryBlock(const std::wstring& time);

// UTF-8 of text, to compare output with.
std::string Utf8(std::wstring_view text);

} // namespace vtlog_test
