#include "failure.h"

namespace vtfltctl {

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
    case Exit::Device:
        return "device";
    case Exit::NotFound:
        return "not-found";
    case Exit::Unreadable:
        return "unreadable";
    case Exit::VerifyRequired:
        return "verify-required";
    case Exit::Unknown:
        return "unknown";
    case Exit::NotMonitored:
        return "not-monitored";
    case Exit::Different:
        return "different";
    }
    return "internal";
}

} // namespace vtfltctl
