// The log of the shipped library: it is there from load to unload, and leaves nothing behind.
#include "log/bounded_text.h"
#include "log/config_block.h"
#include "support/config_names.h"
#include "support/registry_sandbox.h"
#include "support/text.h"
#include "win/owners.h"

#include <gtest/gtest.h>
#include <string>

using namespace vttest;

namespace {

using vtflt::UniqueHandle;

constexpr wchar_t ENGINE[] = L"SOFTWARE\\Veltrix\\Lumen Protect\\Engine";

class LogLoad : public testing::Test {
protected:
    using Prepare = DWORD(WINAPI*)(HANDLE);

    void SetUp() override
    {
        wchar_t temp[MAX_PATH] = {};
        ASSERT_NE(0u, GetTempPathW(MAX_PATH, temp));
        m_folder = std::wstring(temp) + L"VTFltMgr-log-load";
        m_library = m_folder + L"\\VTFltMgr.dll";
        m_log = m_folder + L"\\Logs\\VTFltMgr.dll.Log";
        m_processLog = m_folder + L"\\process.log";
        CreateDirectoryW(m_folder.c_str(), nullptr);
        DeleteFileW(m_log.c_str());
        wchar_t self[MAX_PATH] = {};
        GetModuleFileNameW(nullptr, self, MAX_PATH);
        m_programFolder = self;
        m_programFolder.resize(m_programFolder.rfind(L'\\'));
        ASSERT_TRUE(CopyFileW((m_programFolder + L"\\VTFltMgr.dll").c_str(), m_library.c_str(), FALSE));
        // The engine's folder contains the library: its logs lie below it.
        SetText(L"InstallPath", L"Path", m_folder);
    }
    void TearDown() override
    {
        EXPECT_FALSE(HasConfiguration());
        EXPECT_TRUE(DeleteFileW(m_library.c_str())) << "the library is still loaded";
        DeleteFileW(m_log.c_str());
        DeleteFileW(m_processLog.c_str());
        RemoveDirectoryW((m_folder + L"\\Logs").c_str());
        RemoveDirectoryW(m_folder.c_str());
    }

