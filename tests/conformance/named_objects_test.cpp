// What the library relies on of named objects and waits. The same cases run on Windows' side and on the double, so that
// the double cannot drift from the real thing.
#include "support/text.h"
#include "win/owners.h"

#include <gtest/gtest.h>
#include <sddl.h>
#include <string>
#include <thread>

namespace vttest {
namespace {

using vtflt::UniqueHandle;

std::wstring Name(const wchar_t* stem)
{
    return std::wstring(L"VTConformance.") + stem + L"." + WideNumber(GetCurrentProcessId());
}

UniqueHandle MakeMutex(const std::wstring& name)
{
    return UniqueHandle(CreateMutexW(nullptr, FALSE, name.c_str()));
}

DWORD Wait(const UniqueHandle& handle, DWORD milliseconds = 0)
{
    return WaitForSingleObject(handle.get(), milliseconds);
}

constexpr DWORD TAKEN = WAIT_OBJECT_0;
constexpr DWORD BUSY = WAIT_TIMEOUT;
constexpr DWORD LEFT = WAIT_ABANDONED;

TEST(NamedMutex, AFreshOneLeavesNoErrorAndAnExistingOne183)
{
    const std::wstring name = Name(L"fresh");
    SetLastError(77);
    const UniqueHandle first = MakeMutex(name);
    EXPECT_EQ(0u, GetLastError());
    const UniqueHandle second = MakeMutex(name);
    EXPECT_EQ(static_cast<DWORD>(ERROR_ALREADY_EXISTS), GetLastError());
    EXPECT_TRUE(second.valid());
}

TEST(NamedMutex, ItIsGoneWithItsLastHandle)
{
    const std::wstring name = Name(L"gone");
    UniqueHandle mutex = MakeMutex(name);
    EXPECT_TRUE(UniqueHandle(OpenMutexW(SYNCHRONIZE, FALSE, name.c_str())).valid());
    mutex.reset();
    EXPECT_FALSE(UniqueHandle(OpenMutexW(SYNCHRONIZE, FALSE, name.c_str())).valid());
    EXPECT_EQ(static_cast<DWORD>(ERROR_FILE_NOT_FOUND), GetLastError());
}

TEST(NamedMutex, ItsOwnerTakesItAgainAndReleasesAsOften)
{
    const UniqueHandle mutex = MakeMutex(Name(L"recursive"));
    EXPECT_EQ(TAKEN, Wait(mutex));
    EXPECT_EQ(TAKEN, Wait(mutex));
    EXPECT_TRUE(ReleaseMutex(mutex.get()));
    DWORD other = 0;
    std::thread([&] { other = Wait(mutex); }).join();
    EXPECT_EQ(BUSY, other);
    EXPECT_TRUE(ReleaseMutex(mutex.get()));
    EXPECT_FALSE(ReleaseMutex(mutex.get()));
    EXPECT_EQ(static_cast<DWORD>(ERROR_NOT_OWNER), GetLastError());
}

TEST(NamedMutex, AThreadThatEndsAsItsOwnerLeavesItAbandonedOnce)
{
    const UniqueHandle mutex = MakeMutex(Name(L"abandoned"));
    std::thread([&] { EXPECT_EQ(TAKEN, Wait(mutex)); }).join();
    EXPECT_EQ(LEFT, Wait(mutex));
    EXPECT_TRUE(ReleaseMutex(mutex.get()));
    EXPECT_EQ(TAKEN, Wait(mutex));
    EXPECT_TRUE(ReleaseMutex(mutex.get()));
}

TEST(NamedMutex, AWaiterGetsItFromItsOwner)
{
    const UniqueHandle mutex = MakeMutex(Name(L"handed"));
    ASSERT_EQ(TAKEN, Wait(mutex));
    DWORD got = 0;
    std::thread waiter([&] {
        got = Wait(mutex, INFINITE);
        ReleaseMutex(mutex.get());
    });
    EXPECT_TRUE(ReleaseMutex(mutex.get()));
    waiter.join();
    EXPECT_EQ(TAKEN, got);
}

TEST(NamedMutex, GlobalAndLocalNamesAreApart)
{
    const std::wstring name = Name(L"apart");
    const UniqueHandle global = MakeMutex(L"Global\\" + name);
    EXPECT_FALSE(UniqueHandle(OpenMutexW(SYNCHRONIZE, FALSE, name.c_str())).valid());
    const UniqueHandle local = MakeMutex(name);
    EXPECT_EQ(0u, GetLastError());
    EXPECT_TRUE(UniqueHandle(OpenMutexW(SYNCHRONIZE, FALSE, (L"Local\\" + name).c_str())).valid());
}

TEST(NamedObjects, ANameHeldByAnotherKindIs6)
{
    const std::wstring name = Name(L"kind");
    const UniqueHandle event(CreateEventW(nullptr, TRUE, FALSE, name.c_str()));
    ASSERT_TRUE(event.valid());
    EXPECT_FALSE(MakeMutex(name).valid());
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_HANDLE), GetLastError());
    EXPECT_FALSE(UniqueHandle(OpenMutexW(SYNCHRONIZE, FALSE, name.c_str())).valid());
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_HANDLE), GetLastError());
}

