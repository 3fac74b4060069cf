// What the machine of the proof notices.
#include "double/control.h"
#include "proof/answers.h"
#include "proof/bitmap_file.h"
#include "proof/world.h"
#include "vtfltmgr/VTFltMgr.h"

#include <gtest/gtest.h>

namespace vtproof {
namespace {

std::vector<std::uint8_t> FileWith(const Bits& bits)
{
    constexpr std::size_t SIZE = 4096;
    std::vector<std::uint8_t> file(SIZE);
    const auto put = [&file](std::size_t at, std::uint32_t number) {
        for (std::size_t i = 0; i < 4; ++i)
            file[at + i] = static_cast<std::uint8_t>(number >> 8 * i);
    };
    std::copy_n("STCA", 4, file.begin());
    put(8, 1024);
    put(12, static_cast<std::uint32_t>(16 + bits.size()));
    put(16, SIZE);
    std::copy(bits.begin(), bits.end(), file.begin() + 100);
    std::copy_n("ACDE", 4, file.end() - 4);
    return file;
}

TEST(BitmapFiles, AreReadByTheirFormat)
{
    std::vector<std::uint8_t> bytes = FileWith({0x80, 0, 1, 0});
    const BitmapFile file = ReadBitmapFile(bytes.data(), bytes.size());
    EXPECT_TRUE(file.usable);
    EXPECT_TRUE(file.exact);
    EXPECT_FALSE(file.cutShort);
    EXPECT_TRUE(ReadBitmapFile(bytes.data(), bytes.size() - 1).cutShort);
    EXPECT_FALSE(ReadBitmapFile(bytes.data(), 84).cutShort);
    EXPECT_EQ(1024u, file.blockSize);
    EXPECT_EQ((Bits{0x80, 0, 1}), file.bits);
    EXPECT_EQ(file, ReadBitmapFile(bytes.data(), bytes.size()));
    for (const std::size_t size : {std::size_t{0}, std::size_t{84}, std::size_t{87}, bytes.size() - 1})
        EXPECT_FALSE(ReadBitmapFile(bytes.data(), size).usable) << size;
    for (const std::size_t at : {std::size_t{0}, std::size_t{3}, bytes.size() - 4, bytes.size() - 1}) {
        std::vector<std::uint8_t> wrong = bytes;
        wrong[at] ^= 1;
        EXPECT_FALSE(ReadBitmapFile(wrong.data(), wrong.size()).usable) << at;
    }
}

TEST(BitmapFiles, MayBeWhatTheStepsMakeOfThem)
{
    MayBe bits(Bits{0x80, 0, 1});
    EXPECT_TRUE(bits.Holds({0x80, 0, 1}));
    EXPECT_FALSE(bits.Holds({}));
    bits.AddWith({0, 4});
    EXPECT_TRUE(bits.Holds({0x80, 0, 1}));
    EXPECT_TRUE(bits.Holds({0x80, 4, 1}));
    EXPECT_FALSE(bits.Holds({0, 4}));
    bits.AddCut(1);
    EXPECT_TRUE(bits.Holds({0x80}));
    EXPECT_EQ(3u, bits.All().size());
}

TEST(BitmapFiles, MayBeMixedBySectorsOnly)
{
    const Bits old(1000, 0xFF);
    MayBe bits(old);
    bits.Add({});
    EXPECT_TRUE(bits.HoldsBySectors(old));
    EXPECT_TRUE(bits.HoldsBySectors({}));
    // The file's first sector has 412 bytes of the bits, the next ones 512.
    EXPECT_TRUE(bits.HoldsBySectors(Bits(412, 0xFF)));
    EXPECT_TRUE(bits.HoldsBySectors(Bits(412 + 512, 0xFF)));
    EXPECT_FALSE(bits.HoldsBySectors(Bits(411, 0xFF)));
    EXPECT_FALSE(bits.HoldsBySectors(Bits(500, 0xFF)));
    EXPECT_FALSE(bits.Holds(Bits(412, 0xFF)));
}

TEST(BitmapFiles, MayBeMixedByBytesInAWriteThatWasCut)
{
    MayBe bits(Bits(1000, 0xF0));
    bits.Add(Bits(1000, 0xFF));
    bits.Add({});
    Bits mixed(500, 0xFF);
    mixed.resize(700, 0xF0);
    EXPECT_FALSE(bits.HoldsBySectors(mixed));
    EXPECT_TRUE(bits.HoldsByBytes(mixed));
    mixed[3] = 0x0F;
    EXPECT_FALSE(bits.HoldsByBytes(mixed));
    EXPECT_FALSE(bits.HoldsByBytes(Bits(1001, 0xFF)));
}

TEST(Answers, AreThoseOfTheHeader)
{
    EXPECT_TRUE(IsDocumented(Exported::GetBitmap, 0x10001));
    EXPECT_TRUE(IsDocumented(Exported::GetBitmap, 1450));
    EXPECT_FALSE(IsDocumented(Exported::GetBitmap, 0x10009));
    EXPECT_FALSE(IsDocumented(Exported::GetBitmap, 1234)) << "of Windows, but nothing gives it here";
    EXPECT_FALSE(IsDocumented(Exported::InitManager, 5));
    EXPECT_FALSE(IsDocumented(Exported::IsVerifyRequired, 2));
    EXPECT_FALSE(IsDocumented(Exported::AppCount, 0xFFFFFFFF));
    for (std::size_t exported = 0; exported < EXPORT_COUNT; ++exported)
        EXPECT_TRUE(IsDocumented(static_cast<Exported>(exported), 0)) << EXPORT_NAMES[exported];
}

std::string RunText(const std::string& text)
{
    const auto history = ParseHistory(text);
    return history ? RunHistory(*history) : "that is no history";
}

// The application's own words are taken: whoever asks again takes only the reported blocks behind a fetch that failed.
TEST(World, HasApplicationsThatAskAgain)
{
    const std::string before = "machine 100:1024; register 0; backup 0 0; write 0 0 5; begin 0 0; ";
    const auto failing = [&before](std::uint32_t again, const char* fault) {
        return RunText(before + "asks-again 0 0 " + std::to_string(again) + "; fetch 0 0 0 0 " + fault + "; finish 0");
    };
    const std::uint64_t asked = VerdictsSoFar().askedAgain;
    EXPECT_EQ("", failing(AGAIN_NEVER, "!fail-on 1 5"));
    EXPECT_EQ(asked, VerdictsSoFar().askedAgain);
    EXPECT_EQ("", failing(AGAIN_LATER, "!fail-on 1 5"));
    EXPECT_EQ(asked + 1, VerdictsSoFar().askedAgain);
    const std::uint64_t everything = VerdictsSoFar().everything;
    EXPECT_EQ("", failing(AGAIN_AT_ONCE, "!fail 3 5"));
    EXPECT_EQ(asked + 1, VerdictsSoFar().askedAgain) << "the second answer was a good one";
    EXPECT_EQ(everything + 1, VerdictsSoFar().everything) << "only the very first one";
}

// Behind a fault that never strikes a file is there with other bits: as if the library had written them.
TEST(World, NoticesAFileThatIsNeitherOldNorNew)
{
    const auto history = ParseHistory("machine 100:1024; register 0; register 1; backup 0 0; backup 1 0; write 0 0 5; "
                                      "backup 0 0 0 0 !fail 9999 5");
    ASSERT_TRUE(history.has_value());
    for (const bool spoilt : {false, true}) {
        World world(history->volumes);
        for (std::size_t i = 0; i + 1 < history->operations.size(); ++i)
            ASSERT_EQ("", world.Run(history->operations[i]));
        const vtfltsim::SimMachine machine(L"C:\\users\\tester\\Temp\\proof");
        const vtfltsim::Volume volume{L"{5a5a5a5a-0000-4000-8000-000000000000}"};
        std::wstring path = machine.Info(volume).filesDirectory;
        path += L"\\VelVolTrc\\VelVolTrc_child_App1.dat";
        const auto spoil = [](void* context, LPCWSTR, LPCWSTR) {
            const HANDLE file =
                CreateFileW(static_cast<const wchar_t*>(context), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
            const std::uint8_t byte = 0x11;
            DWORD written = 0;
            SetFilePointer(file, 100, nullptr, FILE_BEGIN);
            EXPECT_TRUE(WriteFile(file, &byte, 1, &written, nullptr));
            CloseHandle(file);
        };
        if (spoilt)
            vtfltsim::Check("VTFltSimCallBefore",
                            VTFltSimCallBefore(L"CreateMutexW", L"App0", 1, 1, spoil, path.data()));
        const std::string wrong = world.Run(history->operations.back());
        EXPECT_EQ(spoilt ? "the child of application 1 on volume 0 is neither old nor new nor unusable" : "", wrong);
    }
}

// As if the library had marked everything because something was wrong somewhere.
TEST(World, NoticesAMarkOfAVolumeToWhichNothingWasDone)
{
    const auto history =
        ParseHistory("machine 100:1024 100:1024; register 0; register 1; backup 0 0; backup 0 1; backup 1 0; "
                     "write 0 0 5; backup 1 0");
    ASSERT_TRUE(history.has_value());
    for (const bool marked : {false, true}) {
        World world(history->volumes);
        for (std::size_t i = 0; i + 1 < history->operations.size(); ++i)
            ASSERT_EQ("", world.Run(history->operations[i]));
        const auto mark = [](void*, LPCWSTR, LPCWSTR) { EXPECT_EQ(0u, VTAddVolumesToAppVerifyList(L"App0")); };
        if (marked)
            vtfltsim::Check("VTFltSimCallBefore", VTFltSimCallBefore(L"CreateMutexW", L"App1", 1, 1, mark, nullptr));
        const std::string wrong = world.Run(history->operations.back());
        EXPECT_EQ(marked ? "volume 1, to which nothing was done, is on the verify list of application 0" : "", wrong);
    }
}

// Right behind a cut, before the driver's list makes everybody read everything.
TEST(World, LooksAtTheFilesBehindACut)
{
    const std::uint64_t files = VerdictsSoFar().files;
    EXPECT_EQ("", RunText("machine 8192:512; register 0; backup 0 0; write 0 0 5; write 0 0 8000; backup 0 0; "
                          "power-cut 0 0 77"));
    EXPECT_EQ(files + 2 * 2, VerdictsSoFar().files) << "behind the backup and behind the cut";
}

// A write that is short without an error counts as done and is not flushed: a cut of the power may bring that file back as
// it was, and no other one.
TEST(World, BelievesACutOnlyOfTheFileInWhichAWriteWasShort)
{
    const auto history = ParseHistory("machine 100:1024; register 0; register 1; backup 0 0; backup 1 0; write 0 0 5; "
                                      "backup 0 0 0 0 !short 1 90; power-cut 0 0 1");
    ASSERT_TRUE(history.has_value());
    constexpr char LOST[] = "changes owed to application 1 on volume 0 are neither in its files nor with the driver";
    // The other application's child is written first, its trailer by itself, and then the own base.
    struct Case {
        std::uint32_t nth;
        bool flushes; // the disk, the other application's child
        const char* wrong;
    };
    for (const Case& one : {Case{1, true, ""}, Case{1, false, ""}, Case{3, true, ""}, Case{3, false, LOST}}) {
        World world(history->volumes);
        std::vector<Operation> operations = history->operations;
        operations[operations.size() - 2].faults.front().nth = one.nth;
        for (std::size_t i = 0; i + 2 < operations.size(); ++i)
            ASSERT_EQ("", world.Run(operations[i]));
        VTFLTSIM_CALL_FAULT pretends = {};
        pretends.size = sizeof(pretends);
        pretends.what = VTFLTSIM_CALL_RETURNS;
        pretends.function = L"FlushFileBuffers";
        pretends.match = L"_child_App1";
        pretends.value = TRUE;
        if (!one.flushes)
            vtfltsim::Check("VTFltSimSetCallFault", VTFltSimSetCallFault(&pretends));
        ASSERT_EQ("", world.Run(operations[operations.size() - 2], true));
        EXPECT_TRUE(world.Struck());
        EXPECT_EQ(one.wrong, world.Run(operations.back())) << one.nth << one.flushes;
    }
}

// A write of four bytes that is to be cut behind ninety goes through whole.
TEST(World, IsStruckByACutThatCuts)
{
    const auto struck = [](const std::string& fault) {
        const auto history =
            ParseHistory("machine 100:1024; register 0; backup 0 0; write 0 0 5; backup 0 0 0 0 " + fault);
        bool met = false;
        EXPECT_EQ("",
                  history ? RunHistory(*history, nullptr, false, World::Thoroughly::Yes, &met) : "that is no history");
        return met;
    };
    EXPECT_TRUE(struck("!short 1 90"));
    EXPECT_TRUE(struck("!short 2 2"));
    EXPECT_FALSE(struck("!short 2 4")) << "the trailer";
    EXPECT_FALSE(struck("!short 2 90"));
    EXPECT_TRUE(struck("!short-read 1 87"));
    EXPECT_FALSE(struck("!short-read 1 88")) << "a header and a trailer";
}

// The filter cannot be added, and then the count cannot be set back: two failures, and the count stays.
TEST(World, TakesNoSecondFailureForABreak)
{
    for (const char* how : {"monitor 0 0 1", "monitor 0 0 1; monitor 0 0 0"}) {
        for (std::uint32_t nth = 1; nth < 25; ++nth) {
            const std::string text = std::string("machine 100:1024; register 0; ") + how + " !fail " +
                                     std::to_string(nth) + " 5 !fail " + std::to_string(nth + 1) + " 5";
            EXPECT_EQ("", RunText(text)) << text;
        }
    }
}

// Each looked like a break of the library in a long run and is none.
TEST(World, TakesWhatMayBeOfTheFilesForNoBreak)
{
    // The child that is begun anew had a change of another application's fetch; the mark makes good for it.
    EXPECT_EQ("", RunText("machine 88:1024; register 0; register 1; asks-again 0 0 2; write 0 0 8; backup 1 0; "
                          "block-size 1 0 512; write 0 0 281; begin 0 0; fetch 0 0 0 0 !fail 19 32"));
    // The cut undoes both damages.
    for (const char* how : {"3", "4"}) {
        const std::string damage = std::string("damage 0 0 0 ") + how;
        EXPECT_EQ("",
                  RunText("machine 186:512; register 0; backup 0 0; " + damage + "; " + damage + "; power-cut 1 0 1"));
    }
    // The file is emptied to be written anew, and one sector of it is empty behind the cut.
    EXPECT_EQ("", RunText("machine 8192:512; register 0; register 1; register 2; write 1 0 4012; backup 0 0; "
                          "backup 1 0 0 0 !die-after 127 0; power-cut 0 0 288"));
    // The base is written back from memory.
    EXPECT_EQ("", RunText("machine 388:512; register 0; block-size 1 0 4096; begin 0 0; fetch 0 0; damage 0 0 1 2; "
                          "finish 0 0 0 0 !die-in-write 6 3840"));
}

} // namespace
} // namespace vtproof
