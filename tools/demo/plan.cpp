#include "plan.h"

namespace vtdemo {
namespace {

constexpr std::uint64_t MIB = 1024 * 1024;

} // namespace

const std::vector<Event>& Events()
{
    static const std::vector<Event> EVENTS = {
        {3, EventKind::KillWhileCopying, ODD, 0, 0}, {4, EventKind::LoseTracking, FINE, 0, 0},
        {5, EventKind::Resize, MOVED, 0, 9 * MIB},   {5, EventKind::KillBeforeManifest, FINE, 1, 0},
        {6, EventKind::DamageChild, ODD, 1, 0},      {7, EventKind::KillBeforeReport, ODD, 0, 0},
        {8, EventKind::BlockSize, MOVED, 0, 32768},  {8, EventKind::LoseTracking, BIG, 0, 0},
        {9, EventKind::DamageBase, FINE, 0, 0},      {10, EventKind::Resize, MOVED, 0, 5 * MIB + 512},
    };
    return EVENTS;
}

std::vector<std::size_t> VolumesDue(std::size_t application, int step)
{
    // One application runs in every step, the other pauses twice; their days for each volume differ.
    if (application == 0) {
        std::vector<std::size_t> due = {ODD, FINE};
        if (step % 2 == 1)
            due.push_back(BIG);
        if (step % 2 == 0 || step == 1)
            due.push_back(MOVED);
        return due;
    }
    if (step == 2 || step == 9)
        return {};
    std::vector<std::size_t> due = {FINE};
    if (step % 3 == 1)
        due.push_back(BIG);
    if (step % 2 == 0 || step == 1)
        due.push_back(ODD);
    if (step != 4)
        due.push_back(MOVED);
    return due;
}

bool IsKill(EventKind kind)
{
    return kind == EventKind::KillWhileCopying || kind == EventKind::KillBeforeManifest ||
           kind == EventKind::KillBeforeReport;
}

std::string Describe(const Event& event, const std::vector<std::string>& applications,
                     const std::vector<std::string>& volumes)
{
    const std::string volume = volumes[event.volume];
    const std::string application = applications[event.application];
    switch (event.kind) {
    case EventKind::LoseTracking:
        return "the driver loses track of " + volume;
    case EventKind::DamageChild:
        return application + "'s child bitmap file on " + volume + " is damaged";
    case EventKind::DamageBase:
        return application + "'s base bitmap file on " + volume + " is damaged";
    case EventKind::Resize:
        return volume + " is resized to " + std::to_string(event.value) + " bytes";
    case EventKind::BlockSize:
        return volume + " is tracked in blocks of " + std::to_string(event.value) + " bytes from now on";
    case EventKind::KillWhileCopying:
        return application + " is killed while it copies " + volume;
    case EventKind::KillBeforeManifest:
        return application + " is killed before its backup of " + volume + " exists";
    case EventKind::KillBeforeReport:
        return application + " is killed between its backup of " + volume + " and the report of success";
    }
    return {};
}

void Expect(Expectation& expectation, EventKind kind)
{
    const auto atLeastVerify = [&] {
        if (expectation.kind == "incremental")
            expectation.kind = "verify";
    };
    switch (kind) {
    case EventKind::LoseTracking:
        atLeastVerify();
        expectation.reasons.insert("verify-required");
        break;
    case EventKind::DamageChild:
    case EventKind::DamageBase:
        atLeastVerify();
        expectation.reasons.insert("bitmap-incomplete");
        break;
    case EventKind::Resize:
        atLeastVerify();
        expectation.reasons.insert("length-changed");
        break;
    case EventKind::BlockSize:
        expectation.kind = "full";
        expectation.reasons.insert("block-size-changed");
        break;
    case EventKind::KillWhileCopying:
    case EventKind::KillBeforeManifest:
    case EventKind::KillBeforeReport:
        break; // a killed run costs nothing
    }
}

} // namespace vtdemo
