// vtbackup report: the page that the program makes of real repositories, whole, damaged and hostile.
#include "tools/vtbackup_forgery.h"
#include "tools/vtbackup_test.h"

#include "vtfltsim/VTFltSimForget.h"

using namespace vtbackup_test;

namespace {

using nlohmann::json;

constexpr DWORD EXIT_LOST = 12;

bool Contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

std::size_t CountOf(const std::string& text, const std::string& part)
{
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size()))
        ++count;
    return count;
}

// From one text to the next one behind it; empty when either is missing.
std::string Between(const std::string& text, const std::string& begin, const std::string& end)
{
    const std::size_t from = text.find(begin);
    const std::size_t to = from == std::string::npos ? from : text.find(end, from);
    return to == std::string::npos ? std::string() : text.substr(from, to - from);
}

std::string RowOf(const std::string& page, unsigned backup, unsigned chain = 1)
{
    return Between(page, "id=\"chain-" + std::to_string(chain) + "-backup-" + std::to_string(backup) + "\"", "</tr>");
}

std::string ColumnOf(const std::string& page, unsigned backup, unsigned chain = 1)
{
    return Between(page,
                   "<g class=\"column\" data-to=\"chain-" + std::to_string(chain) + "-backup-" +
                       std::to_string(backup) + "\"",
                   "</g>");
}

// The exact number behind a figure.
std::uint64_t Figure(const std::string& text, const std::string& name)
{
    const std::string begin = "<data class=\"" + name + "\" value=\"";
    const std::string value = Between(text, begin, "\" title");
    if (value.empty()) {
        ADD_FAILURE() << "no figure " << name << " in " << text;
        return 0;
    }
    return std::stoull(value.substr(begin.size()));
}

class VtBackupHtml : public VtBackupTest {
protected:
    VtBackupHtml() : file(repository + L".html") { DeleteFileW(file.c_str()); }
    ~VtBackupHtml() override { DeleteFileW(file.c_str()); }

    void SetUp() override { ASSERT_EQ(EXIT_OK, Init().exitCode); }

    void MakeBackup(const wchar_t* option = nullptr) const
    {
        std::vector<std::wstring> arguments = Arguments(L"backup", L"App", &volume);
        if (option != nullptr)
            arguments.emplace_back(option);
        const Result result = Run(arguments);
        ASSERT_EQ(EXIT_OK, result.exitCode) << result.err;
    }

    [[nodiscard]] std::vector<std::wstring> ReportArguments(const std::wstring& to) const
    {
        return {L"report", L"--repo", repository, L"--html", to};
    }

    // The page, which replaces an earlier one.
    std::string Page(DWORD expected = EXIT_OK) const
    {
        std::vector<std::wstring> arguments = ReportArguments(file);
        arguments.emplace_back(L"--overwrite");
        const Result result = Run(arguments);
        EXPECT_EQ(expected, result.exitCode) << result.err;
        const std::vector<std::uint8_t> bytes = ReadFileBytes(file);
        return {bytes.begin(), bytes.end()};
    }

    [[nodiscard]] json Manifest(std::uint64_t sequence) const
    {
        const std::vector<std::uint8_t> bytes = ReadFileBytes(BackupFile(sequence, L"manifest.json"));
        return json::parse(bytes.begin(), bytes.end()).at("manifest");
    }

    // The folder of the only chain.
    [[nodiscard]] std::wstring ChainFile(const wchar_t* name) const
    {
        std::wstring path = BackupFile(1, L"");
        path.resize(path.rfind(L"00000001"));
        return path + name;
    }

    std::wstring file;
};

