// Every call that the log makes fails, once and from then on; every allocation fails; another process dies before and behind
// every call. No record but the struck one suffers, nothing stays open, and the next record is written.
#include "log/log.h"
#include "log_file_test.h"
#include "support/child.h"
#include "support/live_viewer.h"

#include <algorithm>
#include <memory>
#include <optional>

using namespace vtflt;
using namespace vttest;

namespace {

constexpr DWORD MOST_CALLS = 1000; // far more than a few records cost: a sweep ends
constexpr DWORD ERRORS[] = {ERROR_ACCESS_DENIED, ERROR_NOT_ENOUGH_MEMORY, ERROR_DISK_FULL, ERROR_FILE_NOT_FOUND};
constexpr wchar_t ALLOCATION[] = L"malloc";
constexpr std::wstring_view LINE_END = L"\r\n";
const std::wstring TEXTS[] = {L"one", L"two", L"three"};
const std::wstring NEXT = L"next";

// The text of a log file's bytes. Behind a mark all of it is wide. Where the mark could not be written, the first record is
// wide and those behind it are narrow: a wide character of these texts has a zero byte, a narrow one has none.
std::wstring TextOf(const std::vector<std::uint8_t>& bytes)
{
    const bool isWide = bytes.size() >= 2 && bytes[0] == 0xFF && bytes[1] == 0xFE;
    std::wstring text;
    for (std::size_t at = isWide ? 2 : 0; at < bytes.size(); ++at) {
        const std::uint8_t high = at + 1 < bytes.size() ? bytes[at + 1] : std::uint8_t{0xFF};
        const bool isPair = isWide || high == 0;
        text.push_back(static_cast<wchar_t>(isPair ? bytes[at] | high << 8 : bytes[at]));
        at += isPair ? 1 : 0;
    }
    return text;
}

// What a log file holds, told apart.
struct Contents {
    std::vector<std::wstring> whole; // the texts of its whole records
    std::size_t parts = 0;           // of records that are not whole
    std::wstring odd;                // from the first thing on that is nothing of a log
};

class LogCallSweep : public LogFileTest {
protected:
    struct Failure {
        const wchar_t* function;
        DWORD error;
        DWORD count; // 0: from then on
    };

    // The log as the library makes it when it is loaded.
    void Make()
    {
        IDBGLogOutput* const file = MakeFileOutput();
        IDBGLogOutput* const live = MakeLiveOutput();
        m_hasFile = file != nullptr;
        m_hasLive = live != nullptr;
        m_log.emplace(file, live);
    }
    void Say(const std::wstring& text) { m_log->Log(LOG_INFORMATION, 0, L"%s", text.c_str()); }
    // As it does when it is unloaded.
    void End()
    {
        m_log.reset();
        CloseOutputState();
    }
    void TearDown() override
    {
        VTFltSimClearCallFaults();
        End();
        DeleteFileW(m_path.c_str());
        LogFileTest::TearDown();
    }