    void SetText(const std::wstring& subkey, const wchar_t* value, const std::wstring& text)
    {
        const auto* const bytes = reinterpret_cast<const std::uint8_t*>(text.c_str());
        m_registry.Set((std::wstring(ENGINE) + L"\\" + subkey).c_str(), value, REG_SZ,
                       {bytes, bytes + (text.size() + 1) * sizeof(wchar_t)});
    }
    void SetLevel(const wchar_t* module, std::uint8_t level)
    {
        m_registry.Set((std::wstring(ENGINE) + L"\\Debug").c_str(), module, REG_DWORD, {level, 0, 0, 0});
    }
    HMODULE Load() { return LoadLibraryW(m_library.c_str()); }
    // One record, at error level: the handle is not known.
    static void LogRecord(HMODULE library, std::uintptr_t handle)
    {
        const auto prepare =
            reinterpret_cast<Prepare>(reinterpret_cast<void (*)()>(GetProcAddress(library, "VTFltPrepareForSnapshot")));
        ASSERT_NE(nullptr, prepare);
        EXPECT_EQ(DWORD{ERROR_INVALID_PARAMETER}, prepare(reinterpret_cast<HANDLE>(handle)));
    }
    static bool HasConfiguration()
    {
        const UniqueHandle mutex(OpenMutexW(SYNCHRONIZE, FALSE, ConfigName(CONFIG_MUTEX).c_str()));
        const UniqueHandle global(OpenFileMappingW(FILE_MAP_READ, FALSE, ConfigName(CONFIG_MAPPING).c_str()));
        const UniqueHandle local(OpenFileMappingW(FILE_MAP_READ, FALSE, ConfigName(CONFIG_LOCAL_MAPPING).c_str()));
        return mutex || global || local;
    }
    // The log file that the library's entry names.
    static std::wstring EntryPath()
    {
        const UniqueHandle mapping(OpenFileMappingW(FILE_MAP_READ, FALSE, ConfigName(CONFIG_MAPPING).c_str()));
        const vtflt::UniqueView view(MapViewOfFile(mapping.get(), FILE_MAP_READ, 0, 0, 0));
        if (!view)
            return L"(no block)";
        const auto& entry = static_cast<const vtflt::LogCfgBlock*>(view.get())->modules[0];
        EXPECT_TRUE(vtflt::FieldText(entry.name) == L"VTFltMgr.dll");
        return std::wstring(vtflt::FieldText(entry.path));
    }
    // Gives the whole process a log file, as a program that edits the configuration does.
    static void SetProcessPath(const std::wstring& path)
    {
        const UniqueHandle mutex(OpenMutexW(SYNCHRONIZE, FALSE, ConfigName(CONFIG_MUTEX).c_str()));
        const UniqueHandle mapping(OpenFileMappingW(FILE_MAP_WRITE, FALSE, ConfigName(CONFIG_MAPPING).c_str()));
        const vtflt::UniqueView view(MapViewOfFile(mapping.get(), FILE_MAP_WRITE, 0, 0, 0));
        ASSERT_TRUE(view.valid());
        ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(mutex.get(), INFINITE));
        vtflt::CopyText(static_cast<vtflt::LogCfgBlock*>(view.get())->path, path);
        EXPECT_TRUE(ReleaseMutex(mutex.get()));
    }
    // Loads the library, gives the process its log file and logs one record, with these names in the list of those that
    // ignore that file.
    void LogBesideAProcessPath(const std::wstring& disabled)
    {
        SetText(L"Debug", L"DisableGlobalOption", disabled);
        const HMODULE library = Load();
        ASSERT_NE(nullptr, library);
        SetProcessPath(m_processLog);
        LogRecord(library, 0x99);
        EXPECT_TRUE(FreeLibrary(library));
    }
    static bool IsFile(const std::wstring& path) { return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }
    std::wstring LogText() const { return TextOf(m_log); }
    static std::wstring TextOf(const std::wstring& path)
    {
        // Alone: nobody else has it open.
        const UniqueHandle file(CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
        EXPECT_TRUE(file.valid());
        LARGE_INTEGER size = {};
        GetFileSizeEx(file.get(), &size);
        std::wstring text(static_cast<std::size_t>(size.QuadPart) / sizeof(wchar_t), L'\0');
        DWORD got = 0;
        EXPECT_TRUE(ReadFile(file.get(), text.data(), static_cast<DWORD>(text.size() * 2), &got, nullptr));
        return text;
    }
    static std::size_t Count(const std::wstring& text, const std::wstring& part)
    {
        std::size_t count = 0;
        for (std::size_t at = text.find(part); at != std::wstring::npos; at = text.find(part, at + 1))
            ++count;
        return count;
    }

    RegistrySandbox m_registry;
    std::wstring m_programFolder;
    std::wstring m_folder;
    std::wstring m_library;
    std::wstring m_log;
    std::wstring m_processLog;
};

TEST_F(LogLoad, TheConfigurationIsThereFromLoadToUnload)
{
    EXPECT_FALSE(HasConfiguration());
    const HMODULE library = Load();
    ASSERT_NE(nullptr, library);
    EXPECT_TRUE(UniqueHandle(OpenMutexW(SYNCHRONIZE, FALSE, ConfigName(CONFIG_MUTEX).c_str())).valid());
    EXPECT_EQ(Narrow(m_log), Narrow(EntryPath()));
    EXPECT_EQ(INVALID_FILE_ATTRIBUTES, GetFileAttributesW(m_log.c_str())) << "the first record makes the file";
    EXPECT_TRUE(FreeLibrary(library));
    EXPECT_FALSE(HasConfiguration());
}

TEST_F(LogLoad, WhereTheProductIsNotInstalledTheLogLiesBesideTheProgramAndNotBesideTheLibrary)
{
    RegDeleteTreeW(m_registry.Open(L"SOFTWARE").get(), nullptr);
    const HMODULE library = Load();
    ASSERT_NE(nullptr, library);
    EXPECT_EQ(Narrow(m_programFolder + L"\\Logs\\VTFltMgr.dll.Log"), Narrow(EntryPath()));
    EXPECT_TRUE(FreeLibrary(library));
}

TEST_F(LogLoad, OnWinPETheLogLiesBesideTheProgramAndNotBesideTheLibrary)
{
    const std::wstring commandLine = L"winpeshl.exe";
    const auto* const bytes = reinterpret_cast<const std::uint8_t*>(commandLine.c_str());
    m_registry.Set(L"SYSTEM\\Setup", L"CmdLine", REG_SZ, {bytes, bytes + (commandLine.size() + 1) * sizeof(wchar_t)});
    const HMODULE library = Load();
    ASSERT_NE(nullptr, library);
    EXPECT_EQ(Narrow(m_programFolder + L"\\Log\\VTFltMgr.dll.Log"), Narrow(EntryPath()));
    EXPECT_TRUE(FreeLibrary(library));
}

TEST_F(LogLoad, AProgramThatIsNamedInDisableGlobalOptionKeepsItsFile)
{
    LogBesideAProcessPath(L"other.exe LOAD_tests.exe");
    EXPECT_EQ(1u, Count(LogText(), L"Handle 0X99 not found"));
    EXPECT_FALSE(IsFile(m_processLog));
}

TEST_F(LogLoad, TheLibrarysNameInDisableGlobalOptionKeepsNothing)
{
    LogBesideAProcessPath(L"VTFltMgr.dll");
    EXPECT_EQ(1u, Count(TextOf(m_processLog), L"Handle 0X99 not found"));
    EXPECT_FALSE(IsFile(m_log));
}

TEST_F(LogLoad, ARecordNamesTheProgramAndTheLibraryAndTheUnloadClosesTheFile)
{
    const HMODULE library = Load();
    ASSERT_NE(nullptr, library);
    LogRecord(library, 0x123);
    EXPECT_TRUE(FreeLibrary(library));
    const std::wstring text = LogText();
    EXPECT_EQ(1u, Count(text, L"   0X00000057] VTFltPrepareForSnapshot: Handle 0X123 not found. "
                              L"Please provide valid volume handle.   {load_tests.exe::VTFltMgr.dll(0.0)}\r\n"));
    EXPECT_TRUE(DeleteFileW(m_log.c_str()));
}

TEST_F(LogLoad, AValueNamedAfterTheExecutableTakesPrecedenceOverOneNamedAfterTheLibrary)
{
    SetLevel(L"load_tests.exe", 1);
    SetLevel(L"VTFltMgr.dll", 4);
    const HMODULE library = Load();
    ASSERT_NE(nullptr, library);
    LogRecord(library, 1);
    EXPECT_TRUE(FreeLibrary(library));
    EXPECT_EQ(6u, Count(LogText(), L"   01   ")) << "the threshold in the summary block";
}

TEST_F(LogLoad, AValueNamedAfterTheLibraryCountsWhereThereIsNoneOfTheExecutable)
{
    SetLevel(L"VTFltMgr.dll", 4);
    const HMODULE library = Load();
    ASSERT_NE(nullptr, library);
    LogRecord(library, 1);
    EXPECT_TRUE(FreeLibrary(library));
    EXPECT_EQ(6u, Count(LogText(), L"   04   "));
}

TEST_F(LogLoad, EveryLifeOfTheLibraryReadsItsLevelsAnew)
{
    for (const std::uint8_t level : {std::uint8_t{1}, std::uint8_t{3}}) {
        SetLevel(L"VTFltMgr.dll", level);
        const HMODULE library = Load();
        ASSERT_NE(nullptr, library);
        LogRecord(library, 1);
        EXPECT_TRUE(FreeLibrary(library));
        EXPECT_EQ(6u, Count(LogText(), std::wstring(L"   0") + static_cast<wchar_t>(L'0' + level) + L"   "));
        DeleteFileW(m_log.c_str());
    }
}

TEST_F(LogLoad, ItIsLoadedAndUnloadedAgainAndAgainAndContinuesItsFile)
{
    for (std::uintptr_t round = 1; round <= 10; ++round) {
        const HMODULE library = Load();
        ASSERT_NE(nullptr, library);
        LogRecord(library, round);
        EXPECT_TRUE(FreeLibrary(library));
        EXPECT_FALSE(HasConfiguration());
    }
    const std::wstring text = LogText();
    EXPECT_EQ(10u, Count(text, L"VTFltPrepareForSnapshot: Handle 0X"));
    EXPECT_EQ(1u, Count(text, L"SUMMARY LOG"));
}

struct Logger {
    HMODULE library;
    HANDLE logged;
    HANDLE end;
};

DWORD WINAPI LogAndWait(void* context)
{
    const auto& logger = *static_cast<Logger*>(context);
    const auto prepare = reinterpret_cast<DWORD(WINAPI*)(HANDLE)>(
        reinterpret_cast<void (*)()>(GetProcAddress(logger.library, "VTFltPrepareForSnapshot")));
    const DWORD result = prepare(reinterpret_cast<HANDLE>(std::uintptr_t{0x77}));
    SetEvent(logger.logged);
    WaitForSingleObject(logger.end, INFINITE);
    return result;
}

TEST_F(LogLoad, AThreadThatLoggedMayEndAfterTheLibrary)
{
    const HMODULE library = Load();
    ASSERT_NE(nullptr, library);
    const UniqueHandle logged(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    const UniqueHandle end(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    Logger logger = {library, logged.get(), end.get()};
    const UniqueHandle thread(CreateThread(nullptr, 0, LogAndWait, &logger, 0, nullptr));
    ASSERT_TRUE(thread.valid());
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(logged.get(), INFINITE));
    EXPECT_TRUE(FreeLibrary(library));
    SetEvent(end.get());
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(thread.get(), INFINITE));
    DWORD result = 0;
    EXPECT_TRUE(GetExitCodeThread(thread.get(), &result));
    EXPECT_EQ(DWORD{ERROR_INVALID_PARAMETER}, result);
    EXPECT_EQ(1u, Count(LogText(), L"Handle 0X77 not found"));
}

} // namespace
