// Decimal numbers in registry texts.
#pragma once

#include <cstdint>
#include <string_view>

namespace vtflt {

// The number at the start of a text: blanks are skipped, digits are read up to the first other character. 0 when there
// is none; a number that does not fit 32 bits stays at their largest.
inline std::uint32_t ParseDecimal(std::wstring_view text) noexcept
{
    std::size_t position = text.find_first_not_of(L" \t");
    std::uint64_t number = 0;
    for (; position < text.size() && text[position] >= L'0' && text[position] <= L'9'; ++position) {
        number = number * 10 + static_cast<std::uint64_t>(text[position] - L'0');
        if (number > UINT32_MAX)
            return UINT32_MAX;
    }
    return static_cast<std::uint32_t>(number);
}

} // namespace vtflt