    // Takes what the text begins with off it, when it does.
    static bool Take(std::wstring_view& text, std::wstring_view beginning)
    {
        if (!text.starts_with(beginning))
            return false;
        text.remove_prefix(beginning.size());
        return true;
    }
    // A time that could not be had is all zeros, and its year is short of digits.
    static std::wstring WithTimes(std::wstring text)
    {
        static constexpr std::wstring_view NO_TIME = L"[   0/";
        for (std::size_t at = text.find(NO_TIME); at != std::wstring::npos; at = text.find(NO_TIME, at))
            text.replace(at, NO_TIME.size(), L"[0000/");
        return text;
    }
    static bool TakeSummaryLine(std::wstring_view& text)
    {
        static constexpr std::wstring_view BEGINNINGS[] = {L"======", L"Product Info: ", L"OS      Info: ",
                                                           L"Log level of each module ", L"[HKEY_LOCAL_MACHINE\\"};
        const std::wstring header = MaskedHeader(LOG_INFORMATION);
        std::wstring_view rest = text;
        const bool is = rest.starts_with(L"[   Date ") ||
                        (Take(rest, header) && std::any_of(std::begin(BEGINNINGS), std::end(BEGINNINGS),
                                                           [&](auto line) { return rest.starts_with(line); }));
        const std::size_t end = text.find(LINE_END);
        if (!is || end == std::wstring_view::npos)
            return false;
        text.remove_prefix(end + LINE_END.size());
        return true;
    }
    static Contents TakeApart(const std::wstring& path)
    {
        const std::wstring header = MaskedHeader(LOG_INFORMATION);
        const std::wstring tail = Tail();
        const std::wstring all = MaskTimes(WithTimes(TextOf(FileBytes(path))));
        std::wstring_view text = all;
        Contents contents;
        const auto takeRecord = [&](const std::wstring& what) {
            const bool taken = Take(text, header + what + tail + std::wstring(LINE_END));
            if (taken)
                contents.whole.push_back(what);
            return taken;
        };
        const auto takePart = [&](std::wstring_view part) { return Take(text, part); };
        while (!text.empty()) {
            if (std::any_of(std::begin(TEXTS), std::end(TEXTS), takeRecord) || takeRecord(NEXT) ||
                TakeSummaryLine(text))
                continue;
            if (!takePart(header) && !std::any_of(std::begin(TEXTS), std::end(TEXTS), takePart) && !takePart(tail) &&
                !takePart(LINE_END)) {
                contents.odd = text.substr(0, 100);
                break;
            }
            ++contents.parts;
        }
        return contents;
    }
    // In the order in which they were said; none twice.
    static bool IsSomeOf(const std::vector<std::wstring>& texts)
    {
        auto place = std::begin(TEXTS);
        for (const std::wstring& text : texts) {
            place = std::find(place, std::end(TEXTS), text);
            if (place == std::end(TEXTS))
                return false;
            ++place;
        }
        return true;
    }
    // A viewer has read the ring, and keeps it open: what is in it stays, whoever else lets it go.
    std::unique_ptr<BlockView<LogRingBlock>> LookAtTheRing()
    {
        Make();
        Say(L"before");
        auto ring = std::make_unique<BlockView<LogRingBlock>>(RING_MAPPING + m_viewed);
        End();
        DeleteFileW(m_path.c_str());
        if (ring->block == nullptr)
            ADD_FAILURE() << "there is no ring";
        else
            m_seen = ring->block->writeSequence + 1;
        return ring;
    }
    // What a viewer finds, by either name: a ring that cannot be had by the one is made by the other.
    std::vector<std::wstring> RingTexts() const
    {
        std::vector<std::wstring> texts;
        const auto read = [&](const std::wstring& name, std::int64_t from) {
            const BlockView<LogRingBlock> ring(name);
            for (std::int64_t i = from; ring.block != nullptr && i <= ring.block->writeSequence; ++i)
                texts.emplace_back(FieldText(ring.block->slots[RingSlot(i)].text));
        };
        read(RING_MAPPING + m_viewed, m_seen);
        read(RING_LOCAL_MAPPING + m_viewed, 0);
        return texts;
    }
    static bool AreTheFirstOf(const std::vector<std::wstring>& texts)
    {
        return texts.size() <= std::size(TEXTS) && std::equal(texts.begin(), texts.end(), std::begin(TEXTS));
    }

