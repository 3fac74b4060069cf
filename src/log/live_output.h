// The log's output to a live viewer.
//
// While a viewer's presence event exists, every record that passes goes into the ring of this process's executable name,
// and the viewer is woken. The viewer can also set breakpoints: a thread that logs a matching record announces its hit
// and waits until the viewer lets it go, or is gone. Without a viewer this output does nothing, at the cost of one failed
// opening of an event. Nothing fails the caller.
#pragma once

#include "log/breakpoint_block.h"
#include "log/log.h"
#include "log/share_memory.h"
#include "win/owners.h"

#include <memory>
#include <string_view>

namespace vtflt::NSDBG {

class CSMOutput final : public IDBGLogOutput {
public:
    // The threshold while a viewer is there: every record passes.
    static constexpr DWORD EVERYTHING = 9999;

    CSMOutput() noexcept;
    CSMOutput(const CSMOutput&) = delete;
    CSMOutput& operator=(const CSMOutput&) = delete;
    // Disconnects.
    ~CSMOutput() override;

    // Converts from the ANSI code page, 1024 characters at most, and goes on as WriteLogW.
    void WriteLogA(int level, DWORD errorCode, const char* text) override;
    // Writes the record when there is a viewer; returns when a breakpoint that it hit has let it go.
    void WriteLogW(int level, DWORD errorCode, const wchar_t* text) override;
    // EVERYTHING while there is a viewer, else 0.
    DWORD GetLogLevel() override;

    // The place of a text's release among the operations of classes like this one; here there is nothing to release.
    virtual void ReleaseText(wchar_t* text) noexcept;
    // Closes the ring and the breakpoints.
    virtual void Disconnect() noexcept;
    // Opens both. False, disconnected, when there is no viewer or no ring; breakpoints may be missing.
    virtual bool Connect() noexcept;
    virtual bool IsViewerPresent() noexcept;
    virtual bool OpenRing() noexcept;
    virtual bool OpenBreakpoints() noexcept;
    virtual void Write(int level, DWORD errorCode, const wchar_t* text) noexcept;

private:
    // The viewer's objects.
    struct BreakpointTable {
        UniqueHandle event;
        UniqueHandle mutex;
        UniqueHandle mapping;
    };
    // A hit that is stored. The table is shared, because a thread that waits must not lose it to one that disconnects.
    struct StoredHit {
        std::shared_ptr<BreakpointTable> table;
        LogUuid identifier;
    };

    StoredHit TestBreakpoints(std::wstring_view text) noexcept;
    void WaitAtBreakpoint(const StoredHit& hit) noexcept;

    CRITICAL_SECTION m_lock;                                     // guards everything below
    wchar_t m_executableName[LOG_BREAKPOINT_NAME_CAPACITY] = {}; // empty until a viewer was there
    wchar_t m_moduleName[LOG_BREAKPOINT_NAME_CAPACITY] = {};
    std::unique_ptr<CLogShareMemory> m_ring;
    std::shared_ptr<BreakpointTable> m_breakpoints;
};

} // namespace vtflt::NSDBG
