#include "log/share_memory.h"

#include "log/bounded_text.h"
#include "log/object_names.h"
#include "log/probes.h"

#include <cstring>

namespace vtflt {

namespace {

LogRingBlock& RingOf(const UniqueView& view) noexcept
{
    return *static_cast<LogRingBlock*>(view.get());
}

// False when there is no memory for it.
bool AddMessage(std::vector<LogMessagePtr>& messages, const LogRecordBlock& record) noexcept
{
    try {
        messages.push_back(LogMessagePtr(new CLogMessage(record)));
        return true;
    } catch (...) {
        return false;
    }
}

} // namespace

void BuildRingName(wchar_t (&name)[LOG_RING_NAME_CAPACITY], std::wstring_view prefix,
                   std::wstring_view executableName) noexcept
{
    CopyText(name, prefix);
    const std::wstring_view own = executableName.substr(0, LOG_EXECUTABLE_NAME_CAPACITY - 1);
    wchar_t upper[LOG_EXECUTABLE_NAME_CAPACITY] = {};
    LCMapStringEx(LOCALE_NAME_INVARIANT, LCMAP_UPPERCASE, own.data(), static_cast<int>(own.size()), upper,
                  static_cast<int>(LOG_EXECUTABLE_NAME_CAPACITY - 1), nullptr, nullptr, 0);
    AppendText(name, FieldText(upper));
}

CLogShareMemory::CLogShareMemory(std::wstring_view name) noexcept
{
    CopyText(m_name, name);
}

bool CLogShareMemory::OpenAsWriter() noexcept
{
    Close();
    wchar_t eventName[LOG_RING_NAME_CAPACITY];
    BuildName(eventName, LOG_RING_EVENT_PREFIX);
    m_event.reset(OpenEventW(EVENT_ALL_ACCESS, FALSE, eventName));
    if (m_event && OpenObjects())
        return true;
    Close();
    return false;
}

bool CLogShareMemory::OpenObjects() noexcept
{
    wchar_t mutexName[LOG_RING_NAME_CAPACITY];
    wchar_t global[LOG_RING_NAME_CAPACITY];
    wchar_t local[LOG_RING_NAME_CAPACITY];
    BuildName(mutexName, LOG_RING_MUTEX_PREFIX);
    BuildName(global, LOG_RING_GLOBAL_MAPPING_PREFIX);
    BuildName(local, LOG_RING_LOCAL_MAPPING_PREFIX);

    OpenToEveryone everyone;
    m_mutex.reset(CreateMutexW(everyone.get(), FALSE, mutexName));
    if (!m_mutex)
        return false;
    const MutexHold hold(m_mutex.get(), INFINITE);
    if (!hold)
        return false;
    bool existed = false;
    m_mapping = CreateSharedMapping({global, local}, sizeof(LogRingBlock), existed);
    const UniqueView view = Map();
    if (!view)
        return false;
    if (!existed) {
        std::memset(view.get(), 0, sizeof(LogRingBlock));
        StartLogRing(RingOf(view));
    }
    return true;
}

bool CLogShareMemory::OpenAsReader() noexcept
{
    Close();
    wchar_t mutexName[LOG_RING_NAME_CAPACITY];
    wchar_t global[LOG_RING_NAME_CAPACITY];
    wchar_t local[LOG_RING_NAME_CAPACITY];
    BuildName(mutexName, LOG_RING_MUTEX_PREFIX);
    BuildName(global, LOG_RING_GLOBAL_MAPPING_PREFIX);
    BuildName(local, LOG_RING_LOCAL_MAPPING_PREFIX);
    m_mutex.reset(OpenMutexW(SYNCHRONIZE | MUTEX_MODIFY_STATE, FALSE, mutexName));
    m_mapping = OpenSharedMapping({global, local});
    if (m_mutex && Map())
        return true;
    Close();
    return false;
}

void CLogShareMemory::Close() noexcept
{
    m_event.reset();
    m_mapping.reset();
    m_mutex.reset();
}

bool CLogShareMemory::WriteMessage(int level, DWORD errorCode, std::wstring_view moduleName,
                                   std::wstring_view text) noexcept
{
    if (text.empty())
        return false;
    LogRecordBlock record = {};
    CopyText(record.executableName, FieldText(m_name));
    CopyText(record.moduleName, moduleName);
    record.time = GetLocalRecordTime();
    record.errorCode = errorCode;
    record.level = level;
    record.processId = GetCurrentProcessId();
    record.threadId = GetCurrentThreadId();
    CopyText(record.text, text);
    return Append(record);
}

bool CLogShareMemory::Append(const LogRecordBlock& record) noexcept
{
    {
        const MutexHold hold(m_mutex.get());
        if (!hold)
            return false;
        const UniqueView view = Map();
        if (!view)
            return false;
        AppendRecord(RingOf(view), record);
    }
    SetEvent(m_event.get());
    return true;
}

bool CLogShareMemory::ReadMessages(std::vector<LogMessagePtr>& messages) noexcept
{
    m_overwritten = 0;
    if (!m_mutex)
        return false;
    const MutexHold hold(m_mutex.get());
    if (!hold)
        return false;
    const UniqueView view = Map();
    if (!view)
        return false;
    LogRingBlock& ring = RingOf(view);
    // Copies: somebody who ignores the mutex must not be able to keep this loop going.
    const std::int64_t last = ring.writeSequence;
    if (last == -1)
        return true;
    const LogRingBacklog backlog = ReadBacklog(ring.readSequence, last);
    m_overwritten = backlog.overwritten;
    std::int64_t read = backlog.read;
    while (read != last && AddMessage(messages, ring.slots[RingSlot(NextSequence(read))]))
        read = NextSequence(read);
    ring.readSequence = read;
    return true;
}

void CLogShareMemory::BuildName(wchar_t (&name)[LOG_RING_NAME_CAPACITY], std::wstring_view prefix) const noexcept
{
    BuildRingName(name, prefix, FieldText(m_name));
}

UniqueView CLogShareMemory::Map() const noexcept
{
    return m_mapping ? MapShared(m_mapping.get(), sizeof(LogRingBlock)) : UniqueView();
}

} // namespace vtflt
