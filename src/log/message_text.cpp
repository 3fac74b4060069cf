#include "log/message_text.h"

namespace vtflt {

wchar_t* CleanLineFeeds(wchar_t* text) noexcept
{
    while (*text == L'\n')
        ++text;

    std::size_t length = 0;
    while (text[length] != L'\0')
        ++length;
    while (length > 0 && text[length - 1] == L'\n')
        text[--length] = L'\0';
    return text;
}

} // namespace vtflt
