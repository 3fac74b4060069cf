// Whether a folder's entry leads elsewhere. Nothing but numbers.
#pragma once

#include <cstdint>

namespace vtbackup {

constexpr std::uint32_t REPARSE_ATTRIBUTE = 0x400; // FILE_ATTRIBUTE_REPARSE_POINT
constexpr std::uint32_t NAME_SURROGATE = 0x20000000;

// A junction, a symbolic link or a mount point, by attributes and reparse tag as a search finds them. Whatever else is a
// reparse point, such as a folder that a cloud service fills when it is read, is a folder like any other. One that does
// not say what it is counts as a link.
constexpr bool IsLink(std::uint32_t attributes, std::uint32_t tag) noexcept
{
    return (attributes & REPARSE_ATTRIBUTE) != 0 && (tag == 0 || (tag & NAME_SURROGATE) != 0);
}

} // namespace vtbackup