    // Makes the log and logs, each time with the next call failing, until it makes no more. Gives the number of times that
    // the module had no entry in the configuration behind it: then it has no file, which is the rule for a table of modules
    // that is full.
    DWORD Sweep(const Failure& failure, DWORD fewest)
    {
        DWORD withoutEntry = 0;
        DWORD nth = 1;
        for (; nth <= MOST_CALLS; ++nth) {
            SCOPED_TRACE(Narrow(failure.function) + " " + std::to_string(nth) + ", error " +
                         std::to_string(failure.error) + (failure.count == 0 ? " from then on" : ""));
            DeleteFileW(m_path.c_str());
            const auto ring = m_viewed.empty() ? nullptr : LookAtTheRing();
            const std::vector<std::wstring> open = vtfltsim::LeftOpen();
            VTFltSimRecord(1);
            vtfltsim::Check("VTFltSimFailCall",
                            VTFltSimFailCall(failure.function, nullptr, nth, failure.count, failure.error));
            Make();
            const bool isStruckEarly = VTFltSimGetCallFaultHits() != 0;
            for (const std::wstring& text : TEXTS)
                Say(text);
            const bool isStruck = VTFltSimGetCallFaultHits() != 0;
            VTFltSimClearCallFaults();
            VTFltSimRecord(0);

            withoutEntry += ExpectTheOthers(failure, isStruckEarly) ? 0u : 1u;
            End();
            EXPECT_TRUE(open == vtfltsim::LeftOpen()) << "left open: " << Shown(vtfltsim::LeftOpen());
            if (HasFailure()) {
                ADD_FAILURE() << "called:\n" << Shown(vtfltsim::Trace());
                break; // one is enough to look at
            }
            if (!isStruck)
                break;
        }
        EXPECT_GT(nth, fewest);
        EXPECT_LT(nth, MOST_CALLS);
        return withoutEntry;
    }
    // What the failure may have taken, and no more; and the next record. False when the module had no entry.
    bool ExpectTheOthers(const Failure& failure, bool isStruckEarly)
    {
        const bool hasEntry = EntryPath().front() != L'(';
        const Contents before = TakeApart(m_path);
        EXPECT_EQ("", Narrow(before.odd));
        const bool isMemory = std::wstring_view(failure.function) == ALLOCATION;
        if (!m_hasFile) { // nor is anything logged to a viewer
            EXPECT_TRUE(isMemory && isStruckEarly) << "there is room for the output, and it is not made";
            EXPECT_TRUE(before.whole.empty() && before.parts == 0);
            return true;
        }
        EXPECT_GE(3u, before.parts) << "of the four of one record";
        if (!hasEntry) {
            EXPECT_TRUE(isStruckEarly);
            EXPECT_TRUE(before.whole.empty() && before.parts == 0);
        } else if (failure.count == 1) {
            EXPECT_TRUE(IsSomeOf(before.whole)) << Shown(before.whole);
            EXPECT_LE(std::size(TEXTS) - 1, before.whole.size()) << Shown(before.whole);
        } else {
            EXPECT_TRUE(AreTheFirstOf(before.whole)) << Shown(before.whole);
        }
        // Memory is for the outputs, and what is remembered of the configuration and the ring: no record of the file needs it.
        if (isMemory) {
            EXPECT_EQ(std::size(TEXTS), before.whole.size()) << Shown(before.whole);
        }
        if (!m_viewed.empty()) {
            const std::vector<std::wstring> seen = RingTexts();
            EXPECT_TRUE(IsSomeOf(seen)) << Shown(seen);
            EXPECT_TRUE(m_hasLive || (isMemory && isStruckEarly)) << "there is room for the output, and it is not made";
            if (!m_hasLive) {
                EXPECT_TRUE(seen.empty()) << Shown(seen);
            } else if (failure.count == 1) {
                EXPECT_LE(std::size(TEXTS) - 1, seen.size()) << Shown(seen);
            } else {
                EXPECT_TRUE(AreTheFirstOf(seen)) << Shown(seen);
            }
        }
        if (!hasEntry) {
            Say(L"nowhere"); // makes the block
            SetProcessPath(m_path);
        }
        Say(NEXT);
        if (!m_viewed.empty()) {
            const std::vector<std::wstring> texts = RingTexts();
            EXPECT_EQ(m_hasLive, !texts.empty() && texts.back() == NEXT) << Shown(texts);
        }
        const Contents behind = TakeApart(m_path);
        EXPECT_EQ(before.whole.size() + 1, behind.whole.size());
        EXPECT_TRUE(!behind.whole.empty() && behind.whole.back() == NEXT) << Shown(behind.whole);
        EXPECT_EQ(before.parts, behind.parts);
        return hasEntry;
    }
    static std::string Shown(const std::vector<std::wstring>& lines)
    {
        std::string text;
        for (const std::wstring& line : lines)
            text += "  " + Narrow(line) + "\n";
        return text;
    }