TEST_F(VtBackupHtml, EveryBackupStandsThereWithItsKindAndItsReasons)
{
    MakeBackup();
    Write(20, 0x99);
    MakeBackup();
    vtfltsim::Check("lose", VTFltSimLoseTracking(machine.handle(), volume.guid.c_str()));
    MakeBackup();
    MakeBackup(L"--full");
    MakeBackup(L"--verify");
    const std::string page = Page();
    const struct {
        const char* kind;
        const char* reason;
    } expected[] = {{"full", "first-backup"},
                    {"incremental", nullptr},
                    {"verify", "verify-required"},
                    {"full", "full-requested"},
                    {"verify", "verify-requested"}};
    unsigned sequence = 0;
    for (const auto& backup : expected) {
        const std::string row = RowOf(page, ++sequence);
        EXPECT_TRUE(Contains(row, std::string("</svg> ") + backup.kind + "</td>")) << row;
        EXPECT_TRUE(Contains(row, "<time>" + Manifest(sequence).at("time").get<std::string>() + "</time>")) << row;
        EXPECT_EQ(backup.reason == nullptr ? 0u : 1u, CountOf(row, "<code>")) << row;
        if (backup.reason != nullptr) {
            EXPECT_TRUE(Contains(row, std::string("<code>") + backup.reason + "</code>")) << row;
        }
        // In the timeline and in the picture it has the mark of its kind.
        const std::string mark = std::string("<use class=\"mark ") + backup.kind + "\"";
        EXPECT_TRUE(Contains(ColumnOf(page, sequence), mark)) << sequence;
        EXPECT_TRUE(Contains(page, mark + " data-to=\"chain-1-backup-" + std::to_string(sequence) + "\"")) << sequence;
    }
    EXPECT_TRUE(Contains(page, "data-chains=\"1\" data-backups=\"5\" data-problems=\"0\""));
    EXPECT_TRUE(Contains(page, "2 full, 2 verify, 1 incremental"));
}

TEST_F(VtBackupHtml, SavedIsWhatAFullBackupWouldStoreLessWhatIsStored)
{
    MakeBackup();
    Write(20, 0x99);                                                              // other contents
    Write(21, 0);                                                                 // becomes zero
    Write(100, 0x98);                                                             // was zero
    machine.Write(volume, 256ull * BLOCK, std::vector<std::uint8_t>(1000, 0xCC)); // the last, shorter block
    MakeBackup();
    MakeBackup(L"--full"); // of the same contents: what the backup before is compared with
    Write(22, 0x97);
    MakeBackup();
    const std::string page = Page();
    std::uint64_t stored = 0;
    std::uint64_t saved = 0;
    for (unsigned sequence = 1; sequence <= 4; ++sequence) {
        const std::string row = RowOf(page, sequence);
        const auto length = Manifest(sequence).at("dataLength").get<std::uint64_t>();
        EXPECT_EQ(length, Figure(row, "stored"));
        EXPECT_EQ(Figure(row, "full") - length, Figure(row, "saved"));
        stored += length;
        saved += Figure(row, "saved");
    }
    const auto full = Manifest(3).at("dataLength").get<std::uint64_t>();
    EXPECT_EQ(50u * BLOCK + 1000, full);
    EXPECT_EQ(full, Figure(RowOf(page, 2), "full"));
    EXPECT_EQ(full, Figure(RowOf(page, 4), "full"));
    EXPECT_EQ(0u, Figure(RowOf(page, 3), "saved"));
    EXPECT_EQ(full - 2u * BLOCK - 1000, Figure(RowOf(page, 2), "saved"));
    EXPECT_EQ(stored, Figure(page, "total-stored"));
    EXPECT_EQ(saved, Figure(page, "total-saved"));
    EXPECT_EQ(stored + saved, Figure(page, "total-full"));
}

TEST_F(VtBackupHtml, AVolumeThatShrankAndGrewAgainHoldsNothingOfWhatLayBehindItsEnd)
{
    Write(200, 0x77);
    MakeBackup();
    vtfltsim::Check("resize", VTFltSimResizeVolume(machine.handle(), volume.guid.c_str(), 100ull * BLOCK + 10));
    MakeBackup();
    vtfltsim::Check("resize", VTFltSimResizeVolume(machine.handle(), volume.guid.c_str(), LENGTH));
    MakeBackup();
    MakeBackup(L"--full");
    const std::string page = Page();
    EXPECT_EQ(Manifest(4).at("dataLength").get<std::uint64_t>(), Figure(RowOf(page, 3), "full"));
    EXPECT_EQ(Figure(RowOf(page, 1), "full") - BLOCK, Figure(RowOf(page, 3), "full"));
}

