// What happens when: which application backs up which volume in which step, and what goes wrong before it.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace vtdemo {

constexpr int STEPS = 12;
constexpr std::size_t APPLICATIONS = 2;
constexpr std::size_t BIG = 0;
constexpr std::size_t ODD = 1;
constexpr std::size_t FINE = 2;
constexpr std::size_t MOVED = 3;
constexpr std::size_t VOLUMES = 4;

enum class EventKind {
    LoseTracking,
    DamageChild,        // the file of changes gathered since the last snapshot
    DamageBase,         // the file of changes owed to the next backup
    Resize,             // to value bytes
    BlockSize,          // to value bytes
    KillWhileCopying,   // TerminateProcess while the first data is being written
    KillBeforeManifest, // all data is written, the backup does not exist yet
    KillBeforeReport,   // the backup exists, its success was not reported
};

struct Event {
    int step;
    EventKind kind;
    std::size_t volume;
    std::size_t application; // of the damages and the kills
    std::uint64_t value;
};

const std::vector<Event>& Events();
// The volumes of an application's cycle in this step, in its order; empty when it has no cycle then.
std::vector<std::size_t> VolumesDue(std::size_t application, int step);
bool IsKill(EventKind kind);
std::string Describe(const Event& event, const std::vector<std::string>& applications,
                     const std::vector<std::string>& volumes);

// What the next backup of one volume for one application has to be.
struct Expectation {
    std::string kind = "full";
    std::set<std::string> reasons = {"first-backup"}; // each has to be among those that are given
};
// What an event makes of it.
void Expect(Expectation& expectation, EventKind kind);

} // namespace vtdemo
