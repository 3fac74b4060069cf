// How to run what broke again, as it is and shortened: for the message of a case that fails, where it is made only then.
#pragma once

#include "proof/random_history.h"
#include "proof/schedule.h"
#include "proof/world.h"

#include <string>

namespace vtproof {

inline std::string Again(const History& history)
{
    const History shortest = Shrink(history, [](const History& one) { return !RunHistory(one).empty(); });
    return "\n    ./dev sim --replay \"" + ToText(history) + "\"\nshortened: " + RunHistory(shortest) +
           "\n    ./dev sim --replay \"" + ToText(shortest) + "\"";
}

inline std::string Again(const Schedule& schedule)
{
    const Schedule shortest = Shrink(schedule);
    return "\n    ./dev sim --replay \"" + ToText(schedule) + "\"\nshortened: " + RunSchedule(shortest).wrong +
           "\n    ./dev sim --replay \"" + ToText(shortest) + "\"";
}

} // namespace vtproof