TEST(NamedObjects, AnAccessListRefusesCreationAndAllowsWhatItSays)
{
    const std::wstring name = Name(L"guarded");
    SECURITY_ATTRIBUTES attributes = {sizeof(attributes), nullptr, FALSE};
    ASSERT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(L"D:(A;;0x00100000;;;WD)", SDDL_REVISION_1,
                                                                     &attributes.lpSecurityDescriptor, nullptr));
    const UniqueHandle guarded(CreateMutexW(&attributes, FALSE, name.c_str()));
    LocalFree(attributes.lpSecurityDescriptor);
    ASSERT_TRUE(guarded.valid());
    EXPECT_FALSE(MakeMutex(name).valid());
    EXPECT_EQ(static_cast<DWORD>(ERROR_ACCESS_DENIED), GetLastError());
    EXPECT_TRUE(UniqueHandle(OpenMutexW(SYNCHRONIZE, FALSE, name.c_str())).valid());
}

TEST(Events, AnAutomaticOneLetsOneWaiterThrough)
{
    const UniqueHandle event(CreateEventW(nullptr, FALSE, TRUE, nullptr));
    EXPECT_EQ(TAKEN, Wait(event));
    EXPECT_EQ(BUSY, Wait(event));
    EXPECT_TRUE(SetEvent(event.get()));
    EXPECT_TRUE(SetEvent(event.get()));
    EXPECT_EQ(TAKEN, Wait(event));
    EXPECT_EQ(BUSY, Wait(event));
}

TEST(Events, AManualOneStaysUntilItIsReset)
{
    const UniqueHandle event(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    EXPECT_EQ(BUSY, Wait(event, 1));
    EXPECT_TRUE(SetEvent(event.get()));
    EXPECT_EQ(TAKEN, Wait(event));
    EXPECT_EQ(TAKEN, Wait(event));
    EXPECT_TRUE(ResetEvent(event.get()));
    EXPECT_EQ(BUSY, Wait(event));
}

TEST(Events, OneOpenedForWaitingCannotBeSet)
{
    const std::wstring name = Name(L"waitonly");
    const UniqueHandle event(CreateEventW(nullptr, TRUE, FALSE, name.c_str()));
    const UniqueHandle opened(OpenEventW(SYNCHRONIZE, FALSE, name.c_str()));
    ASSERT_TRUE(opened.valid());
    EXPECT_FALSE(SetEvent(opened.get()));
    EXPECT_EQ(static_cast<DWORD>(ERROR_ACCESS_DENIED), GetLastError());
}

TEST(Waits, TheFirstSignalledOfSeveralEndsTheWait)
{
    const UniqueHandle first(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    const UniqueHandle second(CreateEventW(nullptr, TRUE, TRUE, nullptr));
    const HANDLE both[] = {first.get(), second.get()};
    EXPECT_EQ(static_cast<DWORD>(WAIT_OBJECT_0 + 1), WaitForMultipleObjects(2, both, FALSE, INFINITE));
    EXPECT_EQ(BUSY, WaitForMultipleObjects(2, both, TRUE, 1));
    SetEvent(first.get());
    EXPECT_EQ(TAKEN, WaitForMultipleObjects(2, both, TRUE, INFINITE));
}

TEST(Waits, AClosedHandleIs6)
{
    UniqueHandle event(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    const HANDLE stale = event.get();
    event.reset();
    EXPECT_EQ(WAIT_FAILED, WaitForSingleObject(stale, 0));
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_HANDLE), GetLastError());
    EXPECT_FALSE(CloseHandle(stale));
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_HANDLE), GetLastError());
}

TEST(Mappings, TwoViewsShowTheSameBytesAndAMissingOneIs2)
{
    const std::wstring name = Name(L"mapping");
    const UniqueHandle mapping(
        CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 4096, name.c_str()));
    ASSERT_TRUE(mapping.valid());
    EXPECT_EQ(0u, GetLastError());
    const UniqueHandle opened(OpenFileMappingW(FILE_MAP_READ, FALSE, name.c_str()));
    ASSERT_TRUE(opened.valid());
    auto* const written = static_cast<char*>(MapViewOfFile(mapping.get(), FILE_MAP_WRITE, 0, 0, 0));
    auto* const read = static_cast<const char*>(MapViewOfFile(opened.get(), FILE_MAP_READ, 0, 0, 0));
    ASSERT_TRUE(written != nullptr && read != nullptr);
    EXPECT_EQ(0, read[4095]);
    written[4095] = 5;
    EXPECT_EQ(5, read[4095]);
    EXPECT_EQ(nullptr, MapViewOfFile(opened.get(), FILE_MAP_WRITE, 0, 0, 0));
    EXPECT_EQ(static_cast<DWORD>(ERROR_ACCESS_DENIED), GetLastError());
    EXPECT_TRUE(UnmapViewOfFile(written));
    EXPECT_TRUE(UnmapViewOfFile(read));
    EXPECT_FALSE(UniqueHandle(OpenFileMappingW(FILE_MAP_READ, FALSE, Name(L"nothing").c_str())).valid());
    EXPECT_EQ(static_cast<DWORD>(ERROR_FILE_NOT_FOUND), GetLastError());
}

} // namespace
} // namespace vttest
