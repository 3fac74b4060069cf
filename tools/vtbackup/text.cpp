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

} // namespace vtbackup
