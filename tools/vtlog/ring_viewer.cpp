#include "ring_viewer.h"

#include "common/text.h"
#include "failure.h"
#include "log/bounded_text.h"
#include "log/object_names.h"

#include <fmt/format.h>

#include <algorithm>

namespace vtlog {
namespace {

using namespace vtflt;
using toolkit::ToUtf8;

constexpr wchar_t READER_MARK_PREFIX[] = L"Global\\VTLOG_READER_";

std::wstring RingName(const wchar_t* prefix, const std::wstring& executableName)
{
    wchar_t name[LOG_RING_NAME_CAPACITY];
    BuildRingName(name, prefix, executableName);
    return name;
}

[[noreturn]] void FailOn(const char* what, const std::wstring& executableName, DWORD error)
{
    throw Failure(Exit::Unreadable, fmt::format("the live log's {} of {} cannot be had: {}", what,
                                                ToUtf8(executableName), toolkit::ErrorText(error)));
}

} // namespace

ViewerPresence::ViewerPresence()
{
    OpenToEveryone everyone;
    m_event.reset(CreateEventW(everyone.get(), TRUE, FALSE, LOG_VIEWER_EVENT_NAME));
    if (!m_event)
        throw Failure(Exit::Unreadable,
                      "the viewer's presence cannot be announced: " + toolkit::ErrorText(GetLastError()));
}

// The event comes last: without it no writer makes the ring, whose first record a reader could then not have.
RingViewer::RingViewer(const std::wstring& executableName) : m_name(executableName), m_ring(executableName)
{
    OpenToEveryone everyone;
    m_mutex.reset(CreateMutexW(everyone.get(), FALSE, RingName(LOG_RING_MUTEX_PREFIX, m_name).c_str()));
    if (!m_mutex)
        FailOn("mutex", m_name, GetLastError());
    {
        const MutexHold hold(m_mutex.get());
        if (!hold)
            throw Failure(Exit::Busy, fmt::format("the live log of {} is held by a process that does not give it back; "
                                                  "end that process, or wait for it",
                                                  ToUtf8(m_name)));
        bool existed = false;
        const std::wstring global = RingName(LOG_RING_GLOBAL_MAPPING_PREFIX, m_name);
        const std::wstring local = RingName(LOG_RING_LOCAL_MAPPING_PREFIX, m_name);
        m_mapping = CreateSharedMapping({global.c_str(), local.c_str()}, sizeof(LogRingBlock), existed);
        if (!m_mapping)
            FailOn("memory", m_name, GetLastError());
        const UniqueView view = MapShared(m_mapping.get(), sizeof(LogRingBlock));
        if (!view)
            throw Failure(Exit::Unreadable, fmt::format("the live log's memory of {} is smaller than it must be: "
                                                        "another program has made it",
                                                        ToUtf8(m_name)));
        if (!existed) {
            auto& ring = *static_cast<LogRingBlock*>(view.get());
            ring.readSequence = -1;
            ring.writeSequence = -1;
        }
    }
    m_event.reset(CreateEventW(everyone.get(), FALSE, FALSE, RingName(LOG_RING_EVENT_PREFIX, m_name).c_str()));
    if (!m_event)
        FailOn("event", m_name, GetLastError());
}

bool RingViewer::BecomeReader()
{
    OpenToEveryone everyone;
    UniqueHandle mark(CreateEventW(everyone.get(), TRUE, FALSE, RingName(READER_MARK_PREFIX, m_name).c_str()));
    const DWORD error = GetLastError();
    if (!mark || error == ERROR_ALREADY_EXISTS)
        return false;
    if (!m_ring.OpenAsReader())
        FailOn("ring", m_name, GetLastError());
    m_readerMark = std::move(mark);
    return true;
}

RingViewer::Batch RingViewer::Read()
{
    Batch batch;
    batch.done = m_ring.ReadMessages(batch.messages);
    if (!batch.done)
        return batch;
    batch.missed = m_first ? 0 : m_ring.Overwritten();
    m_first = false;
    // Of a slot that was overwritten, only its newest record is one.
    if (batch.messages.size() > LOG_RING_SLOTS) {
        const auto old = static_cast<std::ptrdiff_t>(batch.messages.size() - LOG_RING_SLOTS);
        batch.messages.erase(batch.messages.begin(), batch.messages.begin() + old);
    }
    return batch;
}

std::optional<LogRecordBlock> RingViewer::NewestOf(DWORD processId, DWORD threadId) const
{
    const MutexHold hold(m_mutex.get());
    const UniqueView view = hold ? MapShared(m_mapping.get(), sizeof(LogRingBlock)) : UniqueView();
    if (!view)
        return std::nullopt;
    const auto& ring = *static_cast<const LogRingBlock*>(view.get());
    const std::int64_t last = ring.writeSequence;
    for (std::size_t back = 0; back < LOG_RING_SLOTS; ++back) {
        const LogRecordBlock& record = ring.slots[(RingSlot(last) + LOG_RING_SLOTS - back) % LOG_RING_SLOTS];
        if (record.processId == processId && record.threadId == threadId)
            return record;
    }
    return std::nullopt;
}

std::wstring ExecutableNameOption(const std::string& text)
{
    const std::wstring name = toolkit::ToWide(text);
    if (name.empty() || name.size() >= LOG_EXECUTABLE_NAME_CAPACITY || name.find_first_of(L"\\/") != std::wstring::npos)
        throw Failure(Exit::Usage, fmt::format("--exe: \"{}\" is no program's file name; write it without its folder, "
                                               "such as vtbackup.exe",
                                               text));
    return name;
}

} // namespace vtlog
