#include "text.h"

#include <fmt/format.h>

namespace vtbackup {

std::string HexOf(const void* bytes, std::size_t length)
{
    std::string out;
    out.reserve(length * 2);
    const auto* p = static_cast<const unsigned char*>(bytes);
    for (std::size_t i = 0; i < length; ++i)
        fmt::format_to(std::back_inserter(out), "{:02x}", p[i]);
    return out;
}

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

} // namespace vtbackup
