#include "registry/multi_string.h"

#include <algorithm>
#include <limits>

namespace vtflt {

namespace {

constexpr std::size_t CHARACTER_BYTES = 2;
// What a stored value has behind its last entry: that entry's NUL and the list's own.
constexpr std::size_t LIST_END_BYTES = 2 * CHARACTER_BYTES;

std::size_t RoundDownToEven(std::size_t count)
{
    return count & ~std::size_t{1};
}

std::size_t CountCharacters(const RegistryBytes& value)
{
    return value.size() / CHARACTER_BYTES;
}

wchar_t CharacterAt(const RegistryBytes& value, std::size_t position)
{
    const unsigned low = value[position * CHARACTER_BYTES];
    const unsigned high = value[position * CHARACTER_BYTES + 1];
    return static_cast<wchar_t>(low | high << 8);
}

// Writes text over the bytes from offset on. They must be there.
void PutText(RegistryBytes& bytes, std::size_t offset, std::wstring_view text)
{
    for (const wchar_t character : text) {
        const auto unit = static_cast<unsigned>(character);
        bytes[offset++] = static_cast<std::uint8_t>(unit & 0xFF);
        bytes[offset++] = static_cast<std::uint8_t>(unit >> 8 & 0xFF);
    }
}

std::size_t CountLeadingZeros(const RegistryBytes& bytes)
{
    const auto first = std::find_if(bytes.begin(), bytes.end(), [](std::uint8_t byte) { return byte != 0; });
    return static_cast<std::size_t>(first - bytes.begin());
}

// Counts the zeros at the end of the first count bytes.
std::size_t CountTrailingZeros(const RegistryBytes& bytes, std::size_t count)
{
    std::size_t zeros = 0;
    while (zeros < count && bytes[count - 1 - zeros] == 0)
        ++zeros;
    return zeros;
}

// The matching rule over anything that gives the character at a position below characters. The NUL behind the entry
// is compared like a character of it, so a match lies inside the data with its NUL.
template <class At>
int FindEntry(const At& at, std::size_t characters, std::size_t bound, std::wstring_view entry)
{
    const std::size_t limit = std::min({characters, bound, static_cast<std::size_t>(std::numeric_limits<int>::max())});
    for (std::size_t position = 0; position + entry.size() < limit; ++position) {
        std::size_t matched = 0;
        while (matched < entry.size() && at(position + matched) == entry[matched])
            ++matched;
        if (matched == entry.size() && at(position + matched) == L'\0')
            return static_cast<int>(position);
    }
    return -1;
}

} // namespace

int FindMultiSZEntry(const wchar_t* buffer, std::size_t characters, std::size_t bound, std::wstring_view entry)
{
    return FindEntry([buffer](std::size_t position) { return buffer[position]; }, characters, bound, entry);
}

int FindMultiSZEntry(const RegistryBytes& value, std::wstring_view entry)
{
    return FindEntry([&value](std::size_t position) { return CharacterAt(value, position); }, CountCharacters(value),
                     value.size(), entry);
}

RegistryBytes ComposeAddedEntry(const RegistryBytes& value, std::wstring_view entry)
{
    const std::size_t oldSize = value.size();
    RegistryBytes composed(oldSize + LIST_END_BYTES + entry.size() * CHARACTER_BYTES);

    const std::size_t leading = RoundDownToEven(CountLeadingZeros(value));
    const std::size_t remaining = oldSize - leading;
    // Twice the leading zeros are left out, once at each end. With more of them than data nothing is copied.
    if (remaining > leading) {
        const auto from = value.begin() + static_cast<std::ptrdiff_t>(leading);
        std::copy(from, from + static_cast<std::ptrdiff_t>(remaining - leading), composed.begin());
    }

    // Never behind the old size: what is found at the end is at least the 2 bytes that are stepped back over. So the
    // entry fits with the list's end behind it.
    const std::size_t trailing = RoundDownToEven(CountTrailingZeros(value, remaining));
    const std::size_t insertion = trailing == 0 ? 0 : remaining - trailing + CHARACTER_BYTES;
    PutText(composed, insertion, entry);

    const std::size_t unused = RoundDownToEven(CountTrailingZeros(composed, composed.size()));
    composed.resize(composed.size() - unused + LIST_END_BYTES);
    return composed;
}

RegistryBytes ComposeRemovedEntry(const RegistryBytes& value, std::size_t position, std::wstring_view entry)
{
    const std::size_t entrySize = (entry.size() + 1) * CHARACTER_BYTES;
    if (value.size() == entrySize)
        return RegistryBytes(CHARACTER_BYTES);

    // Whoever passes a position that FindMultiSZEntry did not give gets no access outside the value either.
    const std::size_t cutBegin = std::min(position, CountCharacters(value)) * CHARACTER_BYTES;
    const std::size_t cutEnd = std::min(cutBegin + entrySize, value.size());
    RegistryBytes composed;
    composed.reserve(value.size() - (cutEnd - cutBegin));
    composed.assign(value.begin(), value.begin() + static_cast<std::ptrdiff_t>(cutBegin));
    composed.insert(composed.end(), value.begin() + static_cast<std::ptrdiff_t>(cutEnd), value.end());
    return composed;
}

void AppendValueEntries(const RegistryBytes& value, std::vector<std::wstring>& entries)
{
    // The last character is the list's own end and not looked at; a value of one character is an empty list.
    std::wstring entry;
    for (std::size_t position = 0; position + 1 < CountCharacters(value); ++position) {
        const wchar_t character = CharacterAt(value, position);
        if (character != L'\0') {
            entry.push_back(character);
            continue;
        }
        entries.push_back(entry);
        entry.clear();
    }
}

bool IsWellFormedMultiString(const RegistryBytes& value)
{
    const std::size_t characters = CountCharacters(value);
    return value.size() % CHARACTER_BYTES == 0 && characters >= 2 && CharacterAt(value, characters - 1) == L'\0' &&
           CharacterAt(value, characters - 2) == L'\0';
}

void AppendStrings(const RegistryBytes& value, std::vector<std::wstring>& strings)
{
    std::wstring string;
    for (std::size_t position = 0; position < CountCharacters(value); ++position) {
        const wchar_t character = CharacterAt(value, position);
        if (character != L'\0') {
            string.push_back(character);
            continue;
        }
        if (string.empty())
            return;
        strings.push_back(string);
        string.clear();
    }
    if (!string.empty())
        strings.push_back(string);
}

} // namespace vtflt
