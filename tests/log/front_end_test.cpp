// The front end over its outputs: what is formatted, what it costs, what happens when an output throws.
#include "log/log.h"
#include "log/message_text.h"
#include "log_file_test.h"

#include <stdexcept>

using namespace vtflt;
using namespace vttest;

namespace {

struct Record {
    int level;
    DWORD code;
    std::wstring text;
    bool operator==(const Record&) const = default;
};

class ScriptedOutput final : public IDBGLogOutput {
public:
    ScriptedOutput(std::vector<Record>& records, DWORD threshold, int throws = 0)
        : m_records(records), m_threshold(threshold), m_throws(throws)
    {
    }
    void WriteLogA(int, DWORD, const char*) override { ADD_FAILURE() << "the front end writes wide text only"; }
    void WriteLogW(int level, DWORD errorCode, const wchar_t* text) override
    {
        if (m_throws-- > 0)
            throw std::runtime_error("scripted");
        m_records.push_back({level, errorCode, text});
    }
    DWORD GetLogLevel() override
    {
        if (m_threshold == NO_THRESHOLD)
            throw std::runtime_error("scripted");
        return m_threshold;
    }
    static constexpr DWORD NO_THRESHOLD = 0xBAD; // asking for it throws

private:
    std::vector<Record>& m_records;
    DWORD m_threshold;
    int m_throws;
};

class FrontEnd : public testing::Test {
protected:
    CDBGLog Make(DWORD fileThreshold, DWORD liveThreshold, int fileThrows = 0)
    {
        return CDBGLog(new ScriptedOutput(m_file, fileThreshold, fileThrows),
                       new ScriptedOutput(m_live, liveThreshold));
    }
    std::vector<Record> m_file;
    std::vector<Record> m_live;
};

#if defined(_WIN32) // the double has no guard pages
// An argument whose reading is noticed: its page answers the first access with an exception, which is counted.
class WatchedText {
public:
    WatchedText() : m_text(static_cast<wchar_t*>(VirtualAlloc(nullptr, 4096, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE)))
    {
        s_reads = 0;
        m_text[0] = L'x';
        m_handler = AddVectoredExceptionHandler(1, &Count);
        DWORD before = 0;
        EXPECT_TRUE(VirtualProtect(m_text, 4096, PAGE_READWRITE | PAGE_GUARD, &before));
    }
    WatchedText(const WatchedText&) = delete;
    WatchedText& operator=(const WatchedText&) = delete;
    ~WatchedText()
    {
        RemoveVectoredExceptionHandler(m_handler);
        VirtualFree(m_text, 0, MEM_RELEASE);
    }
    const wchar_t* get() const { return m_text; }
    static int Reads() { return s_reads; }

private:
    static LONG CALLBACK Count(EXCEPTION_POINTERS* exception)
    {
        if (exception->ExceptionRecord->ExceptionCode != STATUS_GUARD_PAGE_VIOLATION)
            return EXCEPTION_CONTINUE_SEARCH;
        ++s_reads;
        return EXCEPTION_CONTINUE_EXECUTION;
    }
    static inline int s_reads = 0;
    wchar_t* m_text;
    void* m_handler = nullptr;
};

TEST_F(FrontEnd, AMessageThatNoOutputWantsIsNotFormatted)
{
    const WatchedText text;
    CDBGLog log = Make(2, 0);
    log.Log(4, 0, L"%s", text.get());
    EXPECT_EQ(0, WatchedText::Reads());
    EXPECT_TRUE(m_file.empty());
    log.Log(2, 0, L"%s", text.get());
    EXPECT_EQ(1, WatchedText::Reads());
}
#endif

TEST_F(FrontEnd, AMessageThatAnyOutputWantsIsFormattedOnceAndHandedToBoth)
{
    CDBGLog log = Make(2, 9999);
    log.Log(4, 7, L"%s %d\n", L"a", 5);
    const std::vector<Record> expected = {{4, 7, L"a 5"}};
    EXPECT_EQ(expected, m_file); // which applies its own threshold
    EXPECT_EQ(expected, m_live);
}

TEST_F(FrontEnd, AMessageOfMoreThan1023CharactersIsCutThere)
{
    CDBGLog log = Make(2, 0);
    const std::wstring longText(2000, L'l');
    log.Log(2, 0, L"%s", longText.c_str());
    log.Log(2, 0, L"%s", longText.substr(0, 1023).c_str());
    ASSERT_EQ(2u, m_file.size());
    EXPECT_TRUE(m_file[0].text == longText.substr(0, 1023));
    EXPECT_TRUE(m_file[1].text == longText.substr(0, 1023));
}

TEST_F(FrontEnd, ATextThatFillsItsRoomHasItsEndWhateverStoodThere)
{
    std::wstring room(9, L'#');
    FormatBounded(room.data(), 8, L"%s", L"0123456789");
    EXPECT_EQ(std::wstring(L"0123456") + L'\0' + L'#', room);
    FormatBounded(room.data(), 8, L"%s", L"abcdefg");
    EXPECT_EQ(std::wstring(L"abcdefg") + L'\0' + L'#', room);
}

TEST_F(FrontEnd, LineFeedsAroundAMessageGoAndACarriageReturnKeepsItsOwn)
{
    CDBGLog log = Make(2, 0);
    log.Log(2, 0, L"\n\nabc\n\n");
    log.Log(2, 0, L"\r\nabc\n");
    log.Log(2, 0, L"\n\n");
    ASSERT_EQ(3u, m_file.size());
    EXPECT_TRUE(m_file[0].text == L"abc");
    EXPECT_TRUE(m_file[1].text == L"\r\nabc");
    EXPECT_TRUE(m_file[2].text.empty());
}

TEST_F(FrontEnd, ANullFormatLogsNothing)
{
    CDBGLog log = Make(2, 9999);
    log.Log(0, 5, nullptr);
    EXPECT_TRUE(m_file.empty());
    EXPECT_TRUE(m_live.empty());
}

TEST_F(FrontEnd, WithoutAFileOutputNotEvenTheLiveOneGetsTheMessage)
{
    CDBGLog log(nullptr, new ScriptedOutput(m_live, 9999));
    log.Log(0, 5, L"m");
    EXPECT_TRUE(m_live.empty());
}

TEST_F(FrontEnd, AnExceptionGivesTwoFixedLinesOnEachOutputAndDoesNotReachTheCaller)
{
    CDBGLog log = Make(2, 9999, 1);
    log.Log(1, 7, L"raw %d\n", 5);
    const std::vector<Record> expected = {{1, 7, L"!!!!!Exception when write below log.!!!!!"}, {1, 7, L"raw %d\n"}};
    EXPECT_EQ(expected, m_file);
    EXPECT_EQ(expected, m_live);
}

TEST_F(FrontEnd, AnOutputThatKeepsThrowingDoesNotKeepTheOtherFromItsLines)
{
    CDBGLog log = Make(2, 9999, 100);
    log.Log(1, 7, L"raw");
    EXPECT_TRUE(m_file.empty());
    EXPECT_EQ(2u, m_live.size());
}

TEST_F(FrontEnd, TheCallKeepsTheThreadsLastError)
{
    CDBGLog* const previous = ExchangeLog(new CDBGLog(new ScriptedOutput(m_file, 2), nullptr));
    SetLastError(1234);
    Log(0, 5, L"m");
    EXPECT_EQ(1234u, GetLastError());
    delete ExchangeLog(previous);
    EXPECT_EQ(1u, m_file.size());
}

class LogCost : public LogFileTest {};

TEST_F(LogCost, AnOrdinaryMessageAllocatesNothingOnTheHeap)
{
    MakeOutput();
    const std::wstring path = File(L"t.log");
    SetEntryPath(path);
    CDBGLog log(m_output.release(), nullptr);
    log.Log(2, 0, L"the first opens the file %d", 1);
    VTFltSimResetCounts();
    for (int i = 0; i < 10; ++i)
        log.Log(i % 2 == 0 ? 2 : 0, static_cast<DWORD>(i), L"message %d of %s, %x\n", i, path.c_str(), 0xABCD);
    log.Log(4, 0, L"not wanted");
    const DWORD allocations = VTFltSimGetCallCount(L"malloc") + VTFltSimGetCallCount(L"calloc") +
                              VTFltSimGetCallCount(L"realloc") + VTFltSimGetCallCount(L"HeapAlloc") +
                              VTFltSimGetCallCount(L"LocalAlloc");
    EXPECT_EQ(0u, allocations);
    EXPECT_EQ(40u, VTFltSimGetCallCount(L"WriteFile"));
    // The count counts.
    delete new int(5);
    EXPECT_LT(0u, VTFltSimGetCallCount(L"malloc"));
}

TEST_F(LogCost, ANarrowRecordAllocatesNothingEither)
{
    const std::wstring path = File(L"t.log");
    MakeFile(path, "narrow\r\n");
    Start(path);
    Write(L"opens");
    VTFltSimResetCounts();
    Write(L"message");
    EXPECT_EQ(0u, VTFltSimGetCallCount(L"malloc") + VTFltSimGetCallCount(L"HeapAlloc"));
    EXPECT_EQ(4u, VTFltSimGetCallCount(L"WriteFile"));
}

TEST_F(FrontEnd, AnOutputThatThrowsWhenItIsAskedForItsThresholdDropsTheMessage)
{
    CDBGLog file = Make(ScriptedOutput::NO_THRESHOLD, 9999);
    file.Log(0, 5, L"m");
    CDBGLog live = Make(2, ScriptedOutput::NO_THRESHOLD);
    live.Log(4, 5, L"m");
    EXPECT_TRUE(m_file.empty());
    EXPECT_TRUE(m_live.empty());
    live.Log(2, 5, L"wanted by the file already");
    EXPECT_EQ(1u, m_file.size());
}

TEST(MessageText, ABufferOfNoCharactersIsNotTouched)
{
    wchar_t wide = L'w';
    FormatBounded(&wide, 0, L"%d", 1);
    EXPECT_EQ(L'w', wide);
    char narrow = 'n';
    FormatBounded(&narrow, 0, "%d", 1);
    EXPECT_EQ('n', narrow);
    FormatBounded(&wide, 1, L"%d", 1);
    EXPECT_EQ(L'\0', wide);
}

class LogStart : public LogFileTest {};

TEST_F(LogStart, WithoutMemoryThereIsNoLogAndNothingIsLeft)
{
    CDBGLog* const previous = ExchangeLog(nullptr);
    bool none = false;
    for (DWORD nth = 1;; ++nth) {
        vtfltsim::FailCall(L"malloc", ERROR_NOT_ENOUGH_MEMORY, nullptr, nth);
        StartLog();
        const bool struck = VTFltSimGetCallFaultHits() != 0;
        VTFltSimClearCallFaults();
        CDBGLog* const log = ExchangeLog(nullptr);
        none = none || log == nullptr;
        EXPECT_TRUE(struck || log != nullptr);
        ExchangeLog(log);
        Log(0, 5, nullptr); // no harm, whatever there is
        StopLog();
        for (const std::wstring& line : vtfltsim::LeftOpen())
            ADD_FAILURE() << nth << " left open: " << Narrow(line);
        if (!struck)
            break;
    }
    EXPECT_TRUE(none);
    ExchangeLog(previous);
}

} // namespace
