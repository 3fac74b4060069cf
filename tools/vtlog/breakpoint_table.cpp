#include "breakpoint_table.h"

#include "common/text.h"
#include "failure.h"
#include "log/bounded_text.h"
#include "log/object_names.h"

#include <rpc.h>

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

namespace vtlog {
namespace {

using namespace vtflt;

constexpr wchar_t ALIVE_PREFIX[] = L"Global\\VTLOG_BREAKPOINT_";
// The last six bytes of an identifier, where others have a network address or chance.
constexpr std::uint8_t VTLOGS_MARK[6] = {'v', 't', 'l', 'o', 'g', 1};
// A thread makes its event right behind its hit. One that has not in this time has gone.
constexpr std::uint64_t ORPHAN_MILLISECONDS = 10'000;
constexpr std::uint64_t VISIT_MILLISECONDS = 1'000;
// At a visit, so that a block full of nonsense keeps nobody from the mutex; the next visit goes on.
constexpr std::size_t ORPHANS_AT_ONCE = 256;

LogUuid MakeIdentifier()
{
    UUID uuid = {};
    const RPC_STATUS status = UuidCreate(&uuid);
    if (status != RPC_S_OK && status != RPC_S_UUID_LOCAL_ONLY)
        throw Failure(Exit::Internal, "no identifier could be made: " + toolkit::ErrorText(static_cast<DWORD>(status)));
    LogUuid identifier = {};
    std::memcpy(identifier.bytes, &uuid, sizeof(identifier.bytes));
    std::copy(std::begin(VTLOGS_MARK), std::end(VTLOGS_MARK), std::end(identifier.bytes) - std::size(VTLOGS_MARK));
    return identifier;
}

std::wstring UuidName(const wchar_t* prefix, const LogUuid& uuid)
{
    wchar_t text[LOG_UUID_TEXT_CAPACITY];
    BuildUuidText(text, uuid);
    return std::wstring(prefix) + text;
}

// A name that cannot be opened for another reason than that it is not there counts as there.
bool IsAlive(const LogUuid& identifier)
{
    const UniqueHandle event(OpenEventW(SYNCHRONIZE, FALSE, UuidName(ALIVE_PREFIX, identifier).c_str()));
    return event || GetLastError() != ERROR_FILE_NOT_FOUND;
}

// The gate of the writers says how many entries are taken, whatever stood there.
void Recount(LogBreakpointBlock& block) noexcept
{
    block.count =
        static_cast<std::int32_t>(std::count_if(std::begin(block.breakpoints), std::end(block.breakpoints),
                                                [](const LogBreakpoint& entry) { return !entry.identifier.IsNone(); }));
}

[[noreturn]] void FailOn(const char* what, DWORD error)
{
    throw Failure(Exit::Unreadable,
                  fmt::format("the breakpoints' {} cannot be had: {}", what, toolkit::ErrorText(error)));
}

} // namespace

bool IsVtlogs(const LogUuid& identifier) noexcept
{
    return std::equal(std::begin(VTLOGS_MARK), std::end(VTLOGS_MARK),
                      std::end(identifier.bytes) - std::size(VTLOGS_MARK));
}

UniqueHandle OpenHitEvent(const LogUuid& hit) noexcept
{
    wchar_t text[LOG_UUID_TEXT_CAPACITY];
    wchar_t name[std::size(LOG_HIT_EVENT_PREFIX) + LOG_UUID_TEXT_CAPACITY];
    BuildUuidText(text, hit);
    CopyText(name, LOG_HIT_EVENT_PREFIX);
    AppendText(name, text);
    return UniqueHandle(OpenEventW(EVENT_MODIFY_STATE, FALSE, name));
}

BreakpointTable::BreakpointTable()
{
    OpenToEveryone everyone;
    m_mutex.reset(CreateMutexW(everyone.get(), FALSE, LOG_BREAKPOINT_MUTEX_NAME));
    if (!m_mutex)
        FailOn("mutex", GetLastError());
    m_event.reset(CreateEventW(everyone.get(), FALSE, FALSE, LOG_BREAKPOINT_EVENT_NAME));
    if (!m_event)
        FailOn("event", GetLastError());
    bool existed = false;
    // New memory is zero: no breakpoint, no hit.
    m_mapping = CreateSharedMapping({LOG_BREAKPOINT_GLOBAL_MAPPING_NAME, LOG_BREAKPOINT_LOCAL_MAPPING_NAME},
                                    sizeof(LogBreakpointBlock), existed);
    if (!m_mapping)
        FailOn("memory", GetLastError());
    m_view = MapShared(m_mapping.get(), sizeof(LogBreakpointBlock));
    if (!m_view)
        throw Failure(Exit::Unreadable,
                      "the breakpoints' memory is smaller than it must be: another program has made it");
}

BreakpointTable::~BreakpointTable()
{
    if (!m_own.empty())
        RemoveAll();
}

BreakpointTable::BreakpointTable(OpenOnly) noexcept
    : m_event(OpenEventW(SYNCHRONIZE, FALSE, LOG_BREAKPOINT_EVENT_NAME)),
      m_mutex(OpenMutexW(SYNCHRONIZE | MUTEX_MODIFY_STATE, FALSE, LOG_BREAKPOINT_MUTEX_NAME)),
      m_mapping(OpenSharedMapping({LOG_BREAKPOINT_GLOBAL_MAPPING_NAME, LOG_BREAKPOINT_LOCAL_MAPPING_NAME}))
{
    if (m_mapping)
        m_view = MapShared(m_mapping.get(), sizeof(LogBreakpointBlock));
}

std::optional<BreakpointTable> BreakpointTable::Open()
{
    BreakpointTable table{OpenOnly{}};
    if (!table.m_event || !table.m_mutex || !table.m_view)
        return std::nullopt;
    return table;
}

LogBreakpointBlock& BreakpointTable::Block() const noexcept
{
    return *static_cast<LogBreakpointBlock*>(m_view.get());
}

bool BreakpointTable::IsOwn(const LogUuid& identifier) const noexcept
{
    return std::any_of(m_own.begin(), m_own.end(),
                       [&](const OwnBreakpoint& own) { return own.identifier == identifier; });
}

// The event is there before the entry: no other vtlog must take the entry for a dead one's.
LogUuid BreakpointTable::Add(const BreakpointRequest& request)
{
    LogBreakpoint entry = {};
    entry.identifier = MakeIdentifier();
    entry.processId = request.processId;
    entry.threadId = request.threadId;
    entry.enabled = 1;
    CopyText(entry.executableName, request.executableName);
    CopyText(entry.pattern, request.text);

    OpenToEveryone everyone;
    UniqueHandle alive(CreateEventW(everyone.get(), TRUE, FALSE, UuidName(ALIVE_PREFIX, entry.identifier).c_str()));
    if (!alive)
        FailOn("sign of life", GetLastError());
    m_own.push_back({entry.identifier, std::move(alive)});

    const MutexHold hold(m_mutex.get());
    if (!hold)
        throw Failure(Exit::Busy, "the breakpoints are held by a process that does not give them back");
    LogBreakpointBlock& block = Block();
    const auto free = std::find_if(std::begin(block.breakpoints), std::end(block.breakpoints),
                                   [](const LogBreakpoint& one) { return one.identifier.IsNone(); });
    if (free == std::end(block.breakpoints))
        throw Failure(Exit::Busy,
                      fmt::format("all {} breakpoints are set; end another viewer first", LOG_BREAKPOINT_COUNT));
    *free = entry;
    Recount(block);
    return entry.identifier;
}

bool BreakpointTable::RemoveAll() noexcept
{
    const MutexHold hold(m_mutex.get());
    if (!hold)
        return false;
    LogBreakpointBlock& block = Block();
    for (LogBreakpoint& entry : block.breakpoints) {
        if (IsOwn(entry.identifier))
            entry = {};
    }
    Recount(block);
    return true;
}

std::vector<LogBreakpointHit> BreakpointTable::Hits() const
{
    std::vector<LogBreakpointHit> hits;
    const MutexHold hold(m_mutex.get());
    if (!hold)
        return hits;
    std::copy_if(std::begin(Block().hits), std::end(Block().hits), std::back_inserter(hits),
                 [this](const LogBreakpointHit& hit) { return IsOwn(hit.breakpoint); });
    return hits;
}

void BreakpointTable::FreeHit(const LogUuid& hit) const noexcept
{
    const MutexHold hold(m_mutex.get());
    if (!hold)
        return;
    for (LogBreakpointHit& entry : Block().hits) {
        if (entry.hit == hit)
            entry = {};
    }
}

std::vector<LogBreakpointHit> BreakpointTable::ClearDead() const
{
    std::vector<LogBreakpointHit> orphans;
    const MutexHold hold(m_mutex.get());
    if (!hold)
        return orphans;
    LogBreakpointBlock& block = Block();
    std::vector<LogUuid> living;
    bool cleared = false;
    for (LogBreakpoint& entry : block.breakpoints) {
        if (!IsVtlogs(entry.identifier))
            continue;
        if (IsOwn(entry.identifier) || IsAlive(entry.identifier)) {
            living.push_back(entry.identifier);
            continue;
        }
        entry = {};
        cleared = true;
    }
    if (cleared)
        Recount(block);
    for (const LogBreakpointHit& hit : block.hits) {
        if (!IsVtlogs(hit.breakpoint) || std::find(living.begin(), living.end(), hit.breakpoint) != living.end())
            continue;
        // One that has taken its entry back still lets its own hits go.
        if (!IsOwn(hit.breakpoint) && !IsAlive(hit.breakpoint))
            orphans.push_back(hit);
        if (orphans.size() == ORPHANS_AT_ONCE)
            break;
    }
    return orphans;
}

void BreakpointCaretaker::Visit()
{
    if (GetTickCount64() - m_last < VISIT_MILLISECONDS)
        return;
    if (const auto table = BreakpointTable::Open())
        Visit(*table);
    m_last = GetTickCount64();
}

void BreakpointCaretaker::Visit(const BreakpointTable& table)
{
    const std::uint64_t now = GetTickCount64();
    if (now - m_last < VISIT_MILLISECONDS)
        return;
    m_last = now;
    std::vector<Orphan> left;
    for (const LogBreakpointHit& hit : table.ClearDead()) {
        const UniqueHandle event = OpenHitEvent(hit.hit);
        const auto known = std::find_if(m_orphans.begin(), m_orphans.end(),
                                        [&](const Orphan& orphan) { return orphan.hit == hit.hit; });
        const std::uint64_t firstSeen = known != m_orphans.end() ? known->firstSeen : now;
        if (event)
            SetEvent(event.get());
        if (event || now - firstSeen >= ORPHAN_MILLISECONDS)
            table.FreeHit(hit.hit);
        else
            left.push_back({hit.hit, firstSeen});
    }
    m_orphans = std::move(left);
}

} // namespace vtlog
