// Loading and unloading the DLL, and the mark that a user of the library is running.
//
// This program uses the DLL by LoadLibrary alone: a program that is linked with it would carry the mark all the time.
#include "support/registry_sandbox.h"
#include "support/start_again.h"

#include <windows.h>

#include <gtest/gtest.h>
#include <sddl.h>
#include <string>
#include <vector>

namespace {

constexpr wchar_t MARK[] = L"Global\\{31496db0-cc86-11e5-adcd-1803733db143}.ActiveJob.VTFltMgr.Mutex";

class Handle {
public:
    explicit Handle(HANDLE handle = nullptr) : m_handle(handle) {}
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    ~Handle() { Close(); }
    void Close()
    {
        if (m_handle != nullptr)
            CloseHandle(m_handle);
        m_handle = nullptr;
    }
    HANDLE get() const { return m_handle; }

private:
    HANDLE m_handle;
};

bool IsMarked()
{
    const Handle mark(OpenMutexW(SYNCHRONIZE, FALSE, MARK));
    return mark.get() != nullptr;
}

std::wstring OwnFolder()
{
    WCHAR path[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    const std::wstring text = path;
    return text.substr(0, text.rfind(L'\\') + 1);
}

// The mark as a process makes it whose objects others may only wait for.
HANDLE MakeGuardedMark(const wchar_t* accessRules)
{
    SECURITY_ATTRIBUTES attributes = {sizeof(attributes), nullptr, FALSE};
    if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(accessRules, SDDL_REVISION_1,
                                                              &attributes.lpSecurityDescriptor, nullptr))
        return nullptr;
    const HANDLE mark = CreateMutexW(&attributes, FALSE, MARK);
    LocalFree(attributes.lpSecurityDescriptor);
    return mark;
}

// Everyone may synchronise, and nobody may do more.
constexpr wchar_t WAIT_ONLY[] = L"D:(A;;0x00100000;;;WD)";
// Nobody may do anything; the owner is the system, for an owner may always wait.
constexpr wchar_t NOTHING_AT_ALL[] = L"O:SYD:(D;;0x001F0001;;;WD)";

DWORD RunProbe()
{
    std::wstring commandLine = L"\"" + OwnFolder() + L"active_job_probe.exe\"";
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION started = {};
    const bool running = vttest::StartAgain([&] {
        return CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                              &started);
    });
    if (!running)
        return 0xDEAD;
    const Handle thread(started.hThread);
    const Handle process(started.hProcess);
    DWORD exitCode = 0xDEAD;
    WaitForSingleObject(process.get(), INFINITE);
    GetExitCodeProcess(process.get(), &exitCode);
    return exitCode;
}

class Load : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_FALSE(IsMarked()) << "another user of the library is running in this Wine prefix";
        WCHAR folder[MAX_PATH] = {};
        ASSERT_NE(GetTempPathW(MAX_PATH, folder), 0u);
        for (const wchar_t* name : {L"VTFltMgr-load-1.dll", L"VTFltMgr-load-2.dll"}) {
            m_copies.push_back(std::wstring(folder) + name);
            ASSERT_TRUE(CopyFileW((OwnFolder() + L"VTFltMgr.dll").c_str(), m_copies.back().c_str(), FALSE));
        }
    }
    void TearDown() override
    {
        for (const std::wstring& copy : m_copies)
            EXPECT_TRUE(DeleteFileW(copy.c_str())) << "the DLL is still loaded";
        EXPECT_FALSE(IsMarked());
    }
    HMODULE LoadCopy(std::size_t which) const { return LoadLibraryW(m_copies[which].c_str()); }

private:
    std::vector<std::wstring> m_copies;
};

TEST_F(Load, TheMarkExistsWhileTheLibraryIsLoadedAndIsGoneAfter)
{
    const HMODULE module = LoadCopy(0);
    ASSERT_NE(module, nullptr);
    EXPECT_TRUE(IsMarked());
    EXPECT_TRUE(FreeLibrary(module));
    EXPECT_FALSE(IsMarked());
}

TEST_F(Load, TheMarkStaysUntilTheLastUserIsGone)
{
    const HMODULE first = LoadCopy(0);
    const HMODULE second = LoadCopy(1);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    ASSERT_NE(first, second);
    EXPECT_TRUE(FreeLibrary(first));
    EXPECT_TRUE(IsMarked());
    EXPECT_TRUE(FreeLibrary(second));
    EXPECT_FALSE(IsMarked());
}

TEST_F(Load, NobodyOwnsTheMark)
{
    const HMODULE module = LoadCopy(0);
    ASSERT_NE(module, nullptr);
    Handle mark(OpenMutexW(SYNCHRONIZE, FALSE, MARK));
    ASSERT_NE(mark.get(), nullptr);
    EXPECT_EQ(WaitForSingleObject(mark.get(), 0), WAIT_OBJECT_0);
    // The library does not wait for it either: it can be unloaded while another owns it.
    EXPECT_TRUE(FreeLibrary(module));
    EXPECT_TRUE(ReleaseMutex(mark.get()));
}

TEST_F(Load, AMarkOfAMorePrivilegedProcessIsHeldOpenToo)
{
    Handle guarded(MakeGuardedMark(WAIT_ONLY));
    ASSERT_NE(guarded.get(), nullptr);
    const Handle refused(CreateMutexW(nullptr, FALSE, MARK));
    ASSERT_EQ(refused.get(), nullptr);
    ASSERT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));

    const HMODULE module = LoadCopy(0);
    ASSERT_NE(module, nullptr);
    guarded.Close();
    EXPECT_TRUE(IsMarked()) << "the library holds it";
    EXPECT_TRUE(FreeLibrary(module));
    EXPECT_FALSE(IsMarked());
}