    const std::wstring m_path = ProgramFolder() + L"\\Logs\\" + ProgramName() + L".Log";
    std::wstring m_viewed;   // the executable's name in upper case, where there is a viewer
    std::int64_t m_seen = 0; // which record of the ring the viewer has not seen yet
    std::optional<CDBGLog> m_log;
    bool m_hasFile = false;
    bool m_hasLive = false;
};

TEST_F(LogCallSweep, ACallThatFailsOnceCostsNoRecordButItsOwn)
{
    for (const DWORD error : ERRORS) {
        // The block's mutex is made and waited for, the block is made, mapped and looked at; and both have a descriptor.
        EXPECT_GE(9u, Sweep({L"*", error, 1}, 60)) << "failures that leave no entry";
    }
}

TEST_F(LogCallSweep, CallsThatFailFromThenOnCostTheRecordsFromThereAndNoneBehindTheirEnd)
{
    for (const DWORD error : ERRORS)
        Sweep({L"*", error, 0}, 60);
}

TEST_F(LogCallSweep, AViewerThatLooksOnChangesNothing)
{
    std::wstring executable = ProgramName();
    CharUpperBuffW(executable.data(), static_cast<DWORD>(executable.size()));
    m_viewed = executable;
    const LiveViewer viewer(executable);
    const ViewerBreakpoints breakpoints;
    Sweep({L"*", ERROR_ACCESS_DENIED, 1}, 90);
    Sweep({L"*", ERROR_ACCESS_DENIED, 0}, 90);
}

// From then on only on the double: under Wine a test that gets no memory at all does not come back.
TEST_F(LogCallSweep, AnAllocationThatFailsCostsNoRecord)
{
    std::wstring executable = ProgramName();
    CharUpperBuffW(executable.data(), static_cast<DWORD>(executable.size()));
    m_viewed = executable;
    const LiveViewer viewer(executable);
    const ViewerBreakpoints breakpoints;
    Sweep({ALLOCATION, ERROR_NOT_ENOUGH_MEMORY, 1}, 3);
    if (ON_DOUBLE)
        Sweep({ALLOCATION, ERROR_NOT_ENOUGH_MEMORY, 0}, 3);
}

TEST_F(LogCallSweep, AnAllocationThatFailsWithoutAViewerCostsNoRecordEither)
{
    Sweep({ALLOCATION, ERROR_NOT_ENOUGH_MEMORY, 1}, 2);
    if (ON_DOUBLE)
        Sweep({ALLOCATION, ERROR_NOT_ENOUGH_MEMORY, 0}, 2);
}

// Another process that logs through the shipped library, and dies.
class LogDeathSweep : public LogFileTest {
protected:
    static constexpr DWORD RECORDS = 3;
    // Each call is two processes; under Wine these take long.
    static constexpr DWORD STEP = ON_DOUBLE ? 1 : 16;

