#include "log/live_output.h"

#include "log/bounded_text.h"
#include "log/object_names.h"
#include "log/own_module.h"
#include "log/shared_objects.h"
#include "log/text_compare.h"

#include <rpc.h>

#include <bit>
#include <new>

namespace vtflt::NSDBG {

namespace {

constexpr DWORD BREAKPOINT_MUTEX_WAIT_MILLISECONDS = 10000;
// A viewer that died lets a stopped thread go after one of these.
constexpr DWORD HIT_WAIT_MILLISECONDS = 5000;
constexpr int NARROW_TEXT_CAPACITY = 1024; // characters that a narrow message may become

bool MakeUuid(LogUuid& identifier) noexcept
{
    UUID uuid = {};
    const RPC_STATUS status = UuidCreate(&uuid);
    if (status != RPC_S_OK && status != RPC_S_UUID_LOCAL_ONLY)
        return false;
    identifier = std::bit_cast<LogUuid>(uuid);
    return true;
}

bool CanOpenViewerEvent() noexcept
{
    return UniqueHandle(OpenEventW(SYNCHRONIZE, FALSE, LOG_VIEWER_EVENT_NAME)).valid();
}

} // namespace

CSMOutput::CSMOutput() noexcept
{
    InitializeCriticalSection(&m_lock);
}

CSMOutput::~CSMOutput()
{
    // Without the lock: at the end of the process its holder may be a thread that is no longer there.
    m_ring.reset();
    m_breakpoints.reset();
    DeleteCriticalSection(&m_lock);
}

void CSMOutput::WriteLogA(int level, DWORD errorCode, const char* text)
{
    if (text == nullptr)
        return;
    wchar_t wide[NARROW_TEXT_CAPACITY + 1];
    const int length = MultiByteToWideChar(CP_ACP, 0, text, -1, wide, NARROW_TEXT_CAPACITY + 1);
    if (length == 0)
        wide[0] = L'\0';
    WriteLogW(level, errorCode, wide);
}

void CSMOutput::WriteLogW(int level, DWORD errorCode, const wchar_t* text)
{
    if (text != nullptr && Connect())
        Write(level, errorCode, text);
}

DWORD CSMOutput::GetLogLevel()
{
    return IsViewerPresent() ? EVERYTHING : 0;
}

void CSMOutput::ReleaseText(wchar_t*) noexcept {}

void CSMOutput::Disconnect() noexcept
{
    const CriticalSectionHold lock(m_lock);
    m_ring.reset();
    m_breakpoints.reset();
}

bool CSMOutput::Connect() noexcept
{
    if (IsViewerPresent() && OpenRing()) {
        OpenBreakpoints();
        return true;
    }
    Disconnect();
    return false;
}

bool CSMOutput::IsViewerPresent() noexcept
{
    const CriticalSectionHold lock(m_lock);
    if (!CanOpenViewerEvent())
        return false;
    if (m_executableName[0] == L'\0') {
        CopyText(m_executableName, ExecutableModule().Name());
        CopyText(m_moduleName, OwnModule().Name());
    }
    return true;
}

bool CSMOutput::OpenRing() noexcept
{
    const CriticalSectionHold lock(m_lock);
    if (m_ring != nullptr)
        return true;
    m_ring.reset(new (std::nothrow) CLogShareMemory(FieldText(m_executableName)));
    if (m_ring != nullptr && !m_ring->OpenAsWriter())
        m_ring.reset();
    return m_ring != nullptr;
}

bool CSMOutput::OpenBreakpoints() noexcept
{
    const CriticalSectionHold lock(m_lock);
    if (m_breakpoints != nullptr)
        return true;
    try {
        auto table = std::make_shared<BreakpointTable>();
        table->event.reset(OpenEventW(EVENT_MODIFY_STATE | SYNCHRONIZE, FALSE, LOG_BREAKPOINT_EVENT_NAME));
        table->mutex.reset(OpenMutexW(SYNCHRONIZE | MUTEX_MODIFY_STATE, FALSE, LOG_BREAKPOINT_MUTEX_NAME));
        table->mapping = OpenSharedMapping({LOG_BREAKPOINT_GLOBAL_MAPPING_NAME, LOG_BREAKPOINT_LOCAL_MAPPING_NAME});
        if (table->event && table->mutex && table->mapping)
            m_breakpoints = std::move(table);
    } catch (...) {
        return false; // no memory for the table: the next record tries again
    }
    return m_breakpoints != nullptr;
}

void CSMOutput::Write(int level, DWORD errorCode, const wchar_t* text) noexcept
{
    StoredHit hit;
    {
        const CriticalSectionHold lock(m_lock);
        // Another thread may have disconnected since this one connected.
        if (m_ring == nullptr)
            return;
        m_ring->WriteMessage(level, errorCode, FieldText(m_moduleName), text);
        hit = TestBreakpoints(text);
    }
    if (hit.table != nullptr)
        WaitAtBreakpoint(hit);
}

CSMOutput::StoredHit CSMOutput::TestBreakpoints(std::wstring_view text) noexcept
{
    if (m_breakpoints == nullptr)
        return {};
    const MutexHold hold(m_breakpoints->mutex.get(), BREAKPOINT_MUTEX_WAIT_MILLISECONDS);
    if (!hold)
        return {};
    const UniqueView view = MapShared(m_breakpoints->mapping.get(), sizeof(LogBreakpointBlock));
    if (!view)
        return {};
    auto& block = *static_cast<LogBreakpointBlock*>(view.get());
    const LogEvent event = {FieldText(m_executableName), text, GetCurrentProcessId(), GetCurrentThreadId()};
    const LogBreakpoint* const breakpoint = FindHitBreakpoint(block, event, EqualIgnoringCase);
    if (breakpoint == nullptr)
        return {};
    LogBreakpointHit* const place = FindFreeHit(block);
    LogUuid identifier = {};
    if (place == nullptr || !MakeUuid(identifier))
        return {};
    *place = {breakpoint->identifier, identifier, event.processId, event.threadId};
    return {m_breakpoints, identifier};
}

void CSMOutput::WaitAtBreakpoint(const StoredHit& hit) noexcept
{
    wchar_t uuid[LOG_UUID_TEXT_CAPACITY];
    wchar_t name[std::size(LOG_HIT_EVENT_PREFIX) + LOG_UUID_TEXT_CAPACITY];
    BuildUuidText(uuid, hit.identifier);
    CopyText(name, LOG_HIT_EVENT_PREFIX);
    AppendText(name, uuid);

    OpenToEveryone everyone;
    const UniqueHandle released(CreateEventW(everyone.get(), FALSE, FALSE, name));
    if (!released)
        return;
    SetEvent(hit.table->event.get());
    while (IsViewerPresent()) {
        if (WaitForSingleObject(released.get(), HIT_WAIT_MILLISECONDS) != WAIT_TIMEOUT)
            return;
    }
}

} // namespace vtflt::NSDBG
