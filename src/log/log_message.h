// A live log record as its reader sees it.
#pragma once

#include "log/ring_block.h"
#include "win/windows.h"

#include <atomic>
#include <memory>
#include <string>

namespace vtflt {

// Reference-counted, with a copy of the record: it outlives the ring's slot. Any thread may use it.
class CLogMessage {
public:
    // The count starts at 1, for the caller.
    explicit CLogMessage(const LogRecordBlock& record) noexcept : m_record(record) {}
    CLogMessage(const CLogMessage&) = delete;
    CLogMessage& operator=(const CLogMessage&) = delete;
    virtual ~CLogMessage() = default;

    virtual void AddRef() noexcept;
    // Destroys the object with the last reference.
    virtual void Release() noexcept;

    // The header alone, as a log file shows it; without the message's text.
    virtual std::wstring GetHeaderText() const;
    virtual std::wstring GetExecutableName() const;
    virtual std::wstring GetModuleName() const;
    virtual DWORD GetProcessId() const noexcept;
    virtual DWORD GetThreadId() const noexcept;
    virtual DWORD GetErrorCode() const noexcept;
    virtual int GetLevel() const noexcept;
    virtual SYSTEMTIME GetTime() const noexcept;
    virtual std::wstring GetText() const;

private:
    LogRecordBlock m_record;
    std::atomic<LONG> m_references = 1;
};

struct LogMessageRelease {
    void operator()(CLogMessage* message) const noexcept { message->Release(); }
};
// One reference.
using LogMessagePtr = std::unique_ptr<CLogMessage, LogMessageRelease>;

} // namespace vtflt
