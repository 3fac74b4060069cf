// A live record as its reader sees it.
#include "log/bounded_text.h"
#include "log/log_message.h"

#include <gtest/gtest.h>
#include <thread>
#include <vector>

using namespace vtflt;

namespace {

LogRecordBlock SomeRecord()
{
    LogRecordBlock record = {};
    CopyText(record.executableName, L"backup.exe");
    CopyText(record.moduleName, L"VTFltMgr.dll");
    record.time = {2026, 3, 0, 8, 4, 5, 6, 7};
    record.errorCode = 5;
    record.level = 4;
    record.processId = 123;
    record.threadId = 1234567;
    CopyText(record.text, L"the message %s");
    return record;
}

class CountedMessage : public CLogMessage {
public:
    CountedMessage(const LogRecordBlock& record, int& destroyed) : CLogMessage(record), m_destroyed(destroyed) {}
    ~CountedMessage() override { ++m_destroyed; }

private:
    int& m_destroyed;
};

TEST(LogMessage, GivesTheFieldsOfItsRecord)
{
    const LogMessagePtr message(new CLogMessage(SomeRecord()));
    EXPECT_EQ(L"backup.exe", message->GetExecutableName());
    EXPECT_EQ(L"VTFltMgr.dll", message->GetModuleName());
    EXPECT_EQ(123u, message->GetProcessId());
    EXPECT_EQ(1234567u, message->GetThreadId());
    EXPECT_EQ(5u, message->GetErrorCode());
    EXPECT_EQ(4, message->GetLevel());
    EXPECT_EQ(L"the message %s", message->GetText());
    const SYSTEMTIME time = message->GetTime();
    EXPECT_EQ(2026, time.wYear);
    EXPECT_EQ(3, time.wMonth);
    EXPECT_EQ(0, time.wDayOfWeek);
    EXPECT_EQ(8, time.wDay);
    EXPECT_EQ(4, time.wHour);
    EXPECT_EQ(5, time.wMinute);
    EXPECT_EQ(6, time.wSecond);
    EXPECT_EQ(7, time.wMilliseconds);
}

TEST(LogMessage, ItsHeaderTextIsTheHeaderAloneWithoutTheMessage)
{
    const LogMessagePtr message(new CLogMessage(SomeRecord()));
    EXPECT_EQ(L"[2026/03/08 04:05:06:007   04   00123   1234567   0X00000005] ", message->GetHeaderText());
}

TEST(LogMessage, ItsHeaderTextHasThirteenBlanksForNoError)
{
    LogRecordBlock record = SomeRecord();
    record.errorCode = 0;
    record.level = 0;
    const LogMessagePtr message(new CLogMessage(record));
    EXPECT_EQ(L"[2026/03/08 04:05:06:007   00   00123   1234567             ] ", message->GetHeaderText());
}

TEST(LogMessage, ItsHeaderTextHoldsTheLargestNumbers)
{
    LogRecordBlock record = SomeRecord();
    record.time = {65535, 65535, 65535, 65535, 65535, 65535, 65535, 65535};
    record.level = -2147483647 - 1;
    record.errorCode = record.processId = record.threadId = 0xFFFFFFFF;
    const LogMessagePtr message(new CLogMessage(record));
    EXPECT_EQ(L"[65535/65535/65535 65535:65535:65535:65535   -2147483648   -0001   -0001   0Xffffffff] ",
              message->GetHeaderText());
}

TEST(LogMessage, OwnsACopyOfItsRecord)
{
    LogRecordBlock record = SomeRecord();
    const LogMessagePtr message(new CLogMessage(record));
    record = {};
    EXPECT_EQ(L"the message %s", message->GetText());
}

TEST(LogMessage, IsDestroyedWithItsLastReference)
{
    int destroyed = 0;
    CLogMessage* const message = new CountedMessage(SomeRecord(), destroyed);
    message->AddRef();
    message->Release();
    EXPECT_EQ(0, destroyed);
    message->Release();
    EXPECT_EQ(1, destroyed);
}

TEST(LogMessage, ReferencesAreCountedByManyThreadsAtOnce)
{
    int destroyed = 0;
    CLogMessage* const message = new CountedMessage(SomeRecord(), destroyed);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        message->AddRef();
        threads.emplace_back([message] {
            for (int turn = 0; turn < 10000; ++turn) {
                message->AddRef();
                message->Release();
            }
            message->Release();
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(0, destroyed);
    message->Release();
    EXPECT_EQ(1, destroyed);
}

} // namespace
