#include "apps/volume_name.h"

#include <gtest/gtest.h>
#include <string>

namespace {

using vtflt::FindVolumeKeyword;
using vtflt::GetVolumeGuid;
using vtflt::GetVolumeName;
using vtflt::IsVolumeGuidPath;
using vtflt::ListEntryMatchesVolume;
using vtflt::StripTrailingBackslash;

constexpr wchar_t PATH[] = L"\\\\?\\Volume{8c1a4f52-0b3e-11e6-9d0a-001a4d5e6f70}\\";
constexpr wchar_t PATH_WITHOUT_BACKSLASH[] = L"\\\\?\\Volume{8c1a4f52-0b3e-11e6-9d0a-001a4d5e6f70}";
constexpr wchar_t NAME[] = L"Volume{8c1a4f52-0b3e-11e6-9d0a-001a4d5e6f70}";
constexpr wchar_t GUID_IN_BRACES[] = L"{8c1a4f52-0b3e-11e6-9d0a-001a4d5e6f70}";

TEST(StripTrailingBackslash, CutsOneBackslash)
{
    EXPECT_TRUE(StripTrailingBackslash(L"a\\") == L"a");
    EXPECT_TRUE(StripTrailingBackslash(L"a\\\\") == L"a\\");
    EXPECT_TRUE(StripTrailingBackslash(L"\\") == L"");
}

TEST(StripTrailingBackslash, LeavesOtherTextsAlone)
{
    EXPECT_TRUE(StripTrailingBackslash(L"").empty());
    EXPECT_TRUE(StripTrailingBackslash(L"\\a") == L"\\a");
    EXPECT_TRUE(StripTrailingBackslash(L"a/") == L"a/");
}

TEST(FindVolumeKeyword, FindsTheKeywordOfAVolumeGuidPath)
{
    EXPECT_EQ(4, FindVolumeKeyword(PATH));
    EXPECT_EQ(0, FindVolumeKeyword(NAME));
}

TEST(FindVolumeKeyword, VolumeIsASetOfCharactersAndNotAWord)
{
    EXPECT_EQ(3, FindVolumeKeyword(L"C:\\e"));
    EXPECT_EQ(1, FindVolumeKeyword(L"DomeVolume"));
    EXPECT_EQ(4, FindVolumeKeyword(L"\\\\?\\mnt\\Volume"));
    for (const wchar_t character : std::wstring(L"Volume"))
        EXPECT_EQ(2, FindVolumeKeyword(std::wstring(L"x:") + character)) << static_cast<int>(character);
}

TEST(FindVolumeKeyword, TellsCasesApart)
{
    EXPECT_EQ(-1, FindVolumeKeyword(L"vOLUME"));
}

TEST(FindVolumeKeyword, AnswersMinusOneWithoutAny)
{
    EXPECT_EQ(-1, FindVolumeKeyword(L""));
    EXPECT_EQ(-1, FindVolumeKeyword(L"C:\\data"));
}

TEST(GetVolumeName, OfAVolumeGuidPathIsItsComponent)
{
    EXPECT_TRUE(GetVolumeName(PATH) == NAME);
    EXPECT_TRUE(GetVolumeName(PATH_WITHOUT_BACKSLASH) == NAME);
    EXPECT_TRUE(GetVolumeName(NAME) == NAME);
}

TEST(GetVolumeName, WithoutTheKeywordIsTheWholeText)
{
    EXPECT_TRUE(GetVolumeName(L"C:\\data\\") == L"C:\\data");
    EXPECT_TRUE(GetVolumeName(L"C:\\") == L"C:");
    EXPECT_TRUE(GetVolumeName(L"").empty());
}

TEST(GetVolumeName, StartsAtTheFirstCharacterOfTheSet)
{
    EXPECT_TRUE(GetVolumeName(L"\\\\?\\mnt\\Volume\\") == L"mnt\\Volume");
}

TEST(GetVolumeGuid, OfAVolumeGuidPathIsTheGuidInBraces)
{
    EXPECT_TRUE(GetVolumeGuid(PATH) == GUID_IN_BRACES);
    EXPECT_TRUE(GetVolumeGuid(PATH_WITHOUT_BACKSLASH) == GUID_IN_BRACES);
    EXPECT_TRUE(GetVolumeGuid(NAME) == GUID_IN_BRACES);
}

TEST(GetVolumeGuid, WithoutTheKeywordIsTheTextUnchanged)
{
    EXPECT_TRUE(GetVolumeGuid(GUID_IN_BRACES) != GUID_IN_BRACES); // an "e" is in it: a character of the set
    EXPECT_TRUE(GetVolumeGuid(L"{1234}") == L"{1234}");
    EXPECT_TRUE(GetVolumeGuid(L"C:\\") == L"C:");
    EXPECT_TRUE(GetVolumeGuid(L"").empty());
}

TEST(GetVolumeGuid, IsEmptyWithNothingBehindTheKeyword)
{
    EXPECT_TRUE(GetVolumeGuid(L"Volume").empty());
    EXPECT_TRUE(GetVolumeGuid(L"Volume\\").empty());
    EXPECT_TRUE(GetVolumeGuid(L"V").empty());
    EXPECT_TRUE(GetVolumeGuid(L"xxVolu").empty());
    EXPECT_TRUE(GetVolumeGuid(L"Volume1") == L"1");
}

TEST(IsVolumeGuidPath, NeedsThePrefixAndTheBackslash)
{
    EXPECT_TRUE(IsVolumeGuidPath(PATH));
    EXPECT_FALSE(IsVolumeGuidPath(PATH_WITHOUT_BACKSLASH));
    EXPECT_FALSE(IsVolumeGuidPath(L"Volume{1}\\"));
    EXPECT_FALSE(IsVolumeGuidPath(L"\\\\.\\Volume{1}\\"));
    EXPECT_FALSE(IsVolumeGuidPath(L"\\??\\Volume{1}\\"));
}

TEST(IsVolumeGuidPath, ShortTextsAreNone)
{
    EXPECT_FALSE(IsVolumeGuidPath(L""));
    EXPECT_FALSE(IsVolumeGuidPath(L"\\"));
    EXPECT_FALSE(IsVolumeGuidPath(L"\\\\?"));
    EXPECT_TRUE(IsVolumeGuidPath(L"\\\\?\\"));
}

TEST(ListEntryMatchesVolume, TheGuidInBracesMatchesTheVolumesPath)
{
    EXPECT_TRUE(ListEntryMatchesVolume(GUID_IN_BRACES, PATH));
    EXPECT_TRUE(ListEntryMatchesVolume(GUID_IN_BRACES, NAME));
}

TEST(ListEntryMatchesVolume, CaseDecides)
{
    EXPECT_FALSE(ListEntryMatchesVolume(L"{ABC}", L"\\\\?\\Volume{abc}\\"));
}

TEST(ListEntryMatchesVolume, AnEntryMayBeAnyPartButNotMoreThanTheName)
{
    EXPECT_TRUE(ListEntryMatchesVolume(L"8c1a", PATH));
    EXPECT_FALSE(ListEntryMatchesVolume(PATH, NAME));
}

} // namespace
