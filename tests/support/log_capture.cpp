#include "support/log_capture.h"

#include "support/text.h"

#include <algorithm>
#include <gtest/gtest.h>

#if defined(VT_TEST_LINKED)
#include "log/log.h"
#endif

#if !defined(_WIN32)
#include "double/api.h"
#endif

namespace vttest {

namespace {

std::wstring WithoutLineFeeds(std::wstring text)
{
    while (!text.empty() && text.back() == L'\n')
        text.pop_back();
    return text;
}

std::string Show(const std::vector<LogRecord>& records)
{
    std::string lines;
    for (const LogRecord& record : records)
        lines += "  level " + std::to_string(record.level) + " code " + std::to_string(record.code) + " \"" +
                 Narrow(record.text) + "\"\n";
    return lines.empty() ? "  (nothing)\n" : lines;
}

#if defined(VT_TEST_LINKED)
class CaptureOutput final : public vtflt::IDBGLogOutput {
public:
    explicit CaptureOutput(LogCapture& capture) : m_capture(capture) {}
    void WriteLogA(int, DWORD, const char*) override { ADD_FAILURE() << "the library logs wide text only"; }
    void WriteLogW(int level, DWORD errorCode, const wchar_t* text) override { m_capture.Add(level, errorCode, text); }
    DWORD GetLogLevel() override { return m_capture.Threshold(); }

private:
    LogCapture& m_capture;
};
#endif

} // namespace

#if defined(VT_TEST_LINKED)
const bool LogCapture::VISIBLE = true;

LogCapture::LogCapture()
{
    m_previous = vtflt::ExchangeLog(new vtflt::CDBGLog(new CaptureOutput(*this), nullptr));
}

LogCapture::~LogCapture()
{
    delete vtflt::ExchangeLog(static_cast<vtflt::CDBGLog*>(m_previous));
}
#else
const bool LogCapture::VISIBLE = false;

LogCapture::LogCapture() = default;
LogCapture::~LogCapture() = default;
#endif

void LogCapture::Add(int level, DWORD code, const wchar_t* text)
{
#if defined(_WIN32)
    const std::lock_guard lock(m_mutex);
#else
    // One thread runs at a time. A lock would only put the threads' other doings in order to the thread sanitizer's
    // eyes, and so hide what it is to find.
    const vtdouble::NotWatched notWatched;
#endif
    m_records.push_back({level, code, text});
}

void LogCapture::ExpectLogged(int level, DWORD code, std::wstring text) const
{
    if (!VISIBLE)
        return;
    const std::wstring wanted = WithoutLineFeeds(std::move(text));
    const bool found = std::any_of(m_records.begin(), m_records.end(), [&](const LogRecord& record) {
        return record.level == level && record.code == code && record.text == wanted;
    });
    EXPECT_TRUE(found) << "not logged: level " << level << " code " << code << " \"" << Narrow(wanted)
                       << "\"\nlogged:\n"
                       << Show(m_records);
}

void LogCapture::ExpectNotLogged(std::wstring text) const
{
    const std::wstring unwanted = WithoutLineFeeds(std::move(text));
    for (const LogRecord& record : m_records)
        EXPECT_FALSE(record.text == unwanted) << "logged: " << Narrow(unwanted);
}

void LogCapture::ExpectNothingLogged() const
{
    EXPECT_TRUE(m_records.empty()) << "logged:\n" << Show(m_records);
}

void LogCapture::ExpectExactly(const std::vector<LogRecord>& expected, int maximumLevel) const
{
    if (!VISIBLE)
        return;
    std::vector<LogRecord> wanted = expected;
    for (LogRecord& record : wanted)
        record.text = WithoutLineFeeds(record.text);
    std::vector<LogRecord> actual;
    std::copy_if(m_records.begin(), m_records.end(), std::back_inserter(actual),
                 [&](const LogRecord& record) { return record.level <= maximumLevel; });
    const bool same = std::equal(wanted.begin(), wanted.end(), actual.begin(), actual.end(),
                                 [](const LogRecord& a, const LogRecord& b) {
                                     return a.level == b.level && a.code == b.code && a.text == b.text;
                                 });
    EXPECT_TRUE(same) << "expected:\n" << Show(wanted) << "logged:\n" << Show(actual);
}

} // namespace vttest
