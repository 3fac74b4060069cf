// What the log finds out about where it runs.
#include "log/log_folder.h"
#include "log/probes.h"
#include "log_file_test.h"

#include <cstring>

using namespace vtflt;
using namespace vttest;

namespace {

class Probes : public LogFileTest {
protected:
    static DWORD InstallPath(DWORD kind, std::wstring& path)
    {
        wchar_t buffer[LOG_PATH_CAPACITY] = L"before";
        const DWORD error = GetInstallPath(kind, buffer);
        path = buffer;
        return error;
    }
    void SetWinPE(const std::wstring& commandLine) { SetText(L"SYSTEM\\Setup", L"CmdLine", commandLine); }
    static std::wstring Folder(DWORD components)
    {
        wchar_t folder[LOG_PATH_CAPACITY];
        ResolveLogFolder(components, folder);
        return folder;
    }
    static std::wstring UpperCase(std::wstring text)
    {
        CharUpperBuffW(text.data(), static_cast<DWORD>(text.size()));
        return text;
    }
    static std::wstring Own(const std::wstring& module)
    {
        wchar_t path[LOG_PATH_CAPACITY];
        return WideNumber(FindOwnComponent(module, path)) + L" " + path;
    }

    std::wstring m_path;
};

TEST_F(Probes, ACommandLineThatNamesWinpeshlMakesTheSystemWinPE)
{
    EXPECT_FALSE(IsWinPE());
    SetWinPE(L"X:\\windows\\system32\\winpeshl.exe");
    EXPECT_TRUE(IsWinPE());
    SetWinPE(L"cmd /c winpeshl.exe -x");
    EXPECT_TRUE(IsWinPE());
}

TEST_F(Probes, WinpeshlInCapitalsDoesNot)
{
    SetWinPE(L"X:\\windows\\system32\\WINPESHL.EXE");
    EXPECT_FALSE(IsWinPE());
    SetWinPE(L"winpeshl");
    EXPECT_FALSE(IsWinPE());
    SetWinPE(L"");
    EXPECT_FALSE(IsWinPE());
}

TEST_F(Probes, ComponentsArePresentByTheirKeys)
{
    EXPECT_EQ(0u, ComponentsPresent());
    MakeKey(PRODUCT);
    EXPECT_EQ(0u, ComponentsPresent());
    MakeKey(ENGINE);
    EXPECT_EQ(5u, ComponentsPresent());
    MakeKey(MANAGEMENT);
    EXPECT_EQ(7u, ComponentsPresent());
}

TEST_F(Probes, TheManagementAloneIsSix)
{
    MakeKey(MANAGEMENT);
    EXPECT_EQ(6u, ComponentsPresent());
}

TEST_F(Probes, WinPEIsExactlyEight)
{
    MakeKey(ENGINE);
    SetWinPE(L"winpeshl.exe");
    EXPECT_EQ(8u, ComponentsPresent());
    EXPECT_EQ(8u, GetOwnComponent());
}

TEST_F(Probes, AProductKeyIsCopiedWhereItFits)
{
    wchar_t buffer[PRODUCT_KEY_CAPACITY];
    EXPECT_EQ(0u, GetProductKey(1, buffer, PRODUCT_KEY_CAPACITY));
    EXPECT_STREQ(L"SOFTWARE\\Veltrix\\Lumen Protect\\Engine", buffer);
    EXPECT_EQ(0u, GetProductKey(2, buffer, PRODUCT_KEY_CAPACITY));
    EXPECT_STREQ(L"SOFTWARE\\Veltrix\\Lumen Protect\\Management", buffer);
    EXPECT_EQ(0u, GetProductKey(4, buffer, PRODUCT_KEY_CAPACITY));
    EXPECT_STREQ(L"SOFTWARE\\Veltrix\\Lumen Protect", buffer);
    EXPECT_EQ(0u, GetProductKey(4, buffer, 31));
    EXPECT_EQ(122u, GetProductKey(4, buffer, 30));
    EXPECT_EQ(122u, GetProductKey(4, buffer, 0));
}

TEST_F(Probes, AnotherKindHasNoProductKey)
{
    wchar_t buffer[PRODUCT_KEY_CAPACITY];
    for (const DWORD kind : {0u, 3u, 5u, 8u, 0xFFFFFFFFu})
        EXPECT_EQ(87u, GetProductKey(kind, buffer, PRODUCT_KEY_CAPACITY)) << kind;
}

TEST_F(Probes, TheEnginesInstallPathHasAKeyOfItsOwn)
{
    EXPECT_EQ(2u, InstallPath(1, m_path));
    EXPECT_TRUE(m_path.empty());
    SetText(std::wstring(ENGINE) + L"\\InstallPath", L"Path", L"C:\\Lumen\\Engine\\");
    EXPECT_EQ(0u, InstallPath(1, m_path));
    EXPECT_TRUE(m_path == L"C:\\Lumen\\Engine\\");
}

TEST_F(Probes, TheManagementsInstallPathStandsInItsProductKey)
{
    SetText(MANAGEMENT, L"Path", L"C:\\Lumen\\Management");
    EXPECT_EQ(0u, InstallPath(2, m_path));
    EXPECT_TRUE(m_path == L"C:\\Lumen\\Management");
}

TEST_F(Probes, TheProductRootsInstallPathIsTheUpdateManagerBelowItsValue)
{
    SetText(PRODUCT, L"RootPath", L"C:\\Lumen");
    EXPECT_EQ(0u, InstallPath(4, m_path));
    EXPECT_TRUE(m_path == L"C:\\Lumen\\Update Manager");
}

TEST_F(Probes, ARootPathThatEndsInABackslashGetsNoSecondOne)
{
    SetText(PRODUCT, L"RootPath", L"C:\\Lumen\\");
    EXPECT_EQ(0u, InstallPath(4, m_path));
    EXPECT_TRUE(m_path == L"C:\\Lumen\\Update Manager");
}

TEST_F(Probes, AnEmptyRootPathIsError1168)
{
    SetText(PRODUCT, L"RootPath", L"");
    EXPECT_EQ(1168u, InstallPath(4, m_path));
    EXPECT_TRUE(m_path.empty());
}

TEST_F(Probes, AnotherKindHasNoInstallPath)
{
    for (const DWORD kind : {0u, 3u, 8u}) {
        EXPECT_EQ(87u, InstallPath(kind, m_path));
        EXPECT_TRUE(m_path.empty());
    }
}

TEST_F(Probes, AnInstallPathThatCannotBeReadGivesTheRegistrysError)
{
    SetText(MANAGEMENT, L"Path", L"C:\\Lumen\\Management");
    vtfltsim::FailCall(L"RegQueryValueExW", ERROR_ACCESS_DENIED, L"|Path");
    EXPECT_EQ(5u, InstallPath(2, m_path));
    EXPECT_TRUE(m_path.empty());
}

TEST_F(Probes, AValueWithoutItsEndAndOneOfAnOddSizeAreReadWhole)
{
    UniqueKey key;
    ASSERT_EQ(0u, VTFltSimOpenKey(m_machine.handle(), MANAGEMENT, KEY_WRITE, key.put()));
    const wchar_t text[] = {L'C', L':', L'\\', L'a', 0x62};
    ASSERT_EQ(0, RegSetValueExW(key.get(), L"Path", 0, REG_BINARY, reinterpret_cast<const BYTE*>(text), 8));
    EXPECT_EQ(0u, InstallPath(2, m_path));
    EXPECT_TRUE(m_path == L"C:\\a");
    ASSERT_EQ(0, RegSetValueExW(key.get(), L"Path", 0, REG_BINARY, reinterpret_cast<const BYTE*>(text), 9));
    EXPECT_EQ(0u, InstallPath(2, m_path));
    EXPECT_TRUE(m_path == L"C:\\ab");
}

TEST_F(Probes, AModuleUnderTheEngineIsTheEnginesEvenWhenTheManagementContainsItToo)
{
    SetText(MANAGEMENT, L"Path", L"C:\\Lumen");
    SetText(std::wstring(ENGINE) + L"\\InstallPath", L"Path", L"C:\\Lumen\\Engine");
    EXPECT_TRUE(Own(L"C:\\Lumen\\Engine\\x.dll") == L"1 C:\\Lumen\\Engine");
    EXPECT_TRUE(Own(L"C:\\Lumen\\x.dll") == L"2 C:\\Lumen");
    EXPECT_TRUE(Own(L"c:\\LUMEN\\engine\\x.dll") == L"1 C:\\Lumen\\Engine");
    EXPECT_TRUE(Own(L"D:\\x.dll") == L"0 ");
    EXPECT_TRUE(Own(L"") == L"0 ");
}

TEST_F(Probes, AnEmptyInstallPathIsNoPrefix)
{
    SetText(std::wstring(ENGINE) + L"\\InstallPath", L"Path", L"");
    SetText(PRODUCT, L"RootPath", L"C:\\Lumen");
    EXPECT_TRUE(Own(L"C:\\Lumen\\Update Manager\\x.dll") == L"4 C:\\Lumen\\Update Manager");
    EXPECT_TRUE(Own(L"C:\\Lumen\\x.dll") == L"0 ");
}

TEST_F(Probes, AFolderOfALongerNameThatBeginsAlikeCountsAsInside)
{
    SetText(MANAGEMENT, L"Path", L"C:\\Lumen");
    EXPECT_TRUE(Own(L"C:\\LumenOther\\x.dll") == L"2 C:\\Lumen"); // the comparison is of texts
}

TEST_F(Probes, WithoutAComponentTheFolderIsLogsBesideTheExecutable)
{
    const Elsewhere module(L"C:\\Lumen\\x.dll");
    SetText(std::wstring(ENGINE) + L"\\InstallPath", L"Path", L"C:\\Lumen");
    EXPECT_TRUE(Folder(0) == ProgramFolder() + L"\\Logs\\");
}

TEST_F(Probes, OnWinPETheFolderIsLogBesideTheExecutable)
{
    const Elsewhere module(L"C:\\Lumen\\x.dll");
    EXPECT_TRUE(Folder(8) == ProgramFolder() + L"\\Log\\");
}

TEST_F(Probes, TheFolderIsLogsBelowTheFirstInstallPathThatContainsTheModule)
{
    const std::wstring parent = ProgramFolder().substr(0, ProgramFolder().rfind(L'\\'));
    SetText(MANAGEMENT, L"Path", parent);
    EXPECT_TRUE(Folder(6) == parent + L"\\Logs\\");
    SetText(std::wstring(ENGINE) + L"\\InstallPath", L"Path", UpperCase(ProgramFolder()) + L"\\");
    EXPECT_TRUE(Folder(7) == UpperCase(ProgramFolder()) + L"\\Logs\\");
}

TEST_F(Probes, WhereNoInstallPathContainsTheModuleTheFolderIsBesideTheExecutable)
{
    const Elsewhere module(L"C:\\Lumen\\x.dll");
    SetText(MANAGEMENT, L"Path", L"Q:\\elsewhere");
    EXPECT_TRUE(Folder(6) == ProgramFolder() + L"\\Logs\\");
}

class ProductVersions : public Probes {
protected:
    std::wstring Read(DWORD kind, DWORD mode = 0)
    {
        ProductVersion version = {9, 9, 9};
        const DWORD error = GetProductVersion(kind, mode, version);
        return WideNumber(error) + L": " + WideNumber(version.major) + L"." + WideNumber(version.minor) + L" " +
               WideNumber(version.update);
    }
    void SetEngine(const wchar_t* major, const wchar_t* minor, const wchar_t* update)
    {
        const std::wstring key = std::wstring(ENGINE) + L"\\Version";
        SetText(key, L"Major", major);
        SetText(key, L"Minor", minor);
        SetText(key, L"UpdateVersionNumber", update);
    }
    void SetConsole(const wchar_t* kind, const wchar_t* version, const wchar_t* update)
    {
        const std::wstring key = std::wstring(kind) + L"\\Console";
        SetText(key, L"Version", version);
        SetText(key, L"UpdateVersionNumber", update);
    }
};

TEST_F(ProductVersions, TheEnginesStandsInThreeDecimalTexts)
{
    SetEngine(L"10", L"07", L"3");
    EXPECT_TRUE(Read(1) == L"0: 10.7 3");
    EXPECT_TRUE(Read(1, 2) == L"0: 10.7 3");
}

TEST_F(ProductVersions, TheOthersAreTheFirstTwoPiecesOfADottedText)
{
    SetConsole(MANAGEMENT, L"6.5.1234.9", L"2");
    SetConsole(PRODUCT, L"7", L"0");
    EXPECT_TRUE(Read(2) == L"0: 6.5 2");
    EXPECT_TRUE(Read(4) == L"0: 7.0 0");
}

TEST_F(ProductVersions, WithoutAMajorAndAMinorNumberTheReadFailsAndLeavesZeroes)
{
    SetEngine(L"0", L"0", L"3");
    EXPECT_TRUE(Read(1) == L"1168: 0.0 0");
    SetEngine(L"", L"", L"3");
    EXPECT_TRUE(Read(1) == L"1168: 0.0 0");
    SetEngine(L"0", L"1", L"3");
    EXPECT_TRUE(Read(1) == L"0: 0.1 3");
    SetConsole(MANAGEMENT, L"none", L"3");
    EXPECT_TRUE(Read(2) == L"1168: 0.0 0");
}

TEST_F(ProductVersions, AMissingKeyIsTheRegistrysError)
{
    EXPECT_TRUE(Read(1) == L"2: 0.0 0");
    EXPECT_TRUE(Read(2) == L"2: 0.0 0");
}

TEST_F(ProductVersions, Mode4TriesTheEngineThenTheManagementWhateverTheKind)
{
    SetConsole(MANAGEMENT, L"6.5", L"2");
    EXPECT_TRUE(Read(1, 4) == L"0: 6.5 2");
    SetEngine(L"0", L"0", L"1");
    EXPECT_TRUE(Read(1, 4) == L"0: 6.5 2");
    SetEngine(L"7", L"1", L"1");
    EXPECT_TRUE(Read(8, 4) == L"0: 7.1 1");
}

TEST_F(ProductVersions, AnotherModeAbove2IsError1168)
{
    SetEngine(L"7", L"1", L"1");
    EXPECT_TRUE(Read(1, 3) == L"1168: 0.0 0");
    EXPECT_TRUE(Read(1, 5) == L"1168: 0.0 0");
}

TEST_F(ProductVersions, AnotherKindIsError87)
{
    EXPECT_TRUE(Read(0) == L"87: 0.0 0");
    EXPECT_TRUE(Read(8) == L"87: 0.0 0");
}

TEST_F(Probes, AModulesFileVersionIsThatOfItsResource)
{
    const FileVersion library = GetModuleFileVersion((ProgramFolder() + L"\\VTFltMgr.dll").c_str());
    EXPECT_EQ(0x00000001u, library.high); // 0.1
    EXPECT_EQ(0u, library.low);
    const FileVersion none = GetModuleFileVersion((ProgramFolder() + L"\\VTFltSim.dll").c_str());
    EXPECT_EQ(0u, none.high);
    EXPECT_EQ(0u, none.low);
    EXPECT_EQ(0u, GetModuleFileVersion(L"Q:\\missing.dll").high);
}

TEST_F(Probes, AVersionResourceThatCannotBeReadIsNoVersion)
{
    const std::wstring library = ProgramFolder() + L"\\VTFltMgr.dll";
    for (const wchar_t* const function : {L"GetFileVersionInfoSizeW", L"GetFileVersionInfoW", L"VerQueryValueW"}) {
        vtfltsim::FailCall(function, ERROR_RESOURCE_TYPE_NOT_FOUND);
        EXPECT_EQ(0u, GetModuleFileVersion(library.c_str()).high) << Narrow(function);
        VTFltSimClearCallFaults();
    }
}

TEST_F(Probes, TheLocalTimeIsTheSameTextInBothForms)
{
    wchar_t wide[TIME_TEXT_CAPACITY];
    GetLocalTimeText(wide);
    EXPECT_TRUE(MaskTimes(L"[" + std::wstring(wide)) == L"[0000/00/00 00:00:00:000") << Narrow(wide);
    char narrow[TIME_TEXT_CAPACITY];
    GetLocalTimeText(narrow);
    const std::string text = narrow;
    EXPECT_TRUE(MaskTimes(L"[" + std::wstring(text.begin(), text.end())) == L"[0000/00/00 00:00:00:000") << text;
}

TEST_F(Probes, PlatformsAreNamedByTheNativeArchitecture)
{
    EXPECT_STREQ(L"X86", PlatformName(0));
    EXPECT_STREQ(L"IA64", PlatformName(6));
    EXPECT_STREQ(L"X64", PlatformName(9));
    EXPECT_STREQ(L"Unknown", PlatformName(12));
    EXPECT_STREQ(L"Unknown", PlatformName(0xFFFF));
    EXPECT_EQ(9, LOGUTILS::CSysInfo().Get().wProcessorArchitecture);
}

TEST_F(Probes, TheSystemsVersionIsAskedInTheExtendedFormThenInThePlainOne)
{
    VTFltSimResetCounts();
    const LOGUTILS::CWinVer extended;
    EXPECT_TRUE(extended.IsValid());
    EXPECT_EQ(284u, extended.Get().dwOSVersionInfoSize);
    EXPECT_EQ(1u, VTFltSimGetCallCount(L"GetVersionExW"));
    vtfltsim::FailCall(L"GetVersionExW", ERROR_INVALID_PARAMETER);
    const LOGUTILS::CWinVer plain;
    EXPECT_TRUE(plain.IsValid());
    EXPECT_EQ(276u, plain.Get().dwOSVersionInfoSize);
    EXPECT_EQ(extended.Get().dwMajorVersion, plain.Get().dwMajorVersion);
    VTFltSimClearCallFaults();
    vtfltsim::FailCall(L"GetVersionExW", ERROR_INVALID_PARAMETER, nullptr, 1, 2);
    EXPECT_FALSE(LOGUTILS::CWinVer().IsValid());
}

TEST_F(Probes, AVersionThatIsNotKnownIsMinusOneInTheSystemLine)
{
    vtfltsim::FailCall(L"GetVersionExW", ERROR_INVALID_PARAMETER, nullptr, 1, 0);
    vtfltsim::FailCall(L"GetComputerNameW", ERROR_INVALID_PARAMETER, nullptr, 1, 0);
    Start(File(L"t.log"));
    Write(L"m");
    EXPECT_NE(std::wstring::npos,
              WideFileText(File(L"t.log")).find(L"] OS      Info: Computer Name[] Version[-1.-1] Platform[X64]\r\n"));
}

TEST_F(Probes, ASetupKeyWithoutACommandLineIsNoWinPE)
{
    MakeKey(L"SYSTEM\\Setup");
    EXPECT_FALSE(IsWinPE());
    SetWinPE(L"winpeshl.exe");
    vtfltsim::FailCall(L"RegQueryValueExW", ERROR_ACCESS_DENIED, L"|CmdLine", 2);
    EXPECT_FALSE(IsWinPE()) << "the text was not read";
    EXPECT_EQ(1u, VTFltSimGetCallFaultHits());
}

TEST_F(Probes, AnotherKindIsNotPresent)
{
    MakeKey(ENGINE);
    for (const DWORD kind : {0u, 3u, 8u})
        EXPECT_FALSE(IsComponentPresent(kind)) << kind;
}

TEST_F(Probes, ATextForWhichThereIsNoMemoryIsError8)
{
    SetText(MANAGEMENT, L"Path", L"C:\\Lumen\\Management");
    vtfltsim::FailCall(L"malloc", ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(8u, InstallPath(2, m_path));
    EXPECT_EQ(1u, VTFltSimGetCallFaultHits());
    EXPECT_TRUE(m_path.empty());
}

TEST_F(Probes, ATextThatCannotBeReadAlthoughItsSizeCouldGivesTheRegistrysError)
{
    SetText(MANAGEMENT, L"Path", L"C:\\Lumen\\Management");
    vtfltsim::FailCall(L"RegQueryValueExW", ERROR_ACCESS_DENIED, L"|Path", 2);
    EXPECT_EQ(5u, InstallPath(2, m_path));
    EXPECT_EQ(1u, VTFltSimGetCallFaultHits());
    EXPECT_TRUE(m_path.empty());
}

TEST_F(Probes, APathThatDoesNotFitIsCut)
{
    const std::wstring path = L"C:\\" + std::wstring(600, L'p');
    SetText(MANAGEMENT, L"Path", path);
    EXPECT_EQ(0u, InstallPath(2, m_path));
    EXPECT_TRUE(m_path == path.substr(0, 511));
    SetText(MANAGEMENT, L"Path", path.substr(0, 511));
    EXPECT_EQ(0u, InstallPath(2, m_path));
    EXPECT_TRUE(m_path == path.substr(0, 511));
}

TEST_F(ProductVersions, AConsoleKeyWithoutAVersionIsTheRegistrysError)
{
    SetText(std::wstring(MANAGEMENT) + L"\\Console", L"UpdateVersionNumber", L"2");
    EXPECT_TRUE(Read(2) == L"2: 0.0 0");
}

TEST_F(Probes, AVersionResourceOfNothingOrWithoutMemoryIsNoVersion)
{
    const std::wstring library = ProgramFolder() + L"\\VTFltMgr.dll";
    VTFLTSIM_CALL_FAULT fault = {};
    fault.size = sizeof(fault);
    fault.what = VTFLTSIM_CALL_RETURNS;
    fault.function = L"VerQueryValueW";
    fault.count = 1;
    fault.value = TRUE; // and gives neither a place nor a length
    vtfltsim::Check("VTFltSimSetCallFault", VTFltSimSetCallFault(&fault));
    EXPECT_EQ(0u, GetModuleFileVersion(library.c_str()).high);
    EXPECT_EQ(1u, VTFltSimGetCallFaultHits());
    VTFltSimClearCallFaults();
    vtfltsim::FailCall(L"malloc", ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(0u, GetModuleFileVersion(library.c_str()).high);
    EXPECT_EQ(1u, VTFltSimGetCallFaultHits());
}

// A 32-bit process, as far as the log can tell: what the system answers is answered by functions of the case.
class Wow64 : public Probes {
protected:
    static BOOL WINAPI IsWow64(HANDLE, BOOL* answer)
    {
        *answer = TRUE;
        return TRUE;
    }
    static BOOL WINAPI CannotTell(HANDLE, BOOL* answer)
    {
        *answer = TRUE;
        return FALSE;
    }
    static void WINAPI NativeSystemInfo(SYSTEM_INFO* info) { info->wProcessorArchitecture = 6; }

    // From now on the name stands for this function; null: there is none.
    template <class Function>
    static void Answer(const wchar_t* name, Function* function)
    {
        VTFLTSIM_CALL_FAULT fault = {};
        fault.size = sizeof(fault);
        fault.what = VTFLTSIM_CALL_RETURNS;
        fault.function = L"GetProcAddress";
        fault.match = name;
        fault.error = ERROR_PROC_NOT_FOUND;
        fault.value = reinterpret_cast<ULONG_PTR>(function);
        vtfltsim::Check("VTFltSimSetCallFault", VTFltSimSetCallFault(&fault));
    }
    std::vector<std::wstring> Opened()
    {
        VTFltSimRecord(1);
        EXPECT_TRUE(IsComponentPresent(COMPONENT_ENGINE));
        VTFltSimRecord(0);
        return Recorded(L"RegOpenKeyExW");
    }
    static WORD Architecture() { return LOGUTILS::CSysInfo().Get().wProcessorArchitecture; }

    const std::vector<std::wstring> m_plain{std::wstring(L"RegOpenKeyExW ") + ENGINE};
    const std::vector<std::wstring> m_64{std::wstring(L"RegOpenKeyExW ") + ENGINE + L"|64-bit view"};
};

TEST_F(Wow64, OpensKeysInThe64BitView)
{
    MakeKey(ENGINE);
    EXPECT_TRUE(Opened() == m_plain);
    Answer(L"IsWow64Process", &IsWow64);
    EXPECT_TRUE(Opened() == m_64);
}

TEST_F(Wow64, IsNotAssumedWhereTheSystemCannotTell)
{
    MakeKey(ENGINE);
    Answer(L"IsWow64Process", &CannotTell);
    EXPECT_TRUE(Opened() == m_plain);
    VTFltSimClearCallFaults();
    Answer<void>(L"IsWow64Process", nullptr);
    EXPECT_TRUE(Opened() == m_plain);
    VTFltSimClearCallFaults();
    vtfltsim::FailCall(L"GetModuleHandleW", ERROR_MOD_NOT_FOUND, L"kernel32");
    EXPECT_TRUE(Opened() == m_plain);
    EXPECT_EQ(1u, VTFltSimGetCallFaultHits());
}

TEST_F(Wow64, TheMachineIsTheNativeOne)
{
    EXPECT_EQ(9, Architecture());
    Answer(L"IsWow64Process", &IsWow64);
    EXPECT_EQ(9, Architecture());
    Answer(L"GetNativeSystemInfo", &NativeSystemInfo);
    EXPECT_EQ(6, Architecture());
}

TEST_F(Wow64, WithoutTheFunctionForTheNativeMachineItStaysZero)
{
    Answer(L"IsWow64Process", &IsWow64);
    Answer<void>(L"GetNativeSystemInfo", nullptr);
    const LOGUTILS::CSysInfo machine;
    const SYSTEM_INFO nothing = {};
    EXPECT_EQ(0, std::memcmp(&nothing, &machine.Get(), sizeof(nothing)));
}

} // namespace
