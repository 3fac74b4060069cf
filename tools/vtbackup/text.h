// Text of the program: what all tools share, and how raw bytes are shown.
#pragma once

#include "common/text.h"

#include <cstddef>
#include <string>

namespace vtbackup {

using toolkit::BytesText;
using toolkit::EndsWithIgnoringCase;
using toolkit::EqualIgnoringCase;
using toolkit::ErrorText;
using toolkit::ToUtf8;
using toolkit::ToWide;

std::string HexOf(const void* bytes, std::size_t length);

} // namespace vtbackup
