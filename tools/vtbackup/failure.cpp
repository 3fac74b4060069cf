#include "failure.h"

namespace vtbackup {

const char* OutcomeName(Exit code) noexcept
{
    switch (code) {
    case Exit::Ok:
        return "ok";
    case Exit::Internal:
        return "internal";
    case Exit::Usage:
        return "usage";
    case Exit::Busy:
        return "busy";
    case Exit::Refused:
        return "refused";
    case Exit::DriverDown:
        return "driver-down";
    case Exit::Damaged:
        return "damaged";
    case Exit::NotReported:
        return "not-reported";
    case Exit::Interrupted:
        return "interrupted";
    case Exit::Device:
        return "device";
    case Exit::NotFound:
        return "not-found";
    case Exit::Repository:
        return "repository";
    case Exit::LostTracking:
        return "lost-tracking";
    case Exit::NotMarked:
        return "not-marked";
    }
    return "internal";
}

} // namespace vtbackup
