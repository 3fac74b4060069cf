// The ring of live records: its objects, its bytes, writing and reading.
#include "log/share_memory.h"
#include "support/live_viewer.h"

#include <cstring>
#include <memory>
#include <thread>

using namespace vtflt;
using namespace vttest;

namespace {

constexpr wchar_t NAME[] = L"Ring Test.exe";
const std::wstring UPPER = L"RING TEST.EXE";

class RingTest : public ::testing::Test {
protected:
    // What every case but those of opening starts from.
    void Open()
    {
        ASSERT_TRUE(m_writer.OpenAsWriter());
        ASSERT_TRUE(m_reader.OpenAsReader());
    }
    LogRingBlock& Ring()
    {
        if (m_view == nullptr)
            m_view = std::make_unique<BlockView<LogRingBlock>>(RING_MAPPING + UPPER);
        EXPECT_NE(nullptr, m_view->block);
        return *m_view->block;
    }
    void Write(std::int64_t first, std::int64_t last)
    {
        for (std::int64_t number = first; number <= last; ++number)
            ASSERT_TRUE(m_writer.WriteMessage(2, 0, L"m", Text(number)));
    }
    static std::wstring Text(std::int64_t number)
    {
        return L"record " + std::wstring(1, static_cast<wchar_t>(0x4000 + number));
    }
    std::vector<std::wstring> ReadTexts()
    {
        std::vector<LogMessagePtr> messages;
        EXPECT_TRUE(m_reader.ReadMessages(messages));
        std::vector<std::wstring> texts;
        for (const LogMessagePtr& message : messages)
            texts.push_back(message->GetText());
        return texts;
    }
    static std::vector<std::wstring> Texts(std::int64_t first, std::int64_t last)
    {
        std::vector<std::wstring> texts;
        for (std::int64_t number = first; number <= last; ++number)
            texts.push_back(Text(number));
        return texts;
    }

