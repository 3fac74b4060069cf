#include "merge.h"

#include <algorithm>
#include <utility>

namespace vtlog {
namespace {

// How far is read ahead for the first time of a log. Beyond that, lines without a time come first.
constexpr std::size_t READ_AHEAD = 64;

// The first time in a file; nothing when it cannot be read, which its reader will say.
std::optional<RecordTime> FirstTime(const std::wstring& path, const ReadOptions& options)
{
    try {
        EntryReader reader = OpenLog(path, options);
        Entry entry;
        for (std::size_t i = 0; i < READ_AHEAD && reader.Next(entry); ++i) {
            if (entry.header)
                return entry.header->time;
        }
    } catch (const Failure&) {
        return std::nullopt;
    }
    return std::nullopt;
}

} // namespace

bool OrderByTime(std::vector<std::wstring>& paths, const ReadOptions& options)
{
    using Timed = std::pair<RecordTime, std::wstring>;
    std::vector<Timed> timed;
    for (const std::wstring& path : paths) {
        // Without a time: that of the file before it.
        const RecordTime before = timed.empty() ? RecordTime() : timed.back().first;
        timed.emplace_back(FirstTime(path, options).value_or(before), path);
    }
    const auto earlier = [](const Timed& a, const Timed& b) { return a.first < b.first; };
    if (std::is_sorted(timed.begin(), timed.end(), earlier))
        return false;
    std::stable_sort(timed.begin(), timed.end(), earlier);
    std::transform(timed.begin(), timed.end(), paths.begin(), [](const Timed& one) { return one.second; });
    return true;
}

LogReader::LogReader(std::vector<std::wstring> paths, const ReadOptions& options)
    : m_paths(std::move(paths)), m_options(options)
{
}

bool LogReader::ReadOne()
{
    for (; m_file < m_paths.size(); ++m_file) {
        if (ReadFrom(m_paths[m_file]))
            return true;
        m_reader.reset();
    }
    return false;
}

bool LogReader::ReadFrom(const std::wstring& path)
{
    try {
        if (!m_reader)
            m_reader.emplace(OpenLog(path, m_options));
        Entry entry;
        if (!m_reader->Next(entry))
            return false;
        m_isLog = m_isLog || entry.kind != EntryKind::Text;
        m_entries.push_back({std::move(entry), m_file});
        return true;
    } catch (const Failure& failure) {
        if (!m_options.failed)
            throw;
        m_options.failed(failure);
        return false;
    }
}

const Entry* LogReader::Head()
{
    if (m_entries.empty() && !ReadOne())
        return nullptr;
    if (!m_started) {
        m_started = true;
        while (!m_entries.back().entry.header && m_entries.size() < READ_AHEAD && ReadOne()) {
        }
        if (m_entries.back().entry.header)
            m_time = m_entries.back().entry.header->time;
    }
    // A clock that went back does not bring what follows before what was read already.
    const Entry& head = m_entries.front().entry;
    if (head.header && (!m_time || head.header->time > *m_time))
        m_time = head.header->time;
    return &head;
}

Entry LogReader::Take()
{
    Entry entry = std::move(m_entries.front().entry);
    m_entries.pop_front();
    return entry;
}

bool MergeReader::Next(MergedEntry& merged)
{
    // An entry without a time has that of the record before it, so it follows at once: every other log's head is later,
    // or it would have come before that record.
    LogReader* next = nullptr;
    for (LogReader& log : m_logs) {
        if (log.Head() != nullptr && (next == nullptr || log.Time() < next->Time()))
            next = &log;
    }
    if (next == nullptr)
        return false;
    merged.path = next->Path();
    merged.entry = next->Take();
    merged.number = m_given++;
    return true;
}

bool MergeReader::AnyLog() const noexcept
{
    for (const LogReader& log : m_logs) {
        if (log.IsLog())
            return true;
    }
    return false;
}

} // namespace vtlog