TEST_F(VtBackupHtml, TheHeatMapShowsHowManyBlocksChangedAndWhere)
{
    MakeBackup();
    Write(0, 0x11);
    Write(1, 0);
    Write(200, 0x12);
    machine.Write(volume, 256ull * BLOCK, std::vector<std::uint8_t>(1000, 0xCC));
    MakeBackup();
    MakeBackup();
    const std::string page = Page();
    // 257 blocks in at most 64 ranges: eight each, and one in the last.
    const std::string column = ColumnOf(page, 2);
    EXPECT_EQ(3u, CountOf(column, "class=\"heat ")) << column;
    EXPECT_TRUE(Contains(column, "data-range=\"0\"><title>backup 2, 0 B to 32.0 KiB\n2 of 8 blocks changed (25.0 %)<"));
    EXPECT_TRUE(Contains(column, "data-range=\"25\"><title>backup 2, 800.0 KiB to 832.0 KiB\n1 of 8 blocks changed"));
    EXPECT_TRUE(Contains(column, "data-range=\"32\"><title>backup 2, 1.0 MiB to 1.0 MiB\n1 of 1 blocks changed"));
    EXPECT_TRUE(Contains(column, "\"heat step-5\"")) << column; // 25 %
    EXPECT_EQ(0u, CountOf(ColumnOf(page, 3), "class=\"heat "));
    EXPECT_TRUE(Contains(ColumnOf(page, 3), "class=\"ground\""));
    // Of a full backup it is not known what changed.
    EXPECT_TRUE(Contains(ColumnOf(page, 1), "class=\"ground whole\""));
    EXPECT_EQ(0u, CountOf(ColumnOf(page, 1), "class=\"heat "));
    // The same in figures.
    EXPECT_TRUE(Contains(page, "<tr><th scope=\"row\">0 B to 32.0 KiB</th><td>2/8</td><td>0/8</td></tr>"));
}

TEST_F(VtBackupHtml, AnEmptyRepositoryIsAPageThatSaysSo)
{
    const std::string page = Page();
    EXPECT_TRUE(Contains(page, "The repository holds no backup yet."));
    EXPECT_TRUE(Contains(page, "data-chains=\"0\" data-backups=\"0\" data-problems=\"0\""));
    EXPECT_TRUE(page.ends_with("</html>\n"));
}

TEST_F(VtBackupHtml, ARepositoryWithOneFullBackupSavedNothingYet)
{
    MakeBackup();
    const std::string page = Page();
    EXPECT_EQ(50u * BLOCK, Figure(page, "total-stored"));
    EXPECT_EQ(50u * BLOCK, Figure(page, "total-full"));
    EXPECT_EQ(0u, Figure(page, "total-saved"));
    EXPECT_FALSE(Contains(page, "The heat map in figures"));
}

TEST_F(VtBackupHtml, ARunThatWasInterruptedIsNoBackupAndNoDamage)
{
    MakeBackup();
    ASSERT_EQ(VTFLTSIM_KILLED, Backup(L"App", L"kill-before|MoveFileExW|manifest.json|1").exitCode);
    const std::string page = Page();
    EXPECT_TRUE(Contains(RowOf(page, 2), "<td>unfinished</td>")) << RowOf(page, 2);
    EXPECT_TRUE(Contains(page, "data-backups=\"1\" data-problems=\"0\""));
    EXPECT_TRUE(Contains(ColumnOf(page, 2), "mark unfinished"));
    EXPECT_FALSE(Contains(page, "id=\"problems\""));
}

TEST_F(VtBackupHtml, ABackupWhoseSuccessWasNotReportedSaysSo)
{
    MakeBackup();
    EXPECT_FALSE(Contains(Page(), "not reported: the changes"));
    ASSERT_EQ(EXIT_NOT_REPORTED, Backup(L"App", L"fail|MoveFileExW|.success.json|2|1|5").exitCode);
    const std::string page = Page();
    EXPECT_TRUE(Contains(RowOf(page, 2), "Success not reported: the changes come again.")) << RowOf(page, 2);
    EXPECT_FALSE(Contains(RowOf(page, 1), "not reported"));
    EXPECT_TRUE(Contains(page, "the latest success is not reported"));
}

