// vtlog show: files, successors, merging, filters, output.
#include "tools/vtlog_test.h"

#include <algorithm>

namespace vtlog_test {
namespace {

class VtLogShow : public VtLogTest {
protected:
    // The messages of the records that a run shows, in order.
    static std::vector<std::string> Messages(std::vector<std::wstring> arguments)
    {
        arguments.insert(arguments.begin(), {L"show", L"--json"});
        std::vector<std::string> messages;
        for (const nlohmann::json& object : Run(arguments).Json()) {
            if (object.value("kind", "") == "record")
                messages.push_back(object.value("message", ""));
        }
        return messages;
    }
    // Three records of different level, code, process and time.
    std::wstring Sample() const
    {
        return WriteWide(L"a.Log", Record(L"2026/11/21 10:00:00:000", 0, 5, L"first Error", 1, 11) +
                                       Record(L"2026/11/21 10:00:30:000", 1, 0x10001, L"second", 2, 12) +
                                       Record(L"2026/11/21 10:01:00:000", 4, 0, L"third", 3, 13));
    }
    using Strings = std::vector<std::string>;
};

TEST_F(VtLogShow, ARecordIsALineWithTheMeaningOfItsCode)
{
    const Result result = Run({L"show", Sample()});
    EXPECT_EQ(EXIT_OK, result.exitCode);
    EXPECT_EQ("", result.err);
    const Strings lines = result.Lines();
    ASSERT_EQ(3u, lines.size());
    EXPECT_EQ(0u, lines[0].find("2026/11/21 10:00:00.000 error           1    11  first Error  (0x00000005 "
                                "ERROR_ACCESS_DENIED: "))
        << lines[0];
    EXPECT_EQ("2026/11/21 10:00:30.000 warning         2    12  second  (0x00010001 BM_ERR_VERIFY_REQUIRED: the next "
              "backup must verify)  {a.exe::b.dll(0.1)}",
              lines[1]);
    EXPECT_EQ("2026/11/21 10:01:00.000 detail          3    13  third  {a.exe::b.dll(0.1)}", lines[2]);
}

TEST_F(VtLogShow, APipeGetsNoColour)
{
    EXPECT_EQ(std::string::npos, Run({L"show", Sample()}).out.find('\x1b'));
}

TEST_F(VtLogShow, JsonHoldsEveryField)
{
    const auto objects = Run({L"show", L"--json", Sample()}).Json();
    ASSERT_EQ(3u, objects.size());
    const nlohmann::json& object = objects[1];
    EXPECT_EQ("record", object.at("kind"));
    EXPECT_EQ(Utf8(Path(L"a.Log")), object.at("file"));
    EXPECT_EQ("2026-11-21T10:00:30.000", object.at("time"));
    EXPECT_EQ(1, object.at("level"));
    EXPECT_EQ("warning", object.at("levelName"));
    EXPECT_EQ(2, object.at("pid"));
    EXPECT_EQ(12, object.at("tid"));
    EXPECT_EQ(0x10001, object.at("code"));
    EXPECT_EQ("BM_ERR_VERIFY_REQUIRED", object.at("codeName"));
    EXPECT_EQ("the next backup must verify", object.at("codeText"));
    EXPECT_EQ("second", object.at("message"));
    EXPECT_EQ("a.exe", object.at("program"));
    EXPECT_EQ("b.dll", object.at("module"));
    EXPECT_EQ("0.1", object.at("version"));
    EXPECT_EQ(false, object.at("cut"));
    EXPECT_EQ(2u, objects[0].at("offset"));
}

TEST_F(VtLogShow, PlainGivesTheRecordsAsTheFileHasThemInUtf8)
{
    const std::wstring record = Record(L"2026/11/21 10:00:00:000", 0, 5, L"\x00E9\x4E2D one\r\ntwo");
    EXPECT_EQ(Utf8(record.substr(0, record.size() - 2)) + "\n",
              Run({L"show", L"--plain", WriteWide(L"a.Log", record)}).out);
}

TEST_F(VtLogShow, NothingOfAFileIsLeftOut)
{
    const std::wstring file = WriteWide(
        L"a.Log", SummaryBlock(L"2026/11/21 10:00:00:000") + Record(L"2026/11/21 10:00:01:000", 0, 0, L"one\r\ntwo") +
                      L"stray \x1b[31m line\r\n" + L"[2026/11/21 10:00:02:000   00   00001   00002             ] cut");
    const Result result = Run({L"show", file});
    EXPECT_EQ(EXIT_OK, result.exitCode);
    const Strings lines = result.Lines();
    ASSERT_EQ(11u, lines.size());
    EXPECT_EQ("    | [   Date        Time      Level  PID     TID   ErrCode    ] .......", lines[0]);
    EXPECT_EQ("2026/11/21 10:00:00.000 summary       100   200  ================ SUMMARY LOG =======================",
              lines[1]);
    EXPECT_EQ("2026/11/21 10:00:01.000 error         100   200  one", lines[7]);
    EXPECT_EQ("    | two  {a.exe::b.dll(0.1)}", lines[8]);
    EXPECT_EQ("    | stray \\x1b[31m line", lines[9]);
    EXPECT_EQ("2026/11/21 10:00:02.000 error           1     2  cut  [cut: the record has no end]", lines[10]);
}

TEST_F(VtLogShow, ANarrowFileIsReadInItsCodePage)
{
    const std::string record =
        "[2026/11/21 10:00:00:000   00   00001   00002             ] \xE9   {a.exe::b.dll(0.1)}\r\n";
    const std::wstring file = WriteBytes(L"a.Log", record);
    EXPECT_EQ(Strings{"\xC3\xA9"}, Messages({file, L"--code-page", L"1252"}));
    EXPECT_EQ(Strings{"\xD0\xB9"}, Messages({file, L"--code-page", L"1251"}));
}

TEST_F(VtLogShow, AFileInUtf8WithItsMarkIsReadAsSuch)
{
    EXPECT_EQ(Strings{"\xC3\xA9"},
              Messages({WriteBytes(L"a.Log", "\xEF\xBB\xBF[2026/11/21 10:00:00:000   00   00001   00002             ] "
                                             "\xC3\xA9   {a.exe::b.dll(0.1)}\r\n")}));
}

TEST_F(VtLogShow, SuccessorsAreReadBehindTheirLogInTheOrderOfTheirNumbers)
{
    WriteWide(L"X.dll.00000010.log", Record(L"2026/11/21 10:00:03:000", 0, 0, L"4"));
    WriteWide(L"X.dll.00000002.log", Record(L"2026/11/21 10:00:02:000", 0, 0, L"3"));
    WriteWide(L"X.dll.00000001.log", Record(L"2026/11/21 10:00:01:000", 0, 0, L"2"));
    WriteWide(L"X.dll.0000001.log", Record(L"2026/11/21 10:00:01:000", 0, 0, L"seven digits"));
    WriteWide(L"XX.dll.00000001.log", Record(L"2026/11/21 10:00:01:000", 0, 0, L"another log"));
    const std::wstring file = WriteWide(L"X.dll.Log", Record(L"2026/11/21 10:00:00:000", 0, 0, L"1"));
    EXPECT_EQ((Strings{"1", "2", "3", "4"}), Messages({file}));
    EXPECT_EQ((Strings{"1"}), Messages({file, L"--only"}));
    EXPECT_EQ((Strings{"3", "4"}), Messages({Path(L"X.dll.00000002.log")}));
    // The gap is said.
    EXPECT_NE(std::string::npos, Run({L"show", file}).err.find("X.dll.00000010.log files are missing"));
}

TEST_F(VtLogShow, ALogThatWasBegunAnewIsReadBehindItsOlderSuccessors)
{
    const std::wstring file = WriteWide(L"X.dll.Log", SummaryBlock(L"2026/11/21 12:00:00:000") +
                                                          Record(L"2026/11/21 12:00:00:000", 0, 0, L"3"));
    WriteWide(L"X.dll.00000001.log", Record(L"2026/11/21 10:00:00:000", 0, 0, L"1"));
    WriteWide(L"X.dll.00000002.log", Record(L"2026/11/21 11:00:00:000", 0, 0, L"2"));
    EXPECT_EQ((Strings{"1", "2", "3"}), Messages({file}));
    EXPECT_NE(std::string::npos, Run({L"show", file}).err.find("are read by their times"));
}

TEST_F(VtLogShow, AFileNamedTwiceOrByItsLogTooIsReadOnce)
{
    const std::wstring file = WriteWide(L"X.dll.Log", Record(L"2026/11/21 10:00:00:000", 0, 0, L"1"));
    const std::wstring next = WriteWide(L"X.dll.00000001.log", Record(L"2026/11/21 10:00:01:000", 0, 0, L"2"));
    EXPECT_EQ((Strings{"1", "2"}), Messages({next, file, file, folder + L"\\.\\x.DLL.log"}));
}

TEST_F(VtLogShow, SeveralLogsAreMergedByTimeAndEqualTimesStayInTheOrderOfTheCommandLine)
{
    const std::wstring a = WriteWide(L"a.Log", Record(L"2026/11/21 10:00:00:000", 0, 0, L"a1") +
                                                   Record(L"2026/11/21 10:00:02:000", 0, 0, L"a2") +
                                                   Record(L"2026/11/21 10:00:02:000", 0, 0, L"a3"));
    const std::wstring b = WriteWide(L"b.Log", Record(L"2026/11/21 10:00:01:000", 0, 0, L"b1") +
                                                   Record(L"2026/11/21 10:00:02:000", 0, 0, L"b2") +
                                                   Record(L"2026/11/21 10:00:03:000", 0, 0, L"b3"));
    EXPECT_EQ((Strings{"a1", "b1", "a2", "a3", "b2", "b3"}), Messages({a, b}));
    EXPECT_EQ((Strings{"a1", "b1", "b2", "a2", "a3", "b3"}), Messages({b, a}));
}

TEST_F(VtLogShow, AClockThatWentBackDoesNotReorderAFile)
{
    const std::wstring a = WriteWide(L"a.Log", Record(L"2026/11/21 10:00:05:000", 0, 0, L"a1") +
                                                   Record(L"2026/11/21 09:00:00:000", 0, 0, L"a2"));
    const std::wstring b = WriteWide(L"b.Log", Record(L"2026/11/21 10:00:04:000", 0, 0, L"b1"));
    EXPECT_EQ((Strings{"b1", "a1", "a2"}), Messages({a, b}));
}

TEST_F(VtLogShow, WhatHasNoTimeStaysWithItsRecordWhenLogsAreMerged)
{
    const std::wstring a = WriteWide(L"a.Log", Record(L"2026/11/21 10:00:00:000", 0, 0, L"a1") + L"of a1\r\n" +
                                                   Record(L"2026/11/21 10:00:02:000", 0, 0, L"a2"));
    const std::wstring b = WriteWide(L"b.Log", SummaryBlock(L"2026/11/21 10:00:01:000"));
    const auto objects = Run({L"show", L"--json", a, b}).Json();
    ASSERT_EQ(10u, objects.size());
    EXPECT_EQ("of a1", objects[1].at("message"));
    EXPECT_EQ("columns", objects[2].at("kind"));
    EXPECT_EQ("a2", objects[9].at("message"));
}

TEST_F(VtLogShow, FiltersChooseByLevelProcessThreadAndCode)
{
    const std::wstring file = Sample();
    EXPECT_EQ((Strings{"first Error", "second"}), Messages({file, L"--level", L"warning"}));
    EXPECT_EQ((Strings{"first Error"}), Messages({file, L"--level", L"0"}));
    EXPECT_EQ((Strings{"second", "third"}), Messages({file, L"--pid", L"2", L"--pid", L"3"}));
    EXPECT_EQ((Strings{"third"}), Messages({file, L"--tid", L"13"}));
    EXPECT_EQ((Strings{"third"}), Messages({file, L"--tid", L"00013"})); // as the log writes it
    EXPECT_EQ((Strings{"second"}), Messages({file, L"--code", L"0x10001"}));
    EXPECT_EQ((Strings{"second"}), Messages({file, L"--code", L"65537"}));
    EXPECT_EQ((Strings{"first Error"}), Messages({file, L"--code", L"error_access_denied"}));
    EXPECT_EQ((Strings{"third"}), Messages({file, L"--code", L"0"}));
}

TEST_F(VtLogShow, GrepLooksAtMessageAndNamesAndForAllTexts)
{
    const std::wstring file = Sample();
    EXPECT_EQ((Strings{"first Error"}), Messages({file, L"--grep", L"Error"}));
    EXPECT_EQ((Strings{}), Messages({file, L"--grep", L"error"}));
    EXPECT_EQ((Strings{"first Error"}), Messages({file, L"--grep", L"ERROR", L"--ignore-case"}));
    EXPECT_EQ((Strings{}), Messages({file, L"--grep", L"Error", L"--grep", L"second"}));
    EXPECT_EQ(3u, Messages({file, L"--grep", L"a.exe"}).size());
    EXPECT_EQ((Strings{}), Messages({file, L"--grep", L"[second]"}));
    // One text, and not all words up to the next option.
    EXPECT_EQ((Strings{"second"}), Messages({L"--grep", L"second", file}));
}

TEST_F(VtLogShow, SinceAndUntilIncludeTheTimesThatTheyName)
{
    const std::wstring file = Sample();
    EXPECT_EQ((Strings{"second", "third"}), Messages({file, L"--since", L"2026/11/21 10:00:30"}));
    EXPECT_EQ((Strings{"first Error", "second"}), Messages({file, L"--until", L"2026-11-21T10:00"}));
    EXPECT_EQ((Strings{"first Error", "second"}), Messages({file, L"--until", L"2026/11/21 10:00:30:000"}));
    EXPECT_EQ((Strings{"second"}),
              Messages({file, L"--since", L"2026/11/21 10:00:01", L"--until", L"2026/11/21 10:00:59"}));
}

TEST_F(VtLogShow, LinesThatAreNoRecordsAreCountedWhenAFilterLeavesThemOut)
{
    const std::wstring file = WriteWide(L"a.Log", SummaryBlock(L"2026/11/21 10:00:00:000") +
                                                      Record(L"2026/11/21 10:00:01:000", 0, 0, L"one"));
    const Result result = Run({L"show", L"--level", L"0", file});
    EXPECT_EQ(1u, result.Lines().size());
    EXPECT_NE(std::string::npos, result.err.find("7 lines that are no record left out")) << result.err;
}

TEST_F(VtLogShow, WrongValuesOfOptionsAreUsageErrors)
{
    const std::wstring file = Sample();
    for (const wchar_t* option : {L"--level", L"--since", L"--until", L"--code", L"--pid"}) {
        const Result result = Run({L"show", file, option, L"nonsense"});
        EXPECT_EQ(EXIT_USAGE, result.exitCode) << Utf8(option);
        EXPECT_NE("", result.err);
        EXPECT_EQ("", result.out);
    }
    // A variable of a script that is not set.
    for (const wchar_t* option : {L"--level", L"--since", L"--until", L"--code", L"--pid", L"--grep", L"--why"}) {
        EXPECT_EQ(EXIT_USAGE, Run({L"show", file, option, L""}).exitCode) << Utf8(option);
        EXPECT_EQ(EXIT_USAGE, Run({L"show", std::wstring(option) + L"=", file}).exitCode) << Utf8(option);
    }
}

TEST_F(VtLogShow, AMissingFileIsSaidAndTheOthersAreRead)
{
    const Result result = Run({L"show", Path(L"none.Log"), Sample()});
    EXPECT_EQ(EXIT_NOT_FOUND, result.exitCode);
    EXPECT_EQ(3u, result.Lines().size());
    EXPECT_NE(std::string::npos, result.err.find("none.Log"));
}

TEST_F(VtLogShow, AFolderIsSaidToBeOne)
{
    const Result result = Run({L"show", folder});
    EXPECT_EQ(EXIT_UNREADABLE, result.exitCode);
    EXPECT_NE(std::string::npos, result.err.find("is a folder"));
}

TEST_F(VtLogShow, AFileThatAnotherProgramKeepsToItselfIsUnreadable)
{
    const std::wstring file = Sample();
    const vtflt::UniqueHandle alone(
        CreateFileW(file.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    ASSERT_TRUE(alone.valid());
    const Result result = Run({L"show", file});
    EXPECT_EQ(EXIT_UNREADABLE, result.exitCode);
    EXPECT_NE(std::string::npos, result.err.find("cannot open"));
}

TEST_F(VtLogShow, AFileThatIsNoLogIsShownAndSaidToBeNone)
{
    const Result result = Run({L"show", WriteBytes(L"notes.txt", "one\r\ntwo\r\n")});
    EXPECT_EQ(EXIT_NO_LOG, result.exitCode);
    EXPECT_EQ("    | one\n    | two\n", result.out);
    EXPECT_NE(std::string::npos, result.err.find("no record found"));
}

TEST_F(VtLogShow, AnEmptyFileIsNoLog)
{
    EXPECT_EQ(EXIT_NO_LOG, Run({L"show", WriteBytes(L"a.Log", "")}).exitCode);
}

TEST_F(VtLogShow, AFileThatIsBeingWrittenIsReadUpToItsEnd)
{
    const std::wstring file = Sample();
    const vtflt::UniqueHandle writer(CreateFileW(file.c_str(), GENERIC_READ | GENERIC_WRITE,
                                                 FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                                 FILE_ATTRIBUTE_NORMAL, nullptr));
    ASSERT_TRUE(writer.valid());
    SetFilePointer(writer.get(), 0, nullptr, FILE_END);
    const std::wstring half = L"[2026/11/21 10:02:00:000   00   00001   00002             ] half";
    DWORD written = 0;
    ASSERT_TRUE(WriteFile(writer.get(), half.data(), static_cast<DWORD>(half.size() * 2), &written, nullptr));
    EXPECT_EQ((Strings{"first Error", "second", "third", "half"}), Messages({file}));
}

TEST_F(VtLogShow, LoneSurrogatesComeOutAsReplacementCharacters)
{
    EXPECT_EQ((Strings{"a\xEF\xBF\xBD"
                       "b"}),
              Messages({WriteWide(L"a.Log", Record(L"2026/11/21 10:00:00:000", 0, 0,
                                                   L"a\xD800"
                                                   L"b"))}));
}

} // namespace
} // namespace vtlog_test
