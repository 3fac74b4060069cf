#include "verify_story.h"

#include <algorithm>
#include <array>
#include <iterator>

namespace vtlog {
namespace {

constexpr std::size_t RECENT_RECORDS = 64;
constexpr std::size_t MAX_THREADS = 4096;
constexpr std::size_t MAX_EVIDENCE = 8;
constexpr std::size_t MAX_LISTS = 4096;

// A message of this length may have been cut by the log, so what it does not show may still be there.
constexpr std::size_t CUT_LENGTH = 1023;

constexpr std::wstring_view ADDING = L"CVolumeListForResync::UpdateApplicationValueAdding the ";
constexpr std::wstring_view LIST_WRITTEN = L"CVolumeListForResync::UpdateApplicationValue::SetMultiStringValue ";
constexpr std::wstring_view LIST_VALUE = L"DeviceListForReSync";

// Failures of bitmap files, by how their messages begin.
constexpr std::array<std::wstring_view, 5> BITMAP_FAILURES = {
    L"Open bitmap file failed, file name:",
    L"CBitmapContainer::ReadBitMapFromFile: ",
    L"CBitmapContainer::WriteBitMapToFile::",
    L"CBitmapContainer::ResetBitMapFiles::",
    L"CBitmapContainer::RemapOldBitmapToNewBlockSize::",
};

// An operation that writes lists: the record at its start, how the records at its end begin, and what it means.
struct Operation {
    std::wstring_view start;
    std::array<std::wstring_view, 2> ends;
    bool manyLists; // it writes several; the others one, so that what is written behind that is not theirs
    Cause cause;
};
constexpr std::array<Operation, 4> OPERATIONS = {{
    {L"ReplicateVerifyList: Enter",
     {L"ReplicateVerifyList: SUCCESS", L"ReplicateVerifyListFailed"},
     true,
     Cause::TrackingLost},
    {L"UnregisterApplication: Unregistering",
     {L"UnregisterApplication: SUCCESS", L"UnregisterApplication: Failed"},
     false,
     Cause::Unregistered},
    {L"RegisterApplication: Registering",
     {L"RegisterApplication: SUCCESS", L"RegisterApplication: Failed"},
     false,
     Cause::RegisteredInDoubt},
    {L"RemoveApplicationVolResyncList: Enter",
     {L"RemoveApplicationVolResyncListFailed", L"RemoveApplicationVolResyncListThe"},
     false,
     Cause::Rewritten},
}};

bool Ends(const Operation& operation, std::wstring_view message)
{
    return message.starts_with(operation.ends[0]) || message.starts_with(operation.ends[1]);
}

bool IsBitmapFailure(const Entry& entry)
{
    return entry.header->level == 0 &&
           std::any_of(BITMAP_FAILURES.begin(), BITMAP_FAILURES.end(),
                       [&](std::wstring_view text) { return entry.Message().starts_with(text); });
}

// How close an explanation is to certain: one that is known goes before one that is not.
int Weight(Cause cause) noexcept
{
    switch (cause) {
    case Cause::Rewritten:
        return 0;
    case Cause::Unknown:
        return 1;
    default:
        return 2;
    }
}

// "name to entries" taken apart: list names end where the entries begin.
std::pair<std::wstring_view, std::wstring_view> SplitWritten(std::wstring_view text)
{
    std::size_t at = text.find(L" to {");
    if (at == std::wstring_view::npos)
        at = text.find(L" to ");
    if (at == std::wstring_view::npos)
        return {text, {}};
    return {text.substr(0, at), text.substr(at + 4)};
}

} // namespace

VerifyStory::Thread& VerifyStory::ThreadOf(const RecordHeader& header)
{
    if (m_threads.size() >= MAX_THREADS) {
        const auto oldest = std::min_element(m_threads.begin(), m_threads.end(), [](const auto& a, const auto& b) {
            return a.second.lastUse < b.second.lastUse;
        });
        m_threads.erase(oldest);
    }
    Thread& thread = m_threads[{header.processId, header.threadId}];
    thread.lastUse = m_records;
    return thread;
}

void VerifyStory::Feed(const MergedEntry& merged)
{
    const Entry& entry = merged.entry;
    if (entry.kind != EntryKind::Record)
        return;
    const RecordHeader& header = *entry.header;
    ++m_records;
    m_information = m_information || header.level >= 2;
    if (!m_first || header.time < *m_first)
        m_first = header.time;
    if (!m_last || header.time > *m_last)
        m_last = header.time;

    const std::wstring_view message = entry.Message();
    Thread& thread = ThreadOf(header);
    if (message.starts_with(L"VTIsVerifyRequired: Driver not installed or not working"))
        m_driverDown = merged;
    if (IsBitmapFailure(entry) && message.find(m_guid) != std::wstring_view::npos) {
        const std::size_t name = message.rfind(L"VelVolTrc_");
        if (name != std::wstring_view::npos && m_bitmapFailures.size() < MAX_LISTS)
            m_bitmapFailures.insert_or_assign(std::wstring(message.substr(name)), merged);
    }
    if (message.starts_with(ADDING)) {
        thread.named = thread.named || message.find(m_guid) != std::wstring_view::npos;
        return; // says nothing that the list's own record does not
    }
    FeedOpen(merged, thread);
    if (message.starts_with(LIST_WRITTEN))
        FeedList(merged, thread, message.substr(LIST_WRITTEN.size()));
    thread.recent.push_back(merged);
    if (thread.recent.size() > RECENT_RECORDS)
        thread.recent.pop_front();
}

void VerifyStory::FeedList(const MergedEntry& merged, Thread& thread, std::wstring_view written)
{
    const auto [name, entries] = SplitWritten(written);
    if (!name.starts_with(LIST_VALUE) || m_lists.size() >= MAX_LISTS)
        return;
    const bool cut = merged.entry.Message().size() >= CUT_LENGTH || merged.entry.Cut();
    const bool with = entries.find(m_guid) != std::wstring_view::npos || (cut && thread.named);
    const std::wstring suffix(name.substr(LIST_VALUE.size()));
    List& list = m_lists[suffix];
    thread.named = false;
    if (!with) {
        list.evidence.clear();
        list.without = merged;
        return;
    }
    list.evidence.push_back(Explain(merged, thread));
    if (list.evidence.size() > MAX_EVIDENCE)
        list.evidence.erase(list.evidence.begin());
    thread.open = list.evidence.back().cause == Cause::Unknown ? suffix : std::wstring();
}

// What may explain a list that was written for no reason seen before.
void VerifyStory::FeedOpen(const MergedEntry& merged, Thread& thread)
{
    if (thread.open.empty())
        return;
    const auto found = m_lists.find(thread.open);
    const std::wstring_view message = merged.entry.Message();
    if (found == m_lists.end() || found->second.evidence.empty()) {
        thread.open.clear();
        return;
    }
    Evidence& last = found->second.evidence.back();
    const auto explained = [&](Cause cause) {
        last.cause = cause;
        last.records.push_back(merged);
        thread.open.clear();
    };
    constexpr std::wstring_view MANAGER = L"CMultiBitmapManager::VTDeviceIoControl: ";
    if (message.starts_with(L"CMultiBitmapManager::VTDeviceIoControl: Failed to sync snapshot changes"))
        explained(Cause::SnapshotChanges);
    else if (message.starts_with(MANAGER) && message.find(L" from verify list. ") != std::wstring_view::npos)
        explained(Cause::ListNotShortened);
    else if (message.starts_with(L"CMultiBitmapManager::VTDeviceIoControl: SUCCESS :: VTFLTCTL_SYNC_SNAPSHOT")) {
        // On the list only while the changes were merged.
        found->second.evidence.pop_back();
        thread.open.clear();
    } else if (message.starts_with(L"CMultiBitmapManager::VTDeviceIoControl: SUCCESS::Resetting the base bitmap"))
        explained(Cause::Rewritten);
    else if (merged.entry.header->level != 0)
        thread.open.clear();
}

Evidence VerifyStory::Explain(const MergedEntry& merged, const Thread& thread) const
{
    Evidence evidence;
    evidence.time = merged.entry.header->time;
    // Failures of a bitmap file right before.
    auto at = thread.recent.rbegin();
    while (at != thread.recent.rend() && IsBitmapFailure(at->entry))
        ++at;
    if (at != thread.recent.rbegin()) {
        evidence.cause = Cause::BitmapUnusable;
        evidence.records.assign(at.base(), thread.recent.end());
    } else {
        // An operation that has begun and not ended.
        bool wroteAnother = false;
        for (; at != thread.recent.rend() && evidence.records.empty(); ++at) {
            const std::wstring_view message = at->entry.Message();
            wroteAnother = wroteAnother || message.starts_with(LIST_WRITTEN);
            const auto operation = std::find_if(OPERATIONS.begin(), OPERATIONS.end(), [&](const Operation& o) {
                return message.starts_with(o.start) || Ends(o, message);
            });
            if (operation == OPERATIONS.end())
                continue;
            if (Ends(*operation, message) || (wroteAnother && !operation->manyLists))
                break;
            evidence.cause = operation->cause;
            evidence.records.push_back(*at);
        }
    }
    evidence.records.push_back(merged);
    return evidence;
}

void VerifyStory::Finish()
{
    for (auto& [key, thread] : m_threads) {
        const auto found = m_lists.find(thread.open);
        if (thread.open.empty() || found == m_lists.end() || found->second.evidence.empty())
            continue;
        // The last that the thread said. After it had fetched a bitmap, that is the merging of a snapshot's changes.
        const bool backup = std::any_of(thread.recent.begin(), thread.recent.end(), [](const MergedEntry& merged) {
            return merged.entry.Message().starts_with(
                L"CMultiBitmapManager::VTDeviceIoControl::Get bitmap is returning");
        });
        if (backup)
            found->second.evidence.back().cause = Cause::SnapshotInterrupted;
    }
}

const Evidence* VerifyStory::WhyOn(const std::wstring& list) const
{
    const auto found = m_lists.find(list);
    if (found == m_lists.end())
        return nullptr;
    const Evidence* best = nullptr;
    for (const Evidence& evidence : found->second.evidence) {
        if (best == nullptr || Weight(evidence.cause) >= Weight(best->cause))
            best = &evidence;
    }
    return best;
}

const MergedEntry* VerifyStory::LastWithout(const std::wstring& list) const
{
    const auto found = m_lists.find(list);
    return found == m_lists.end() || !found->second.without ? nullptr : &*found->second.without;
}

std::vector<std::wstring> VerifyStory::Lists() const
{
    std::vector<std::wstring> names;
    for (const auto& [name, list] : m_lists)
        names.push_back(name);
    return names;
}

const MergedEntry* VerifyStory::BitmapFailure(const std::wstring& application, const std::wstring& which) const
{
    const auto found = m_bitmapFailures.find(L"VelVolTrc_" + which + L"_" + application + L".dat");
    return found == m_bitmapFailures.end() ? nullptr : &found->second;
}

} // namespace vtlog
