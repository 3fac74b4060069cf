#include "console.h"

#include <fmt/format.h>

namespace vtlog {

Colour LevelColour(int level) noexcept
{
    if (level <= 0)
        return Colour::Error;
    if (level == 1)
        return Colour::Warning;
    return level == 2 ? Colour::Information : Colour::Detail;
}

std::string LevelName(int level)
{
    switch (level) {
    case 0:
        return "error";
    case 1:
        return "warning";
    case 2:
        return "information";
    case 4:
        return "detail";
    default:
        return fmt::format("level {}", level);
    }
}

} // namespace vtlog
