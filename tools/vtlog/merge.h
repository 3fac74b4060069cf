// Several logs as one, in the order of time, with memory for one entry a file.
//
// The files of one log are read one behind the other. Logs are merged by the times of their records; where two are the
// same, the log that was named first comes first. Within a log the order of the file stands, also where the clock went
// back. What has no time of its own stays behind the record before it.
#pragma once

#include "log_files.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

namespace vtlog {

// One log: its files, one behind the other.
class LogReader {
public:
    LogReader(std::vector<std::wstring> paths, const ReadOptions& options);

    // The next entry, or null at the end; valid until Take. Throws Failure.
    [[nodiscard]] const Entry* Head();
    // The time by which the head is merged; nothing when nothing of the log has a time.
    [[nodiscard]] const std::optional<RecordTime>& Time() const noexcept { return m_time; }
    [[nodiscard]] const std::wstring& Path() const { return m_paths[m_entries.front().file]; }
    Entry Take();
    // Whether any file so far held a record, a summary line or a column line.
    [[nodiscard]] bool IsLog() const noexcept { return m_isLog; }

private:
    struct Read {
        Entry entry;
        std::size_t file;
    };
    bool ReadOne();
    bool ReadFrom(const std::wstring& path);

    std::vector<std::wstring> m_paths;
    ReadOptions m_options;
    std::size_t m_file = 0;
    std::optional<EntryReader> m_reader; // of m_paths[m_file]
    std::deque<Read> m_entries;          // read ahead: one, but for the lines before the first time
    std::optional<RecordTime> m_time;
    bool m_started = false;
    bool m_isLog = false;
};

// The files of a log in the order of their first times, where that is not the order of their numbers: somebody removed
// the first file, and the library began it anew. True when they had to be put in order. Files without a time stay where
// they are.
bool OrderByTime(std::vector<std::wstring>& paths, const ReadOptions& options);

struct MergedEntry {
    Entry entry;
    std::wstring path;
    std::uint64_t number = 0; // how many came before it, of all logs
};

class MergeReader {
public:
    explicit MergeReader(std::vector<LogReader> logs) : m_logs(std::move(logs)) {}
    // False at the end of all. Throws Failure.
    [[nodiscard]] bool Next(MergedEntry& merged);
    [[nodiscard]] bool AnyLog() const noexcept;

private:
    std::vector<LogReader> m_logs;
    std::uint64_t m_given = 0;
};

} // namespace vtlog