TEST_F(VtBackupHtml, WhatAnAuditBoundsAndWhatOneFoundStandsThere)
{
    MakeBackup();
    std::vector<std::wstring> audit = Arguments(L"backup", L"App", &volume);
    audit.insert(audit.end(), {L"--audit", L"1000"});
    ASSERT_EQ(EXIT_OK, Run(audit).exitCode);
    std::string page = Page();
    EXPECT_TRUE(Contains(RowOf(page, 2), "<p>Audit: all 257 clean blocks")) << RowOf(page, 2);
    EXPECT_FALSE(Contains(RowOf(page, 1), "Audit"));
    EXPECT_FALSE(Contains(page, "id=\"losses\""));
    vtfltsim::Check("forget", VTFltSimForgetWrites(machine.handle(), volume.guid.c_str(), 1));
    Write(40, 0x66);
    ASSERT_EQ(EXIT_LOST, Run(audit).exitCode);
    page = Page();
    const std::string losses = Between(page, "<section id=\"losses\">", "</section>");
    EXPECT_TRUE(Contains(losses, "lost tracking was found before backup 3")) << losses;
    EXPECT_TRUE(Contains(page, "<strong class=\"problem\">lost tracking</strong>"));
}

TEST_F(VtBackupHtml, ADamagedManifestIsNamedAndEverythingElseIsShown)
{
    MakeBackup();
    Write(20, 0x99);
    MakeBackup();
    MakeBackup();
    MakeBackup(L"--full");
    std::vector<std::uint8_t> bytes = ReadFileBytes(BackupFile(2, L"manifest.json"));
    bytes[bytes.size() / 2] ^= 0x01;
    WriteFileBytes(BackupFile(2, L"manifest.json"), bytes);
    const std::string page = Page(EXIT_DAMAGED);
    EXPECT_TRUE(Contains(page, "data-backups=\"4\" data-problems=\"2\""));
    const std::string problems = Between(page, "<section id=\"problems\">", "</section>");
    EXPECT_TRUE(Contains(problems, "00000002\\manifest.json is damaged")) << problems;
    EXPECT_TRUE(Contains(problems, "it builds on backup 2, which is missing or damaged")) << problems;
    EXPECT_TRUE(Contains(RowOf(page, 2), "manifest.json is damaged")) << RowOf(page, 2);
    EXPECT_TRUE(Contains(RowOf(page, 3), "Damaged: ")) << RowOf(page, 3);
    EXPECT_EQ(50u * BLOCK, Figure(RowOf(page, 4), "full"));
    // What a full backup in its place would have stored is not known of the third one.
    EXPECT_EQ(0u, CountOf(RowOf(page, 3), "<data class=\"full\""));
    EXPECT_TRUE(Contains(page, "every block not zero; not known of 1<"));
    EXPECT_EQ(100u * BLOCK, Figure(page, "total-full"));
}

TEST_F(VtBackupHtml, DamagedAndMissingFilesOfABackupAreNamed)
{
    MakeBackup();
    Write(20, 0x99);
    MakeBackup();
    for (const wchar_t* const name : {L"index.bin", L"data.bin"}) {
        const std::wstring path = BackupFile(2, name);
        const std::vector<std::uint8_t> good = ReadFileBytes(path);
        ASSERT_TRUE(DeleteFileW(path.c_str()));
        EXPECT_TRUE(Contains(RowOf(Page(EXIT_DAMAGED), 2), "Damaged: "));
        std::vector<std::uint8_t> shorter = good;
        shorter.pop_back();
        WriteFileBytes(path, shorter);
        const std::string page = Page(EXIT_DAMAGED);
        EXPECT_TRUE(Contains(RowOf(page, 2), "its length is wrong")) << RowOf(page, 2);
        EXPECT_TRUE(Contains(ColumnOf(page, 2), "ground unknown")) << ColumnOf(page, 2);
        WriteFileBytes(path, good);
    }
    Page(EXIT_OK);
}

