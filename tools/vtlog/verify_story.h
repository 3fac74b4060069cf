// What the records of a log tell about one volume and the lists of volumes to verify, apart from the system.
//
// The library logs, at information level, every list that it writes, with the volumes on it. Why it did so stands in
// the records before or behind, of the same thread: the story keeps the last records of each thread and looks there.
// Memory is bounded: by threads, by lists, by records of each.
//
// Two things are not in the log: a list from which the last volume goes is deleted without a record, and the driver
// does not log, so a loss of tracking shows only when the library collects it.
#pragma once

#include "merge.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace vtlog {

// Why a list was written with the volume on it.
enum class Cause {
    TrackingLost,        // the driver named the volume
    BitmapUnusable,      // a bitmap file was missing, damaged, or could not be written
    SnapshotChanges,     // changes of a snapshot could not be merged
    SnapshotInterrupted, // they were being merged, and no record follows
    ListNotShortened,    // the volume could not be taken off again
    Unregistered,        // the application was unregistered: every volume
    RegisteredInDoubt,   // it registered while the list of applications could not be read: every volume
    Rewritten,           // the list was written again for another reason, and the volume stayed on it
    Unknown,             // no record says
};

// One writing of a list with the volume on it.
struct Evidence {
    Cause cause = Cause::Unknown;
    std::vector<MergedEntry> records; // in order; the last but for what followed is the writing itself
    RecordTime time;
};

class VerifyStory {
public:
    explicit VerifyStory(std::wstring guid) : m_guid(std::move(guid)) {}

    void Feed(const MergedEntry& merged);
    // To be called behind the last entry.
    void Finish();

    // Why the volume is on a list, as far as told; null when no record says that it is. The list is an application's
    // pending list (its ID) or its verify list (with ".Last").
    [[nodiscard]] const Evidence* WhyOn(const std::wstring& list) const;
    // The last record that shows the list without the volume.
    [[nodiscard]] const MergedEntry* LastWithout(const std::wstring& list) const;
    // The lists of which the log tells.
    [[nodiscard]] std::vector<std::wstring> Lists() const;
    // The last failure that names a bitmap file of the application on the volume; "base" or "child".
    [[nodiscard]] const MergedEntry* BitmapFailure(const std::wstring& application, const std::wstring& which) const;
    // The last time that a backup asked while the driver did not work.
    [[nodiscard]] const std::optional<MergedEntry>& DriverDown() const noexcept { return m_driverDown; }

    // What the log covers.
    [[nodiscard]] std::size_t Records() const noexcept { return m_records; }
    [[nodiscard]] bool HasInformation() const noexcept { return m_information; }
    [[nodiscard]] const std::optional<RecordTime>& First() const noexcept { return m_first; }
    [[nodiscard]] const std::optional<RecordTime>& Last() const noexcept { return m_last; }

private:
    using ThreadKey = std::pair<std::uint32_t, std::uint32_t>;
    struct Thread {
        std::deque<MergedEntry> recent;
        bool named = false; // an "Adding" record named the volume since the last list was written
        std::wstring open;  // the list whose writing may be explained by what follows
        std::uint64_t lastUse = 0;
    };
    struct List {
        std::vector<Evidence> evidence;
        std::optional<MergedEntry> without;
    };

    void FeedList(const MergedEntry& merged, Thread& thread, std::wstring_view written);
    void FeedOpen(const MergedEntry& merged, Thread& thread);
    Thread& ThreadOf(const RecordHeader& header);
    [[nodiscard]] Evidence Explain(const MergedEntry& merged, const Thread& thread) const;

    std::wstring m_guid;
    std::map<ThreadKey, Thread> m_threads;
    std::map<std::wstring, List> m_lists;
    std::map<std::wstring, MergedEntry> m_bitmapFailures; // by the end of the file's name
    std::optional<MergedEntry> m_driverDown;
    std::size_t m_records = 0;
    bool m_information = false;
    std::optional<RecordTime> m_first;
    std::optional<RecordTime> m_last;
};

} // namespace vtlog