    DWORD RunChild(unsigned number, const std::wstring& calls) const
    {
        ChildProcess child(
            L"log_child",
            {m_path, WideNumber(number), L"1", WideNumber(RECORDS), m_readyName, m_startName, m_machine.directory()},
            calls);
        return child.Join();
    }
    static std::wstring MutexName(std::wstring path)
    {
        for (wchar_t& character : path) {
            if (character == L'\\')
                character = L'/';
            else if (character >= L'A' && character <= L'Z')
                character = static_cast<wchar_t>(character - L'A' + L'a');
        }
        return L"Global\\" + path;
    }
    // The number of the whole record at the end of a line, as log_child makes it; 0 when there is none. rest: what stands
    // before it.
    static std::uint32_t NumberAtTheEnd(std::wstring_view line, std::wstring_view& rest)
    {
        static constexpr std::wstring_view BEGINNING = L"[0000/00/00 00:00:00:000   00   ";
        static constexpr std::wstring_view BEFORE = L"   0X00000057] VTFltPrepareForSnapshot: Handle 0X";
        static constexpr std::wstring_view BEHIND = L" not found. Please provide valid volume handle.   "
                                                    L"{log_child.exe::VTFltMgr.dll(";
        const std::size_t begin = line.rfind(BEGINNING);
        const std::size_t before = line.rfind(BEFORE);
        const std::size_t behind = line.rfind(BEHIND);
        rest = line;
        if (begin == std::wstring_view::npos || before == std::wstring_view::npos || before < begin ||
            behind == std::wstring_view::npos || behind < before + BEFORE.size() || !line.ends_with(L")}"))
            return 0;
        std::uint32_t number = 0;
        for (const wchar_t digit : line.substr(before + BEFORE.size(), behind - before - BEFORE.size())) {
            const std::size_t value = std::wstring_view(L"0123456789abcdef").find(digit);
            if (value == std::wstring_view::npos)
                return 0;
            number = number << 4 | static_cast<std::uint32_t>(value);
        }
        rest = line.substr(0, begin);
        return number;
    }
    // All records of the file are whole and in order, those of process 1 and then all of process 2, but for one of
    // process 1 that it died in. Gives the number of those of process 1.
    std::size_t CountWholeRecords() const
    {
        std::vector<std::uint32_t> numbers;
        std::size_t torn = 0;
        bool isSummary = true;
        for (const std::wstring& line : Lines(MaskTimes(WideFileText(m_path)))) {
            std::wstring_view rest;
            const std::uint32_t number = NumberAtTheEnd(line, rest);
            if (number == 0 && isSummary)
                continue;
            isSummary = false;
            EXPECT_NE(0u, number) << Narrow(line);
            torn += rest.empty() ? 0u : 1u;
            EXPECT_TRUE(rest.empty() || number == (2u << 24 | 1u << 16 | 1)) << Narrow(line);
            numbers.push_back(number);
        }
        EXPECT_LE(RECORDS, numbers.size());
        if (numbers.size() < RECORDS)
            return 0;
        const std::size_t first = numbers.size() - RECORDS;
        EXPECT_GE(RECORDS, first);
        for (std::size_t i = 0; i < numbers.size(); ++i) {
            const std::size_t record = i < first ? i : i - first;
            EXPECT_EQ((i < first ? 1u : 2u) << 24 | 1u << 16 | static_cast<std::uint32_t>(record + 1), numbers[i]);
        }
        EXPECT_GE(1u, torn);
        return first;
    }

    std::wstring m_path = m_folder.File(L"shared.log");
    std::wstring m_readyName = UniqueName(L"VTFltMgr.LogChild");
    std::wstring m_startName = UniqueName(L"VTFltMgr.LogStart");
    // Kept open: the mutex would go with the one process that has it, and the next one would make another.
    UniqueHandle m_mutex{CreateMutexW(nullptr, FALSE, MutexName(m_path).c_str())};
    UniqueHandle m_ready = NamedEvent(m_readyName);
    UniqueHandle m_start = NamedEvent(m_startName);

    void TearDown() override
    {
        m_mutex.reset();
        m_ready.reset();
        m_start.reset();
        LogFileTest::TearDown();
    }
};

TEST_F(LogDeathSweep, AfterOneThatDiesAtAnyCallAllButItsLastRecordAreWholeAndTheNextOneLogs)
{
    SetEvent(m_start.get());
    for (const wchar_t* way : {L"kill-before|*||", L"kill-after|*||"}) {
        DWORD nth = 1;
        std::size_t whole = 0; // that were there so far
        for (; nth <= MOST_CALLS && !HasFailure(); nth += STEP) {
            SCOPED_TRACE(Narrow(way) + std::to_string(nth));
            DeleteFileW(m_path.c_str());
            const DWORD code = RunChild(1, way + WideNumber(nth));
            if (code == 0)
                break; // it made fewer calls
            ASSERT_EQ(VTFLTSIM_KILLED, code);
            ASSERT_EQ(0u, RunChild(2, {}));
            const std::size_t now = CountWholeRecords();
            EXPECT_GE(now, whole) << "who dies later leaves no less";
            whole = now;
        }
        EXPECT_GT(nth, 60u);
        EXPECT_LT(nth, MOST_CALLS);
        if (STEP == 1) {
            EXPECT_EQ(RECORDS, whole) << "who dies behind its last call has logged all";
        }
    }
}

} // namespace