TEST_F(VtBackupHtml, AChainThatDoesNotSayWhoseItIsIsNamedAndTheOthersAreShown)
{
    MakeBackup();
    ASSERT_EQ(EXIT_OK, Init(L"Second").exitCode);
    ASSERT_EQ(EXIT_OK, Backup(L"Second").exitCode);
    WriteFileBytes(ChainFile(L"chain.json"), {'[', ']'});
    const std::string page = Page(EXIT_DAMAGED);
    EXPECT_TRUE(Contains(page, "data-chains=\"1\" data-backups=\"1\" data-problems=\"1\""));
    EXPECT_TRUE(Contains(Between(page, "<section id=\"problems\">", "</section>"), "chain.json"));
    EXPECT_TRUE(Contains(page, "<bdi>Second</bdi>"));
}

TEST_F(VtBackupHtml, WhatARepositorySaysIsNeverMarkup)
{
    MakeBackup();
    const std::string evil = "</title></style></script><script>alert(1)</script><img src=x onerror='a\"b'>&amp;";
    WriteFileBytes(ChainFile(L"chain.json"), [&] {
        const std::string text = json{{"application", evil}, {"volume", Manifest(1).at("volume")}}.dump();
        return std::vector<std::uint8_t>(text.begin(), text.end());
    }());
    ForgeManifest(BackupFile(1, L"manifest.json"), [&](json& manifest) {
        manifest["application"] = evil;
        manifest["time"] = "\"><b>" + evil;
        manifest["reasons"] = {{{"code", evil}, {"text", "\x1B[2J\x01 \xE2\x80\xAE\xC2\x85\r\n" + evil}}};
        manifest["next"] = {{{"code", evil}, {"text", evil}}};
    });
    // Whatever else it says, the chain is whole; only its folder is another application's.
    const std::string page = Page(EXIT_DAMAGED);
    EXPECT_EQ(1u, CountOf(page, "<script>"));
    EXPECT_EQ(1u, CountOf(page, "</script>"));
    EXPECT_EQ(1u, CountOf(page, "</style>"));
    EXPECT_EQ(1u, CountOf(page, "</title>\n"));
    EXPECT_EQ(0u, CountOf(page, "<img"));
    EXPECT_EQ(0u, CountOf(page, "<b>"));
    EXPECT_EQ(0u, CountOf(page, "onerror='"));
    EXPECT_TRUE(Contains(page, "&lt;script&gt;alert(1)&lt;/script&gt;"));
    EXPECT_TRUE(Contains(page, "&amp;amp;"));
    for (const char* const hidden : {"\x1B", "\x01", "\r", "\xE2\x80\xAE", "\xC2\x85"})
        EXPECT_EQ(0u, CountOf(page, hidden));
    EXPECT_TRUE(Contains(RowOf(page, 1), "\xEF\xBF\xBD[2J"));
}

TEST_F(VtBackupHtml, AsMuchAsAManifestCanHoldIsCutAndNumbersWithoutSenseDoNoHarm)
{
    MakeBackup();
    ForgeManifest(BackupFile(1, L"manifest.json"), [](json& manifest) {
        manifest["bytesRead"] = ~0ULL;
        manifest["blocksReported"] = ~0ULL;
        manifest["time"] = "9999-99-99T99:99:99Z";
        for (int i = 0; i < 200; ++i)
            manifest["reasons"].push_back({{"code", "x"}, {"text", std::string(4000, 'y')}});
    });
    const std::string page = Page();
    EXPECT_EQ(0u, CountOf(page, std::string(1001, 'y')));
    EXPECT_TRUE(Contains(RowOf(page, 1), "and 169 more")) << RowOf(page, 1);
    EXPECT_TRUE(Contains(page, "1 without a time") || !Contains(page, "id=\"timeline\""));
    EXPECT_TRUE(Contains(RowOf(page, 1), "18,446,744,073,709,551,615"));
}

TEST_F(VtBackupHtml, ApplicationsAndVolumesAreShownEachAndCanBeChosen)
{
    const vtfltsim::Volume other = machine.AddVolume(LENGTH, BLOCK, L"F:\\");
    ASSERT_EQ(EXIT_OK, Init(L"Second").exitCode);
    MakeBackup();
    ASSERT_EQ(EXIT_OK, Backup(L"Second").exitCode);
    ASSERT_EQ(EXIT_OK, Run(Arguments(L"backup", L"App", &other)).exitCode);
    EXPECT_TRUE(Contains(Page(), "data-chains=\"3\" data-backups=\"3\""));
    std::vector<std::wstring> arguments = ReportArguments(L"-");
    arguments.insert(arguments.end(), {L"--app", L"App", L"--volume", other.guid});
    const Result one = Run(arguments);
    EXPECT_EQ(EXIT_OK, one.exitCode) << one.err;
    EXPECT_TRUE(Contains(one.out, "data-chains=\"1\" data-backups=\"1\""));
    EXPECT_FALSE(Contains(one.out, "Second"));
    arguments[6] = L"Nobody";
    EXPECT_EQ(EXIT_NOT_FOUND, Run(arguments).exitCode);
}

