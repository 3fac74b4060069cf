// Several processes and threads in one log file, through the shipped library.
#include "log_file_test.h"
#include "support/child.h"

#include <map>
#include <set>

using namespace vtflt;
using namespace vttest;

namespace {

class LogProcesses : public LogFileTest {
protected:
    struct Child {
        UniqueHandle ready;
        ChildProcess process;
    };
    Child StartChild(unsigned number, unsigned threads, unsigned records, bool ends = false)
    {
        const std::wstring ready = UniqueName(L"VTFltMgr.LogChild");
        UniqueHandle event = NamedEvent(ready);
        std::vector<std::wstring> arguments = {m_path, WideNumber(number), WideNumber(threads), WideNumber(records),
                                               ready,  m_startName};
        if (ends)
            arguments.push_back(L"end");
        return Child{std::move(event), ChildProcess(L"log_child", arguments)};
    }
    // The lines of a wide file from a place on.
    static std::vector<std::wstring> LinesFrom(const std::wstring& path, LONGLONG offset)
    {
        const UniqueHandle file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                            OPEN_EXISTING, 0, nullptr));
        EXPECT_TRUE(file.valid()) << Narrow(path);
        LARGE_INTEGER size = {};
        LARGE_INTEGER begin = {};
        begin.QuadPart = offset;
        if (!GetFileSizeEx(file.get(), &size) || !SetFilePointerEx(file.get(), begin, nullptr, FILE_BEGIN))
            return {};
        std::wstring text(static_cast<std::size_t>(size.QuadPart - offset) / sizeof(wchar_t), L'\0');
        DWORD got = 0;
        EXPECT_TRUE(ReadFile(file.get(), text.data(), static_cast<DWORD>(text.size() * 2), &got, nullptr));
        EXPECT_TRUE(text.size() < 2 || text.ends_with(L"\r\n"));
        return Lines(text);
    }
    // The number of a record's process, thread and record; 0 when the line is not whole.
    static std::uint32_t NumberOf(const std::wstring& line)
    {
        static constexpr std::wstring_view BEFORE = L"   0X00000057] VTFltPrepareForSnapshot: Handle 0X";
        static constexpr std::wstring_view BEHIND =
            L" not found. Please provide valid volume handle.   {log_child.exe::VTFltMgr.dll(0.0)}";
        const std::wstring masked = MaskTimes(line);
        const std::size_t at = masked.find(BEFORE);
        if (!masked.starts_with(L"[0000/00/00 00:00:00:000   00   ") || at == std::wstring::npos ||
            !masked.ends_with(BEHIND))
            return 0;
        std::uint32_t number = 0;
        const std::size_t first = at + BEFORE.size();
        for (std::size_t i = first; i < masked.size() - BEHIND.size(); ++i) {
            const std::size_t digit = std::wstring_view(L"0123456789abcdef").find(masked[i]);
            if (digit == std::wstring::npos)
                return 0;
            number = number << 4 | static_cast<std::uint32_t>(digit);
        }
        return number;
    }

    void TearDown() override
    {
        m_start.reset();
        LogFileTest::TearDown();
    }

    std::wstring m_path = m_folder.File(L"shared.log");
    std::wstring m_startName = UniqueName(L"VTFltMgr.LogStart");
    UniqueHandle m_start = NamedEvent(m_startName);
};

TEST_F(LogProcesses, EightWithFourThreadsEachLoseSplitAndDoubleNothingAcrossARotation)
{
    constexpr unsigned PROCESSES = 8;
    constexpr unsigned THREADS = 4;
    constexpr unsigned RECORDS = 1000;
    constexpr LONGLONG BEGIN = LOG_SIZE_LIMIT - 6000000; // some half of the records are more than that
    MakeFile(m_path, "\xFF\xFE", BEGIN);
    std::vector<Child> children;
    for (unsigned number = 1; number <= PROCESSES; ++number)
        children.push_back(StartChild(number, THREADS, RECORDS));
    for (const Child& child : children)
        ASSERT_TRUE(child.process.Await(child.ready));
    SetEvent(m_start.get());
    for (Child& child : children)
        EXPECT_EQ(0u, child.process.Join());

    const std::wstring successor = m_folder.File(L"shared.00000001.log");
    std::vector<std::wstring> lines = LinesFrom(m_path, BEGIN);
    std::vector<std::wstring> rest = LinesFrom(successor, 2);
    EXPECT_LT(1000u, lines.size());
    ASSERT_LT(1000u, rest.size()) << "there was no rotation in the middle";
    lines.insert(lines.end(), rest.begin() + 7, rest.end()); // behind the summary block
    EXPECT_EQ(std::size_t{PROCESSES * THREADS * RECORDS}, lines.size());

    std::map<std::uint32_t, std::uint32_t> last; // the last record of each process and thread
    unsigned broken = 0;
    unsigned outOfOrder = 0;
    for (const std::wstring& line : lines) {
        const std::uint32_t number = NumberOf(line);
        broken += number == 0;
        std::uint32_t& before = last[number >> 16];
        outOfOrder += (number & 0xFFFF) != before + 1;
        before = number & 0xFFFF;
    }
    EXPECT_EQ(0u, broken);
    EXPECT_EQ(0u, outOfOrder); // nor lost, nor doubled: each follows the one before
    EXPECT_EQ(std::size_t{PROCESSES * THREADS}, last.size());
    for (const auto& [thread, record] : last)
        EXPECT_EQ(RECORDS, record) << thread;
}

TEST_F(LogProcesses, AProcessThatEndsWhileItsThreadsLogEnds)
{
    SetEvent(m_start.get());
    for (unsigned number = 1; number <= 3; ++number) {
        Child child = StartChild(number, 4, 60000, true);
        EXPECT_EQ(7u, child.process.Join());
    }
    // Those who come behind it are not kept from logging.
    Child next = StartChild(9, 1, 10);
    EXPECT_EQ(0u, next.process.Join());
    const std::vector<std::wstring> lines = LinesFrom(m_path, 2);
    ASSERT_LT(10u, lines.size());
    EXPECT_EQ(9u << 24 | 1u << 16 | 10u, NumberOf(lines.back()));
}

TEST_F(LogProcesses, AnExecutablesUpdateNumberIsTheUpperByteOfItsFourthVersionNumber)
{
    SetEvent(m_start.get());
    Child child = StartChild(1, 1, 1);
    EXPECT_EQ(0u, child.process.Join());
    const std::vector<std::wstring> lines = LinesFrom(m_path, 2);
    ASSERT_LT(7u, lines.size());
    EXPECT_NE(std::wstring::npos,
              lines[2].find(L"] Product Info: [Veltrix Software Inc] [veltrix Lumen Protect] Ver[r5.1 (Update 3)]"))
        << Narrow(lines[2]);
    EXPECT_NE(0u, NumberOf(lines[7])) << Narrow(lines[7]);
}

} // namespace
