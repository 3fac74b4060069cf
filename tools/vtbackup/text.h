// Text of the program: what all tools share, and how bytes are shown.
#pragma once

#include "common/text.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace vtbackup {

using toolkit::EndsWithIgnoringCase;
using toolkit::EqualIgnoringCase;
using toolkit::ErrorText;
using toolkit::ToUtf8;
using toolkit::ToWide;

std::string HexOf(const void* bytes, std::size_t length);

// "12.3 MiB"
std::string BytesText(std::uint64_t bytes);

} // namespace vtbackup