TEST_F(VtBackupHtml, TheSameRepositoryMakesTheSameBytesIntoAFileAndToStandardOutput)
{
    MakeBackup();
    Write(20, 0x99);
    MakeBackup();
    const std::string page = Page();
    EXPECT_TRUE(page == Page());
    const Result printed = Run(ReportArguments(L"-"));
    EXPECT_EQ(EXIT_OK, printed.exitCode);
    EXPECT_TRUE(page == printed.out);
    EXPECT_EQ("", printed.err);
}

TEST_F(VtBackupHtml, ThePageNamesNothingOutsideOfIt)
{
    MakeBackup();
    const std::string page = Page();
    EXPECT_TRUE(Contains(page, "content=\"default-src 'none'; style-src 'sha256-"));
    for (const char* const word : {"http:", "https:", "src=", "@import", "<link", "url(\"", "url(http", "onclick="})
        EXPECT_EQ(0u, CountOf(page, word)) << word;
}

TEST_F(VtBackupHtml, AnExistingFileIsOnlyReplacedOnRequest)
{
    WriteFileBytes(file, {1, 2, 3});
    const Result refused = Run(ReportArguments(file));
    EXPECT_EQ(EXIT_USAGE, refused.exitCode);
    EXPECT_TRUE(Contains(refused.err, "--overwrite")) << refused.err;
    EXPECT_EQ(3u, ReadFileBytes(file).size());
    EXPECT_LT(3u, Page().size());
}

TEST_F(VtBackupHtml, APageThatCannotBeWrittenLeavesTheOldOneAndNothingElse)
{
    WriteFileBytes(file, {1, 2, 3});
    std::vector<std::wstring> arguments = ReportArguments(file);
    arguments.insert(arguments.end(), {L"--overwrite", L"--simulate", machine.directory()});
    EXPECT_EQ(EXIT_REPOSITORY, Run(arguments, L"fail|MoveFileExW|.html|1|1|5").exitCode);
    EXPECT_EQ(3u, ReadFileBytes(file).size());
    EXPECT_FALSE(Exists(file + L".tmp"));
    EXPECT_EQ(EXIT_REPOSITORY, Run(ReportArguments(repository + L"\\missing\\page.html")).exitCode);
}

TEST_F(VtBackupHtml, AJsonResultSaysWhatWasMade)
{
    MakeBackup();
    std::vector<std::wstring> arguments = ReportArguments(file);
    arguments.emplace_back(L"--json");
    const Result good = Run(arguments);
    EXPECT_EQ(EXIT_OK, good.exitCode) << good.err;
    const json object = json::parse(good.out);
    EXPECT_EQ("ok", object.at("result"));
    EXPECT_EQ(1, object.at("backups"));
    EXPECT_EQ(50 * BLOCK, object.at("bytesStored"));
    EXPECT_EQ(0u, object.at("problems").size());
    WriteFileBytes(BackupFile(1, L"index.bin"), {1});
    arguments.emplace_back(L"--overwrite");
    const json damaged = json::parse(Run(arguments).out);
    EXPECT_EQ("damaged", damaged.at("result"));
    ASSERT_EQ(1u, damaged.at("problems").size());
    // Two things cannot go to one place.
    arguments = ReportArguments(L"-");
    arguments.emplace_back(L"--json");
    EXPECT_EQ(EXIT_USAGE, Run(arguments).exitCode);
}

TEST_F(VtBackupHtml, WithoutARepositoryThereIsNoPage)
{
    RemoveTree(repository);
    EXPECT_EQ(EXIT_NOT_FOUND, Run(ReportArguments(file)).exitCode);
    EXPECT_FALSE(Exists(file));
}

} // namespace
