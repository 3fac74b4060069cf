// What stands in a log file: a fresh one to the byte, and every form of a record, wide and narrow.
#include "log_file_test.h"
#include "vtfltsim/VTFltSimTrace.h"

#include <cstring>

using namespace vtflt;
using namespace vttest;

namespace {

class FileOutput : public LogFileTest {
protected:
    std::string NarrowBytes(const std::wstring& path)
    {
        const std::vector<std::uint8_t> bytes = FileBytes(path);
        return std::string(bytes.begin(), bytes.end());
    }
    // A narrow text as wide, so that times can be masked in it.
    static std::wstring Widened(const std::string& text) { return std::wstring(text.begin(), text.end()); }

    std::wstring m_path = File(L"test.log");
};

// The system's own answers for the fifth line.
std::wstring SystemLine()
{
    wchar_t name[128] = {};
    DWORD length = 128;
    EXPECT_TRUE(GetComputerNameW(name, &length));
    OSVERSIONINFOEXW version = {};
    version.dwOSVersionInfoSize = sizeof(version);
    EXPECT_TRUE(GetVersionExW(reinterpret_cast<OSVERSIONINFOW*>(&version)));
    return L"OS      Info: Computer Name[" + std::wstring(name) + L"] Version[" + WideNumber(version.dwMajorVersion) +
           L"." + WideNumber(version.dwMinorVersion) + L"] Platform[X64]";
}

std::wstring FreshFile(const std::wstring& product, const std::wstring& record, int threshold = 2)
{
    const std::wstring header = MaskedHeader(threshold);
    return L"[   Date        Time      Level  PID     TID   ErrCode    ] .......\r\n" + header +
           L"================ SUMMARY LOG =======================\r\n" + header + product + L"\r\n" + header +
           SystemLine() + L"\r\n" + header + L"Log level of each module can be controlled by registry key:\r\n" +
           header + L"[HKEY_LOCAL_MACHINE\\SOFTWARE\\Veltrix\\Lumen Protect\\Engine\\Debug\\ModuleName:DWORD]\r\n" +
           header + L"=====================================================\r\n" + record;
}

constexpr wchar_t NO_PRODUCT[] = L"Product Info: [Veltrix Software Inc] [veltrix Lumen Protect] Ver[r0.0]";

TEST_F(FileOutput, ANewFileGetsTheMarkTheSummaryBlockAndTheRecord)
{
    Start(m_path);
    Write(L"a message");
    const std::vector<std::uint8_t> bytes = FileBytes(m_path);
    ASSERT_LE(2u, bytes.size());
    EXPECT_EQ(0xFF, bytes[0]);
    EXPECT_EQ(0xFE, bytes[1]);
    const std::wstring expected = FreshFile(NO_PRODUCT, MaskedHeader(2) + L"a message" + Tail() + L"\r\n");
    EXPECT_EQ(2 + expected.size() * 2, bytes.size());
    EXPECT_TRUE(MaskTimes(WideFileText(m_path)) == expected) << Narrow(WideFileText(m_path));
}

TEST_F(FileOutput, TheFileIsOpenedByTheFirstRecordThatPassesAndNotBefore)
{
    Start(m_path);
    Write(L"too detailed", 4);
    EXPECT_EQ(2u, m_output->GetLogLevel());
    EXPECT_FALSE(Exists(m_path));
    Write(L"passes", 2);
    EXPECT_TRUE(Exists(m_path));
}

TEST_F(FileOutput, AFurtherOutputAppendsWithoutAnotherSummaryBlock)
{
    Start(m_path);
    Write(L"first");
    m_output.reset();
    Start(m_path);
    Write(L"second");
    EXPECT_TRUE(Texts(m_path) == (std::vector<std::wstring>{L"first", L"second"}));
}

TEST_F(FileOutput, TheSummarysHeadersCarryTheThresholdAndNotTheRecordsLevel)
{
    MakeOutput();
    SetEntryPath(m_path);
    SetEntryLevel(4, 0);
    Write(L"an error", 0, 5);
    EXPECT_TRUE(MaskTimes(WideFileText(m_path)) ==
                FreshFile(NO_PRODUCT, MaskedHeader(0, 5) + L"an error" + Tail() + L"\r\n", 4));
}

TEST_F(FileOutput, ARecordWithAnErrorCodeShowsItAndOneWithoutHasThirteenBlanks)
{
    Start(m_path);
    Write(L"failed", 0, 5);
    Write(L"failed", 0, 0);
    Write(L"failed", 0, 0xFFFFFFFF);
    Write(L"warned", 1, 0x10001);
    const std::vector<std::wstring> records = Records(m_path);
    ASSERT_EQ(4u, records.size());
    EXPECT_TRUE(records[0] == MaskedHeader(0, 5) + L"failed" + Tail());
    EXPECT_NE(std::wstring::npos, records[0].find(L"   0X00000005] "));
    EXPECT_TRUE(records[1] == MaskedHeader(0) + L"failed" + Tail());
    EXPECT_NE(std::wstring::npos, records[1].find(L"             ] failed"));
    EXPECT_NE(std::wstring::npos, records[2].find(L"   0Xffffffff] "));
    EXPECT_NE(std::wstring::npos, records[3].find(L"   01   "));
    EXPECT_NE(std::wstring::npos, records[3].find(L"   0X00010001] "));
}

TEST_F(FileOutput, TheTailHasTheThirdAndFourthNumberOfTheModulesVersion)
{
    Start(m_path);
    const Elsewhere module(VersionedProgram());
    Write(L"wide");
    EXPECT_TRUE(Records(m_path) == std::vector<std::wstring>{MaskedHeader(2) + L"wide" + Tail(L"2.773")});
    const std::wstring narrow = File(L"narrow.log");
    MakeFile(narrow, "...");
    SetEntryPath(narrow);
    Write(L"narrow");
    EXPECT_TRUE(MaskTimes(Widened(NarrowBytes(narrow))) ==
                L"..." + MaskedHeader(2) + L"narrow" + Tail(L"2.773") + L"\r\n");
}

TEST_F(FileOutput, AnEmptyMessageIsARecordToo)
{
    Start(m_path);
    Write(L"");
    EXPECT_TRUE(Records(m_path) == std::vector<std::wstring>{MaskedHeader(2) + Tail()});
}

TEST_F(FileOutput, ANarrowMessageInAWideFileIsConverted)
{
    Start(m_path);
    m_output->WriteLogA(0, 5, "narrow text");
    EXPECT_TRUE(Records(m_path) == std::vector<std::wstring>{MaskedHeader(0, 5) + L"narrow text" + Tail()});
}

TEST_F(FileOutput, ANarrowMessageOfMoreThan1024CharactersIsEmptyInAWideFile)
{
    Start(m_path);
    m_output->WriteLogA(2, 0, std::string(1024, 'n').c_str());
    m_output->WriteLogA(2, 0, std::string(1025, 'n').c_str());
    EXPECT_TRUE(Texts(m_path) == (std::vector<std::wstring>{std::wstring(1024, L'n'), L""}));
}

TEST_F(FileOutput, WithoutATextNothingIsWritten)
{
    Start(m_path);
    m_output->WriteLogW(0, 5, nullptr);
    m_output->WriteLogA(0, 5, nullptr);
    EXPECT_FALSE(Exists(m_path));
}

TEST_F(FileOutput, AnExistingFileWithoutTheMarkGetsNarrowRecords)
{
    MakeFile(m_path, "some other writer's first line\r\n");
    Start(m_path);
    Write(L"wide message", 0, 5);
    m_output->WriteLogA(2, 0, "narrow message");
    const std::wstring expected = L"some other writer's first line\r\n" + MaskedHeader(0, 5) + L"wide message" +
                                  Tail() + L"\r\n" + MaskedHeader(2) + L"narrow message" + Tail() + L"\r\n";
    EXPECT_TRUE(MaskTimes(Widened(NarrowBytes(m_path))) == expected) << NarrowBytes(m_path);
}

TEST_F(FileOutput, InANarrowFileAMessageIsInTheAnsiCodePage)
{
    MakeFile(m_path, "...");
    Start(m_path);
    const std::wstring text = L"gr\u00FC\u00DFe";
    char converted[64] = {};
    ASSERT_NE(0, WideCharToMultiByte(CP_ACP, 0, text.c_str(), -1, converted, sizeof(converted), nullptr, nullptr));
    Write(text);
    EXPECT_NE(std::string::npos, NarrowBytes(m_path).find("] " + std::string(converted) + "   {"));
}

TEST_F(FileOutput, InANarrowFileAMessageThatNeedsMoreThan1024BytesIsEmpty)
{
    MakeFile(m_path, "...");
    Start(m_path);
    Write(std::wstring(1024, L'w'));
    Write(std::wstring(1025, L'w'));
    const std::wstring expected =
        L"..." + MaskedHeader(2) + std::wstring(1024, L'w') + Tail() + L"\r\n" + MaskedHeader(2) + Tail() + L"\r\n";
    EXPECT_TRUE(MaskTimes(Widened(NarrowBytes(m_path))) == expected);
}

TEST_F(FileOutput, AFileOfThreeBytesWithTheMarkGetsNoSummaryBlock)
{
    MakeFile(m_path, "\xFF\xFEx");
    Start(m_path);
    Write(L"m");
    const std::vector<std::uint8_t> bytes = FileBytes(m_path);
    const std::size_t record = (MaskedHeader(2) + L"m" + Tail() + L"\r\n").size() * 2;
    ASSERT_EQ(3 + record, bytes.size());
    EXPECT_EQ('[', bytes[3]);
    EXPECT_EQ(0, bytes[4]);
}

TEST_F(FileOutput, AFileThatIsTheMarkAloneGetsTheSummaryBlock)
{
    MakeFile(m_path, "\xFF\xFE");
    Start(m_path);
    Write(L"m");
    EXPECT_TRUE(MaskTimes(WideFileText(m_path)) == FreshFile(NO_PRODUCT, MaskedHeader(2) + L"m" + Tail() + L"\r\n"));
}

TEST_F(FileOutput, TheMarkGoesOverTheOneOrTwoBytesOfATinyFile)
{
    for (const char* const bytes : {"a", "ab"}) {
        MakeFile(m_path, bytes);
        Start(m_path);
        Write(L"m");
        EXPECT_TRUE(MaskTimes(WideFileText(m_path)) == FreshFile(NO_PRODUCT, MaskedHeader(2) + L"m" + Tail() + L"\r\n"))
            << bytes;
        m_output.reset();
    }
}

TEST_F(FileOutput, TheMarkIsFlushedOnceAndTheRecordsAreNot)
{
    Start(m_path);
    VTFltSimResetCounts();
    Write(L"first");
    EXPECT_EQ(1u, VTFltSimGetCallCount(L"FlushFileBuffers"));
    Write(L"second");
    EXPECT_EQ(1u, VTFltSimGetCallCount(L"FlushFileBuffers"));
}

TEST_F(FileOutput, ARecordIsFourWritesBehindOneMoveToTheEnd)
{
    Start(m_path);
    Write(L"first");
    VTFltSimResetCounts();
    Write(L"second");
    EXPECT_EQ(4u, VTFltSimGetCallCount(L"WriteFile"));
    EXPECT_EQ(2u, VTFltSimGetCallCount(L"SetFilePointerEx")); // one to the mark, one to the end
    EXPECT_EQ(1u, VTFltSimGetCallCount(L"ReadFile"));
    EXPECT_EQ(0u, VTFltSimGetCallCount(L"CreateFileW"));
    EXPECT_EQ(0u, VTFltSimGetCallCount(L"CreateMutexW"));
}

TEST_F(FileOutput, TheFileStaysOpenAndOthersMayReadAndWriteIt)
{
    Start(m_path);
    Write(L"first");
    const UniqueHandle other(CreateFileW(m_path.c_str(), GENERIC_READ | GENERIC_WRITE,
                                         FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr));
    EXPECT_TRUE(other.valid());
    const UniqueHandle alone(CreateFileW(m_path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    EXPECT_FALSE(alone.valid());
    Write(L"second");
    EXPECT_TRUE(Texts(m_path) == (std::vector<std::wstring>{L"first", L"second"}));
}

// Anonymously: another program may have given the path, and who listens there must not act in this process's name.
TEST_F(FileOutput, TheFileIsOpenedOrMadeForASequentialScanAndAnonymously)
{
    Start(m_path);
    VTFltSimRecord(1);
    Write(L"m");
    VTFltSimRecord(0);
    std::vector<std::wstring> asked;
    wchar_t text[1024] = {};
    for (DWORD i = 0; VTFltSimGetTrace(i, text, 1024) == 0; ++i) {
        if (text != L"CreateFileW " + m_path)
            continue;
        EXPECT_EQ(0u, VTFltSimGetTraceArguments(i, text, 1024));
        asked.emplace_back(text);
    }
    ASSERT_EQ(1u, asked.size());
    static_assert(FILE_FLAG_SEQUENTIAL_SCAN == 0x08000000 &&
                  (SECURITY_SQOS_PRESENT | SECURITY_ANONYMOUS) == 0x00100000);
    EXPECT_EQ("access 0xC0000000|share 3|disposition 4|flags 0x08100000|security 1", Narrow(asked[0]));
}

TEST_F(FileOutput, TheDestructorClosesFileAndMutex)
{
    Start(m_path);
    Write(L"first");
    m_output.reset();
    const UniqueHandle alone(CreateFileW(m_path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    EXPECT_TRUE(alone.valid());
    EXPECT_EQ(0u, VTFltSimGetOpenCount(VTFLTSIM_OWNED_MUTEXES));
}

TEST_F(FileOutput, TheEnginesVersionStandsInTheProductLineOfItsModules)
{
    InstallEngineHere();
    const std::wstring key = std::wstring(ENGINE) + L"\\Version";
    SetText(key, L"Major", L"7");
    SetText(key, L"Minor", L"2");
    Start(m_path);
    Write(L"m");
    const std::wstring product = L"Product Info: [Veltrix Software Inc] [veltrix Lumen Protect] Ver[r7.2]";
    EXPECT_TRUE(MaskTimes(WideFileText(m_path)) == FreshFile(product, MaskedHeader(2) + L"m" + Tail() + L"\r\n"));
}

class ProductLine : public FileOutput {
protected:
    std::wstring Shown()
    {
        Start(m_path);
        Write(L"m");
        const std::vector<std::wstring> lines = Lines(MaskTimes(WideFileText(m_path)));
        m_output.reset();
        return lines.size() > 2 ? lines[2].substr(MaskedHeader(2).size()) : L"(no line)";
    }
    static std::wstring Line(const std::wstring& version)
    {
        return L"Product Info: [Veltrix Software Inc] [veltrix Lumen Protect] Ver[r" + version + L"]";
    }
    void SetConsole(const std::wstring& key, const std::wstring& version)
    {
        SetText(key + L"\\Console", L"Version", version);
    }
    void SetEngine(const std::wstring& major)
    {
        SetText(std::wstring(ENGINE) + L"\\Version", L"Major", major);
        SetText(std::wstring(ENGINE) + L"\\Version", L"UpdateVersionNumber", L"3");
    }
};

TEST_F(ProductLine, HasTheUpdateNumberWhereItIsNotZero)
{
    InstallEngineHere();
    SetEngine(L"7");
    EXPECT_TRUE(Shown() == Line(L"7.0 (Update 3)"));
}

TEST_F(ProductLine, OfAModuleOfNoComponentIsTheEngines)
{
    SetEngine(L"8");
    EXPECT_TRUE(Shown() == Line(L"8.0 (Update 3)"));
}

TEST_F(ProductLine, OfAModuleOfTheProductRootIsTheEngines)
{
    const Elsewhere module(InstallProductRoot());
    SetConsole(PRODUCT, L"6.5");
    SetEngine(L"8");
    EXPECT_TRUE(Shown() == Line(L"8.0 (Update 3)"));
}

TEST_F(ProductLine, OfAModuleOfTheProductRootWithoutAnEngineIsItsOwn)
{
    const Elsewhere module(InstallProductRoot());
    SetConsole(PRODUCT, L"6.5");
    SetConsole(MANAGEMENT, L"5.4"); // the Management is not taken for it
    EXPECT_TRUE(Shown() == Line(L"6.5"));
}

TEST_F(ProductLine, OfAModuleOfNoComponentIsNotTheManagementsWhereThatStandsAlone)
{
    SetConsole(MANAGEMENT, L"6.5");
    EXPECT_TRUE(Shown() == Line(L"0.0")); // of the executable, which has none
}

TEST_F(ProductLine, OfAModuleOfTheManagementIsItsOwn)
{
    InstallManagementHere();
    SetConsole(MANAGEMENT, L"6.5.12");
    SetEngine(L"8");
    EXPECT_TRUE(Shown() == Line(L"6.5"));
}

TEST_F(ProductLine, OnWinPEIsTheExecutablesAlthoughThereIsAnEngine)
{
    SetText(L"SYSTEM\\Setup", L"CmdLine", L"winpeshl.exe");
    SetEngine(L"8");
    EXPECT_TRUE(Shown() == Line(L"0.0"));
}

TEST_F(FileOutput, AnEmptyMessageIsARecordInANarrowFileAndANarrowOneInAWideFileToo)
{
    Start(m_path);
    m_output->WriteLogA(2, 0, "");
    EXPECT_TRUE(Records(m_path) == std::vector<std::wstring>{MaskedHeader(2) + Tail()});
    const std::wstring narrow = File(L"narrow.log");
    MakeFile(narrow, "...");
    SetEntryPath(narrow);
    Write(L"");
    const std::vector<std::uint8_t> bytes = FileBytes(narrow);
    const std::wstring text(bytes.begin(), bytes.end());
    EXPECT_TRUE(MaskTimes(text) == L"..." + MaskedHeader(2) + Tail() + L"\r\n") << Narrow(text);
}

} // namespace
