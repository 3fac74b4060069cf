// Apart from the rest of the text, which needs Windows.
#include "common/text.h"

#include <fmt/format.h>

#include <cstddef>

namespace toolkit {

std::string BytesText(std::uint64_t bytes)
{
    static const char* const UNITS[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    double value = static_cast<double>(bytes);
    std::size_t unit = 0;
    while (value >= 1024.0 && unit < 6) {
        value /= 1024.0;
        ++unit;
    }
    return unit == 0 ? fmt::format("{} B", bytes) : fmt::format("{:.1f} {}", value, UNITS[unit]);
}

} // namespace toolkit
