// The double itself: what it can do beyond Windows. What it has in common with Windows is tested in tests/conformance.
#include "double/control.h"
#include "support/child.h"
#include "support/registry_sandbox.h"

#include <gtest/gtest.h>
#include <mutex>
#include <string>
#include <thread>

namespace vttest {
namespace {

using vtflt::UniqueHandle;

std::wstring TempFile()
{
    return L"C:\\users\\tester\\Temp\\double.bin";
}

UniqueHandle OpenFileForAll(DWORD disposition)
{
    return UniqueHandle(
        CreateFileW(TempFile().c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, disposition, 0, nullptr));
}

void Put(const UniqueHandle& file, LONG offset, const std::string& text)
{
    DWORD written = 0;
    SetFilePointer(file.get(), offset, nullptr, FILE_BEGIN);
    EXPECT_TRUE(WriteFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr));
}

std::string Get(const UniqueHandle& file)
{
    std::string text(100, '\0');
    DWORD read = 0;
    SetFilePointer(file.get(), 0, nullptr, FILE_BEGIN);
    EXPECT_TRUE(ReadFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &read, nullptr));
    text.resize(read);
    return text;
}

TEST(VirtualTime, AWaitOfHalfAnHourCostsNothing)
{
    const UniqueHandle event(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    const std::uint64_t before = DoubleTime();
    EXPECT_EQ(static_cast<DWORD>(WAIT_TIMEOUT), WaitForSingleObject(event.get(), 1'800'000));
    EXPECT_EQ(before + 1'800'000, DoubleTime());
}

// What threads note, in the order in which they do. Virtual time orders them, but that is no synchronisation.
class Notes {
public:
    void Add(char note)
    {
        const std::lock_guard lock(m_mutex);
        m_text += note;
    }
    std::string Text()
    {
        const std::lock_guard lock(m_mutex);
        return m_text;
    }

private:
    std::mutex m_mutex;
    std::string m_text;
};

TEST(VirtualTime, TheShorterSleepEndsFirst)
{
    Notes order;
    std::thread longer([&] {
        Sleep(2000);
        order.Add('b');
    });
    std::thread shorter([&] {
        Sleep(1000);
        order.Add('a');
    });
    longer.join();
    shorter.join();
    EXPECT_EQ("ab", order.Text());
}

TEST(PowerLoss, WhatWasNotFlushedIsAsItWas)
{
    const UniqueHandle file = OpenFileForAll(CREATE_ALWAYS);
    Put(file, 0, "kept");
    EXPECT_TRUE(FlushFileBuffers(file.get()));
    Put(file, 2, "lost and longer");
    EXPECT_EQ("kelost and longer", Get(file));
    EXPECT_EQ(1u, DoubleDropUnsynced());
    EXPECT_EQ("kept", Get(file));
    EXPECT_EQ(0u, DoubleDropUnsynced());
    DeleteFileW(TempFile().c_str());
}

TEST(PowerLoss, AFileThatWasCutComesBackWhole)
{
    const UniqueHandle file = OpenFileForAll(CREATE_ALWAYS);
    Put(file, 0, std::string(50, 'x'));
    EXPECT_TRUE(FlushFileBuffers(file.get()));
    SetFilePointer(file.get(), 3, nullptr, FILE_BEGIN);
    EXPECT_TRUE(SetEndOfFile(file.get()));
    DoubleDropUnsynced();
    EXPECT_EQ(std::string(50, 'x'), Get(file));
    DeleteFileW(TempFile().c_str());
}

TEST(Leaks, WhatIsOpenIsCountedByItsKind)
{
    const DoubleOpen before = DoubleCountOpen();
    HKEY key = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyW(HKEY_CURRENT_USER, L"Software\\Leak", &key));
    const HANDLE mutex = CreateMutexW(nullptr, TRUE, nullptr);
    const HANDLE mapping = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 10, nullptr);
    void* const view = MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, 0);
    const DoubleOpen open = DoubleCountOpen();
    EXPECT_EQ(before.handles + 2, open.handles);
    EXPECT_EQ(before.keys + 1, open.keys);
    EXPECT_EQ(before.views + 1, open.views);
    EXPECT_EQ(before.ownedMutexes + 1, open.ownedMutexes);
    UnmapViewOfFile(view);
    CloseHandle(mapping);
    ReleaseMutex(mutex);
    CloseHandle(mutex);
    CloseHandle(mutex);
    EXPECT_EQ(before.badCloses + 1, DoubleCountOpen().badCloses);
    RegCloseKey(key);
    RegDeleteKeyW(HKEY_CURRENT_USER, L"Software\\Leak");
}

// Two threads that lose their turn in any call: who gets it is the seed's choice.
std::string Interleaving(std::uint64_t seed)
{
    DoubleSeed(seed);
    Notes order;
    const auto run = [&order](char name) {
        for (int i = 0; i < 10; ++i) {
            order.Add(name);
            GetTickCount();
        }
    };
    std::thread first(run, 'a');
    std::thread second(run, 'b');
    first.join();
    second.join();
    DoubleSeed(0);
    return order.Text();
}

TEST(Seeds, TheSameSeedGivesTheSameOrderAndOthersGiveOthers)
{
    EXPECT_EQ(Interleaving(7), Interleaving(7));
    EXPECT_NE(Interleaving(7), Interleaving(8));
    EXPECT_EQ("aaaaaaaaaabbbbbbbbbb", Interleaving(0));
}

TEST(Processes, OneThatIsEndedLeavesItsMutexAbandoned)
{
    const UniqueHandle mutex(CreateMutexW(nullptr, FALSE, L"double.test.mutex"));
    const UniqueHandle held = NamedEvent(L"double.test.held");
    ChildProcess child(L"holder", {L"double.test.mutex", L"double.test.held"});
    ASSERT_TRUE(child.Await(held));
    EXPECT_EQ(static_cast<DWORD>(WAIT_TIMEOUT), WaitForSingleObject(mutex.get(), 60'000));
    ASSERT_TRUE(TerminateProcess(child.Handle(), 9));
    EXPECT_EQ(static_cast<DWORD>(WAIT_ABANDONED), WaitForSingleObject(mutex.get(), 60'000));
    ReleaseMutex(mutex.get());
    EXPECT_EQ(9u, child.Join());
}

TEST(Processes, EachStartsWithVariablesOfItsOwn)
{
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(1u, ChildProcess(L"holder", {L"count"}).Join());
}

} // namespace
} // namespace vttest