TEST_F(Load, TheLibraryLoadsWithoutAMarkToo)
{
    const Handle event(CreateEventW(nullptr, TRUE, FALSE, MARK));
    ASSERT_NE(event.get(), nullptr);
    const HMODULE module = LoadCopy(0);
    EXPECT_NE(module, nullptr) << "the load never fails";
    EXPECT_TRUE(FreeLibrary(module));
}

TEST_F(Load, ItCanBeLoadedAndUnloadedAgainAndAgain)
{
    for (int round = 0; round < 10; ++round) {
        const HMODULE module = LoadCopy(0);
        ASSERT_NE(module, nullptr);
        EXPECT_NE(GetProcAddress(module, "VTFltInitBitmapManager"), nullptr);
        EXPECT_TRUE(FreeLibrary(module));
    }
}

// Nobody is told what becomes of a manager that was not given up; the process must go on, and a later load begin anew.
TEST_F(Load, ItCanBeUnloadedWithAManagerThatIsStillThere)
{
    using Init = DWORD(WINAPI*)(HANDLE, LPCWSTR, LPCWSTR);
    using Deinit = DWORD(WINAPI*)(HANDLE);
    const vttest::RegistrySandbox registry;
    constexpr wchar_t IDS[] = L"App1\0";
    const auto* const bytes = reinterpret_cast<const std::uint8_t*>(IDS);
    registry.Set(L"SOFTWARE\\Veltrix\\Shared\\CBTDriver\\AppIDs", L"RegisteredAppIDs", REG_MULTI_SZ,
                 {bytes, bytes + sizeof(IDS)});
    const Handle volume(CreateEventW(nullptr, FALSE, FALSE, nullptr)); // any handle: nothing is asked of it
    for (int round = 0; round < 3; ++round) {
        const HMODULE module = LoadCopy(0);
        ASSERT_NE(module, nullptr);
        const auto init =
            reinterpret_cast<Init>(reinterpret_cast<void (*)()>(GetProcAddress(module, "VTFltInitBitmapManager")));
        const auto deinit =
            reinterpret_cast<Deinit>(reinterpret_cast<void (*)()>(GetProcAddress(module, "VTFltDeinitBitmapManager")));
        ASSERT_TRUE(init != nullptr && deinit != nullptr);
        EXPECT_EQ(deinit(volume.get()), static_cast<DWORD>(ERROR_INVALID_PARAMETER)) << "of the load before";
        EXPECT_EQ(init(volume.get(), L"\\\\?\\Volume{11111111-2222-3333-4444-555555555555}\\", L"App1"), 0u);
        EXPECT_TRUE(FreeLibrary(module));
        EXPECT_FALSE(IsMarked());
    }
    EXPECT_TRUE(SetEvent(volume.get())) << "the handle stays its owner's";
}

DWORD WINAPI DoNothing(void*)
{
    return 0;
}

TEST_F(Load, ThreadsThatComeAndGoDoNotMatter)
{
    const HMODULE module = LoadCopy(0);
    ASSERT_NE(module, nullptr);
    const Handle thread(CreateThread(nullptr, 0, DoNothing, nullptr, 0, nullptr));
    ASSERT_NE(thread.get(), nullptr);
    EXPECT_EQ(WaitForSingleObject(thread.get(), INFINITE), WAIT_OBJECT_0);
    EXPECT_TRUE(IsMarked());
    EXPECT_TRUE(FreeLibrary(module));
}

TEST_F(Load, TheFirstUserSees0AndAnotherSees183)
{
    EXPECT_EQ(RunProbe(), 0u);
    const HMODULE module = LoadCopy(0);
    ASSERT_NE(module, nullptr);
    EXPECT_EQ(RunProbe(), 183u);
    EXPECT_TRUE(FreeLibrary(module));
}

TEST_F(Load, AUserThatCouldOnlyOpenTheMarkSees183)
{
    const Handle guarded(MakeGuardedMark(WAIT_ONLY));
    ASSERT_NE(guarded.get(), nullptr);
    EXPECT_EQ(RunProbe(), 183u);
}

TEST_F(Load, AMarkThatCanNeitherBeMadeNorOpenedIsTheErrorOfTheOpening)
{
    Handle guarded(MakeGuardedMark(NOTHING_AT_ALL));
    ASSERT_NE(guarded.get(), nullptr);
    const Handle refused(OpenMutexW(SYNCHRONIZE, FALSE, MARK));
    ASSERT_EQ(refused.get(), nullptr);
    EXPECT_EQ(RunProbe(), 5u);

    const HMODULE module = LoadCopy(0);
    ASSERT_NE(module, nullptr) << "the load never fails";
    guarded.Close();
    EXPECT_FALSE(IsMarked()) << "this user left no mark";
    EXPECT_TRUE(FreeLibrary(module));
}

TEST_F(Load, ANameThatAnotherKindOfObjectHoldsIsTheErrorOfTheMaking)
{
    const Handle event(CreateEventW(nullptr, TRUE, FALSE, MARK));
    ASSERT_NE(event.get(), nullptr);
    EXPECT_EQ(RunProbe(), 6u);
}

} // namespace