    LiveViewer m_viewer{UPPER};
    CLogShareMemory m_writer{NAME};
    CLogShareMemory m_reader{NAME};
    std::unique_ptr<BlockView<LogRingBlock>> m_view;
};

TEST_F(RingTest, ANewRingIs2654720BytesOfZeroWithTheWriteSequenceMinus1)
{
    ASSERT_TRUE(m_writer.OpenAsWriter());
    std::vector<std::uint8_t> expected(2654720);
    std::memset(&expected[8], 0xFF, 8);
    EXPECT_EQ(0, std::memcmp(expected.data(), &Ring(), expected.size()));
    EXPECT_TRUE(MutexExists(RING_MUTEX + UPPER));
    EXPECT_FALSE(MappingExists(RING_LOCAL_MAPPING + UPPER));
}

TEST_F(RingTest, ARingThatIsThereIsUsedAsItStands)
{
    Open();
    Write(0, 4);
    CLogShareMemory second(NAME);
    ASSERT_TRUE(second.OpenAsWriter());
    ASSERT_TRUE(second.WriteMessage(2, 0, L"m", Text(5)));
    EXPECT_EQ(5, Ring().writeSequence);
    EXPECT_EQ(Texts(1, 5), ReadTexts());
}

TEST_F(RingTest, WithoutTheViewersEventNothingIsMade)
{
    m_viewer.CloseRingEvent();
    EXPECT_FALSE(m_writer.OpenAsWriter());
    EXPECT_FALSE(MutexExists(RING_MUTEX + UPPER));
    EXPECT_FALSE(MappingExists(RING_MAPPING + UPPER));
    EXPECT_FALSE(m_writer.WriteMessage(0, 0, L"m", L"text"));
}

TEST_F(RingTest, AReaderMakesNothing)
{
    EXPECT_FALSE(m_reader.OpenAsReader());
    EXPECT_FALSE(MutexExists(RING_MUTEX + UPPER));
    EXPECT_FALSE(MappingExists(RING_MAPPING + UPPER));
    std::vector<LogMessagePtr> messages;
    EXPECT_FALSE(m_reader.ReadMessages(messages));
    EXPECT_TRUE(messages.empty());
}

TEST_F(RingTest, TheRingGoesWithItsLastHandle)
{
    Open();
    m_writer.Close();
    EXPECT_TRUE(MappingExists(RING_MAPPING + UPPER));
    m_reader.Close();
    EXPECT_FALSE(MappingExists(RING_MAPPING + UPPER));
    EXPECT_FALSE(MutexExists(RING_MUTEX + UPPER));
}

TEST_F(RingTest, AWrittenRecordHasTheseBytes)
{
    Open();
    SYSTEMTIME before = {};
    SYSTEMTIME after = {};
    GetLocalTime(&before);
    ASSERT_TRUE(m_writer.WriteMessage(-4, 0x80070005, L"Module.dll", L"a text"));
    GetLocalTime(&after);

    LogRecordBlock expected = {};
    CopyText(expected.executableName, NAME);
    CopyText(expected.moduleName, L"Module.dll");
    expected.errorCode = 0x80070005;
    expected.level = -4;
    expected.processId = GetCurrentProcessId();
    expected.threadId = GetCurrentThreadId();
    CopyText(expected.text, L"a text");
    expected.time = Ring().slots[0].time;
    EXPECT_EQ(0, std::memcmp(&expected, &Ring().slots[0], 2592));

    const auto ticks = [](const void* time) {
        SYSTEMTIME fields;
        std::memcpy(&fields, time, sizeof(fields));
        FILETIME moment = {};
        EXPECT_TRUE(SystemTimeToFileTime(&fields, &moment));
        return (static_cast<std::uint64_t>(moment.dwHighDateTime) << 32) | moment.dwLowDateTime;
    };
    EXPECT_LE(ticks(&before), ticks(&expected.time));
    EXPECT_LE(ticks(&expected.time), ticks(&after));
    EXPECT_EQ(0, Ring().writeSequence);
    EXPECT_EQ(0, Ring().readSequence);
    EXPECT_TRUE(m_viewer.WasWoken());
}

TEST_F(RingTest, AnAppendedRecordIsStoredAsItIs)
{
    Open();
    LogRecordBlock record;
    std::memset(&record, 0xCD, sizeof(record));
    ASSERT_TRUE(m_writer.Append(record));
    EXPECT_EQ(0, std::memcmp(&record, &Ring().slots[0], sizeof(record)));
    LogRecordBlock none = {};
    EXPECT_EQ(0, std::memcmp(&none, &Ring().slots[1], sizeof(none)));
}

TEST_F(RingTest, AnEmptyTextIsNotWritten)
{
    Open();
    EXPECT_FALSE(m_writer.WriteMessage(0, 5, L"m", L""));
    EXPECT_EQ(-1, Ring().writeSequence);
    EXPECT_FALSE(m_viewer.WasWoken());
}

TEST_F(RingTest, TextIsCutAt1023CharactersAndNamesWithinTheirFields)
{
    const std::wstring longName(200, L'n');
    const std::wstring upperName(200, L'N');
    const UniqueHandle event = MakeAutoEvent(RING_EVENT + upperName);
    CLogShareMemory writer(longName);
    ASSERT_TRUE(writer.OpenAsWriter());
    ASSERT_TRUE(writer.WriteMessage(0, 0, std::wstring(128, L'm'), std::wstring(1024, L't')));
    // The objects have the whole name.
    const BlockView<LogRingBlock> view(RING_MAPPING + upperName);
    ASSERT_NE(nullptr, view.block);
    const LogRecordBlock& record = view.block->slots[0];
    EXPECT_EQ(std::wstring(127, L'n'), record.executableName);
    EXPECT_EQ(std::wstring(127, L'm'), record.moduleName);
    EXPECT_EQ(std::wstring(1023, L't'), record.text);
}

TEST_F(RingTest, RecordNumber0IsNeverDelivered)
{
    Open();
    Write(0, 0);
    EXPECT_EQ(std::vector<std::wstring>{}, ReadTexts());
    EXPECT_EQ(0, Ring().readSequence);
    Write(1, 1);
    EXPECT_EQ(Texts(1, 1), ReadTexts());
}

TEST_F(RingTest, NewRecordsAreReadOnceInTheirOrder)
{
    Open();
    EXPECT_EQ(std::vector<std::wstring>{}, ReadTexts());
    Write(0, 10);
    EXPECT_EQ(Texts(1, 10), ReadTexts());
    EXPECT_EQ(10, Ring().readSequence);
    EXPECT_EQ(std::vector<std::wstring>{}, ReadTexts());
    Write(11, 12);
    EXPECT_EQ(Texts(11, 12), ReadTexts());
    EXPECT_EQ(0u, m_reader.Overwritten());
}

TEST_F(RingTest, ReadRecordsAreAddedBehindWhatTheListHolds)
{
    Open();
    Write(0, 2);
    std::vector<LogMessagePtr> messages;
    ASSERT_TRUE(m_reader.ReadMessages(messages));
    Write(3, 3);
    ASSERT_TRUE(m_reader.ReadMessages(messages));
    ASSERT_EQ(3u, messages.size());
    EXPECT_EQ(Text(1), messages[0]->GetText());
    EXPECT_EQ(Text(3), messages[2]->GetText());
}

TEST_F(RingTest, The1025thRecordAfterTheLastReadOverwritesTheOldestSlot)
{
    Open();
    Write(0, 5);
    ReadTexts();
    Write(6, 5 + 1024);
    EXPECT_STREQ(Text(6).c_str(), Ring().slots[6].text);
    EXPECT_EQ(Texts(6, 1029), ReadTexts());
    EXPECT_EQ(0u, m_reader.Overwritten());
    Write(1030, 1030 + 1023);
    EXPECT_STREQ(Text(1030).c_str(), Ring().slots[6].text);
    Write(1030 + 1024, 1030 + 1024);
    EXPECT_STREQ(Text(1030 + 1024).c_str(), Ring().slots[6].text);
}

TEST_F(RingTest, AReaderThatFellMoreThan1024BehindGetsOverwrittenSlots)
{
    Open();
    Write(0, 1026);
    const std::vector<std::wstring> texts = ReadTexts();
    ASSERT_EQ(1026u, texts.size());
    EXPECT_EQ(Text(1025), texts[0]); // in the place of record 1
    EXPECT_EQ(Text(1026), texts[1]);
    EXPECT_EQ(Text(3), texts[2]);
    EXPECT_EQ(Text(1026), texts[1025]);
    EXPECT_EQ(2u, m_reader.Overwritten());
    EXPECT_EQ(1026, Ring().readSequence);
}

// Further behind, the numbers are beyond belief.
TEST_F(RingTest, AReaderThatFellMoreThan4096BehindGetsTheNewest4096)
{
    Open();
    Ring().writeSequence = 5000 - 1024;
    Write(5000 - 1023, 5000);
    Ring().readSequence = 0;
    const std::vector<std::wstring> texts = ReadTexts();
    ASSERT_EQ(4096u, texts.size());
    EXPECT_EQ(Text(905 + 3 * 1024), texts[0]); // in the place of record 905
    EXPECT_EQ(Text(5000), texts[4095]);
    EXPECT_EQ(5000u - 1024u, m_reader.Overwritten());
    EXPECT_EQ(5000, Ring().readSequence);
}

TEST_F(RingTest, WriteSequenceMinus1IsNothingWhateverTheReadSequenceIs)
{
    Open();
    Ring().readSequence = -700;
    EXPECT_EQ(std::vector<std::wstring>{}, ReadTexts());
    EXPECT_EQ(-700, Ring().readSequence);
}

TEST_F(RingTest, SequencesOfAnyValueKeepWriterAndReaderInsideTheRing)
{
    constexpr std::int64_t LARGEST = 0x7FFFFFFFFFFFFFFF;
    constexpr std::int64_t SMALLEST = -LARGEST - 1;
    Open();
    for (const std::int64_t write : {LARGEST, SMALLEST, LARGEST - 1, std::int64_t{-2}, std::int64_t{-3000}}) {
        for (const std::int64_t read : {SMALLEST, LARGEST, std::int64_t{-1}, std::int64_t{0}}) {
            Ring().writeSequence = write;
            Ring().readSequence = read;
            std::vector<LogMessagePtr> messages;
            ASSERT_TRUE(m_writer.WriteMessage(0, 0, L"m", L"text"));
            ASSERT_TRUE(m_reader.ReadMessages(messages));
            EXPECT_LE(messages.size(), 4096u);
            const std::int64_t next = write == LARGEST ? SMALLEST : write + 1;
            EXPECT_EQ(next, Ring().writeSequence);
            EXPECT_EQ(next == -1 ? read : next, Ring().readSequence);
            EXPECT_STREQ(L"text", Ring().slots[static_cast<std::uint64_t>(next) % 1024].text);
        }
    }
}

TEST_F(RingTest, RecordsWithoutAnEndAreReadNoFurtherThanTheirFields)
{
    Open();
    std::memset(&Ring().slots[1], 0x61, sizeof(LogRecordBlock));
    Ring().writeSequence = 1;
    std::vector<LogMessagePtr> messages;
    ASSERT_TRUE(m_reader.ReadMessages(messages));
    ASSERT_EQ(1u, messages.size());
    EXPECT_EQ(std::wstring(128, L'\x6161'), messages[0]->GetExecutableName());
    EXPECT_EQ(std::wstring(128, L'\x6161'), messages[0]->GetModuleName());
    EXPECT_EQ(std::wstring(1024, L'\x6161'), messages[0]->GetText());
}

TEST_F(RingTest, AMutexThatItsOwnerLeftBehindIsOwnedAndGivenBack)
{
    Open();
    const auto abandon = [&] {
        const UniqueHandle mutex(OpenMutexW(SYNCHRONIZE, FALSE, (RING_MUTEX + UPPER).c_str()));
        std::thread([&] { EXPECT_EQ(0u, WaitForSingleObject(mutex.get(), INFINITE)); }).join();
    };
    abandon();
    Write(0, 1);
    abandon();
    EXPECT_EQ(Texts(1, 1), ReadTexts());
    abandon();
    CLogShareMemory second(NAME);
    EXPECT_TRUE(second.OpenAsWriter());
    std::thread([&] { EXPECT_TRUE(second.WriteMessage(0, 0, L"m", L"another thread")); }).join();
}

TEST_F(RingTest, ARingThatIsTooSmallIsRefused)
{
    const UniqueHandle tooSmall = MakeMapping(RING_MAPPING + UPPER, 4096);
    EXPECT_FALSE(m_writer.OpenAsWriter());
    EXPECT_FALSE(MappingExists(RING_LOCAL_MAPPING + UPPER));
    const UniqueHandle mutex(CreateMutexW(nullptr, FALSE, (RING_MUTEX + UPPER).c_str()));
    EXPECT_FALSE(m_reader.OpenAsReader());
}

TEST_F(RingTest, ARingOfReservedMemoryIsRefused)
{
    const UniqueHandle reserved =
        MakeMapping(RING_MAPPING + UPPER, sizeof(LogRingBlock), nullptr, PAGE_READWRITE | SEC_RESERVE);
    EXPECT_FALSE(m_writer.OpenAsWriter());
    const UniqueHandle mutex(CreateMutexW(nullptr, FALSE, (RING_MUTEX + UPPER).c_str()));
    EXPECT_FALSE(m_reader.OpenAsReader());
}

TEST_F(RingTest, AGlobalNameThatIsRefusedFallsBackToTheLocalOneForBothSides)
{
    const UniqueHandle barred = MakeBarredMapping(RING_MAPPING + UPPER);
    Open();
    EXPECT_TRUE(MappingExists(RING_LOCAL_MAPPING + UPPER));
    Write(0, 1);
    EXPECT_EQ(Texts(1, 1), ReadTexts());
}

TEST_F(RingTest, AnotherRefusalHasNoFallback)
{
    const UniqueHandle foreign = MakeAutoEvent(RING_MAPPING + UPPER); // the name is another kind of object's
    EXPECT_FALSE(m_writer.OpenAsWriter());
    EXPECT_FALSE(MappingExists(RING_LOCAL_MAPPING + UPPER));
    EXPECT_FALSE(MutexExists(RING_MUTEX + UPPER));
}

TEST_F(RingTest, WhateverCannotBeOpenedLeavesNothingOpen)
{
    WatchedCalls calls;
    for (const wchar_t* function : {L"OpenEventW", L"CreateMutexW", L"CreateFileMappingW", L"MapViewOfFile"}) {
        SCOPED_TRACE(::testing::PrintToString(std::wstring(function)));
        calls.Fail(function, nullptr, ERROR_NOT_ENOUGH_MEMORY);
        EXPECT_FALSE(m_writer.OpenAsWriter());
        EXPECT_EQ(1u, calls.Struck());
        calls.EndFaults();
        EXPECT_EQ(0u, VTFltSimGetOpenCount(VTFLTSIM_OPEN_OTHERS));
        EXPECT_EQ(0u, VTFltSimGetOpenCount(VTFLTSIM_OPEN_MUTEXES));
        EXPECT_EQ(0u, VTFltSimGetOpenCount(VTFLTSIM_OWNED_MUTEXES));
    }
    ASSERT_TRUE(m_writer.OpenAsWriter());
    for (const wchar_t* function : {L"OpenMutexW", L"OpenFileMappingW", L"MapViewOfFile"}) {
        SCOPED_TRACE(::testing::PrintToString(std::wstring(function)));
        calls.Fail(function, nullptr, ERROR_NOT_ENOUGH_MEMORY);
        EXPECT_FALSE(m_reader.OpenAsReader());
        EXPECT_LE(1u, calls.Struck());
        calls.EndFaults();
        EXPECT_EQ(2u, VTFltSimGetOpenCount(VTFLTSIM_OPEN_OTHERS)); // the writer's event and mapping
        EXPECT_EQ(1u, VTFltSimGetOpenCount(VTFLTSIM_OPEN_MUTEXES));
    }
    m_writer.Close();
    EXPECT_EQ(0u, VTFltSimGetOpenCount(VTFLTSIM_OPEN_OTHERS));
}

TEST_F(RingTest, OpeningWaitsForTheMutexWithoutALimitWritingAndReadingFiveSeconds)
{
    WatchedCalls calls;
    calls.Record();
    ASSERT_TRUE(m_writer.OpenAsWriter());
    EXPECT_EQ(1u, calls.Recorded(L"WaitForSingleObject"));
    EXPECT_EQ(1u, calls.Recorded(UPPER + L"|4294967295"));
    ASSERT_TRUE(m_writer.WriteMessage(0, 0, L"m", L"text"));
    EXPECT_EQ(1u, calls.Recorded(UPPER + L"|5000"));
    ASSERT_TRUE(m_reader.OpenAsReader());
    ReadTexts();
    EXPECT_EQ(2u, calls.Recorded(UPPER + L"|5000"));
    m_writer.Close();
    m_reader.Close();
}

TEST_F(RingTest, WithoutTheMutexNothingIsWrittenReadOrReleased)
{
    WatchedCalls calls;
    Open();
    Write(0, 1);
    EXPECT_TRUE(m_viewer.WasWoken());
    calls.ForceWait(L"_MUTEXT_", WAIT_TIMEOUT);
    calls.Record();
    EXPECT_FALSE(m_writer.WriteMessage(0, 0, L"m", L"dropped"));
    std::vector<LogMessagePtr> messages;
    EXPECT_FALSE(m_reader.ReadMessages(messages));
    EXPECT_TRUE(messages.empty());
    CLogShareMemory late(NAME);
    EXPECT_EQ(0u, calls.Recorded(L"MapViewOfFile"));
    EXPECT_EQ(0u, calls.Recorded(L"ReleaseMutex"));
    EXPECT_EQ(0u, calls.Recorded(L"SetEvent"));
    calls.EndFaults();
    calls.ForceWait(L"_MUTEXT_", WAIT_FAILED);
    EXPECT_FALSE(late.OpenAsWriter());
    calls.EndFaults();
    EXPECT_EQ(Texts(1, 1), ReadTexts());
    m_writer.Close();
    m_reader.Close();
}

TEST_F(RingTest, ARecordIsWrittenUnderTheMutexAndTheViewerWokenBehindIt)
{
    WatchedCalls calls;
    Open();
    calls.Record();
    ASSERT_TRUE(m_writer.WriteMessage(0, 0, L"m", L"text"));
    const std::wstring trace = calls.Trace();
    std::size_t from = 0;
    for (const wchar_t* call :
         {L"WaitForSingleObject", L"MapViewOfFile", L"UnmapViewOfFile", L"ReleaseMutex", L"SetEvent"}) {
        const std::size_t at = trace.find(call, from);
        EXPECT_NE(std::wstring::npos, at) << ::testing::PrintToString(std::wstring(call));
        from = at == std::wstring::npos ? from : at + 1;
    }
    m_writer.Close();
    m_reader.Close();
}

TEST_F(RingTest, ARingWhoseNamesAreBothRefusedIsNotOpened)
{
    const UniqueHandle global = MakeBarredMapping(RING_MAPPING + UPPER);
    const UniqueHandle local = MakeBarredMapping(RING_LOCAL_MAPPING + UPPER);
    EXPECT_FALSE(m_writer.OpenAsWriter());
    EXPECT_FALSE(MutexExists(RING_MUTEX + UPPER));
}

TEST_F(RingTest, ARingThatHasMemoryForItsBeginningOnlyIsRefused)
{
    const UniqueHandle reserved =
        MakeMapping(RING_MAPPING + UPPER, sizeof(LogRingBlock), nullptr, PAGE_READWRITE | SEC_RESERVE);
    const UniqueView view(MapViewOfFile(reserved.get(), FILE_MAP_READ | FILE_MAP_WRITE, 0, 0, 0));
    ASSERT_TRUE(view.valid());
    ASSERT_NE(nullptr, VirtualAlloc(view.get(), 65536, MEM_COMMIT, PAGE_READWRITE));
    EXPECT_FALSE(m_writer.OpenAsWriter());
    EXPECT_FALSE(MutexExists(RING_MUTEX + UPPER));
}

TEST_F(RingTest, ARingWhoseSizeCannotBeFoundOutIsRefused)
{
    WatchedCalls calls;
    calls.Fail(L"VirtualQuery", nullptr, ERROR_INVALID_PARAMETER);
    EXPECT_FALSE(m_writer.OpenAsWriter());
    EXPECT_EQ(1u, calls.Struck());
    calls.EndFaults();
    EXPECT_EQ(0u, VTFltSimGetOpenCount(VTFLTSIM_OPEN_OTHERS));
    EXPECT_TRUE(m_writer.OpenAsWriter());
    m_writer.Close();
}

TEST_F(RingTest, ThatCannotBeMappedIsNeitherWrittenNorReadAndItsMutexGivenBack)
{
    WatchedCalls calls;
    Open();
    Write(0, 1);
    EXPECT_TRUE(m_viewer.WasWoken());
    calls.Fail(L"MapViewOfFile", nullptr, ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_FALSE(m_writer.WriteMessage(2, 0, L"m", L"dropped"));
    std::vector<LogMessagePtr> messages;
    EXPECT_FALSE(m_reader.ReadMessages(messages));
    EXPECT_TRUE(messages.empty());
    EXPECT_EQ(2u, calls.Struck());
    calls.EndFaults();
    EXPECT_EQ(0u, VTFltSimGetOpenCount(VTFLTSIM_OWNED_MUTEXES));
    EXPECT_FALSE(m_viewer.WasWoken());
    EXPECT_EQ(Texts(1, 1), ReadTexts());
    m_writer.Close();
    m_reader.Close();
}

TEST_F(RingTest, RecordsThatMemoryIsTooShortForStayUnread)
{
    WatchedCalls calls;
    Open();
    Write(0, 3);
    std::vector<std::wstring> texts;
    for (DWORD nth = 1;; ++nth) {
        std::vector<LogMessagePtr> messages;
        vtfltsim::FailCall(L"malloc", ERROR_NOT_ENOUGH_MEMORY, nullptr, nth);
        EXPECT_TRUE(m_reader.ReadMessages(messages));
        const bool struck = calls.Struck() != 0;
        calls.EndFaults();
        for (const LogMessagePtr& message : messages)
            texts.push_back(message->GetText());
        EXPECT_EQ(static_cast<std::int64_t>(texts.size()), Ring().readSequence) << nth;
        if (!struck)
            break;
        EXPECT_LT(nth, 100u);
    }
    EXPECT_EQ(Texts(1, 3), texts);
    m_writer.Close();
    m_reader.Close();
}

} // namespace
