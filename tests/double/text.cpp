// Text: case, conversions, the C run-time's formatted output with 16-bit characters.
#include "double/api.h"
#include "double/kernel.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <cwchar>

namespace vtdouble {

// ASCII and Latin-1: more is not compared without regard to case anywhere here.
wchar_t Lower(wchar_t character)
{
    if ((character >= L'A' && character <= L'Z') || (character >= 0xC0 && character <= 0xDE && character != 0xD7))
        return static_cast<wchar_t>(character + 0x20);
    return character;
}

Text Upper(TextView text)
{
    Text upper(text);
    for (wchar_t& character : upper)
        character = Upper(character);
    return upper;
}

bool EqualNoCase(TextView left, TextView right)
{
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](wchar_t a, wchar_t b) { return Upper(a) == Upper(b); });
}

// Mostly one name has the case of the other: it is looked at where they differ only.
bool LessNoCase::operator()(TextView left, TextView right) const
{
    const std::size_t both = std::min(left.size(), right.size());
    for (std::size_t i = 0; i < both; ++i) {
        if (left[i] == right[i])
            continue;
        const wchar_t a = Upper(left[i]);
        const wchar_t b = Upper(right[i]);
        if (a != b)
            return a < b;
    }
    return left.size() < right.size();
}

std::string Narrow(TextView text)
{
    std::string narrow;
    for (const wchar_t character : text)
        narrow.push_back(character < 0x80 ? static_cast<char>(character) : '?');
    return narrow;
}

Text Widen(std::string_view text)
{
    Text wide;
    for (const char character : text)
        wide.push_back(static_cast<wchar_t>(static_cast<unsigned char>(character)));
    return wide;
}

Text Decimal(std::uint64_t number)
{
    return Widen(std::to_string(number));
}

namespace {

// A bounded target that counts what does not fit, too.
struct Target {
    wchar_t* buffer;
    std::size_t capacity;
    std::size_t length = 0;
    void Put(wchar_t character)
    {
        if (length < capacity)
            buffer[length] = character;
        ++length;
    }
};

enum class Size { Default, Short, Char, Long, LongLong, Pointer };

struct Directive {
    bool left = false;
    bool zero = false;
    bool plus = false;
    bool blank = false;
    bool alternate = false;
    int width = 0;
    int precision = -1;
    Size size = Size::Default;
    bool narrowSize = false; // h
    bool wideSize = false;   // l or w
    wchar_t conversion = 0;
};

int ReadNumber(const wchar_t*& at)
{
    int number = 0;
    while (*at >= L'0' && *at <= L'9')
        number = number * 10 + (*at++ - L'0');
    return number;
}

void ReadSize(const wchar_t*& at, Directive& directive)
{
    if (at[0] == L'I' && at[1] == L'6' && at[2] == L'4') {
        directive.size = Size::LongLong;
        at += 3;
    } else if (at[0] == L'I' && at[1] == L'3' && at[2] == L'2') {
        at += 3;
    } else if (at[0] == L'l' && at[1] == L'l') {
        directive.size = Size::LongLong;
        at += 2;
    } else if (at[0] == L'l' || at[0] == L'w') {
        directive.size = at[0] == L'l' ? Size::Long : Size::Default;
        directive.wideSize = true;
        ++at;
    } else if (at[0] == L'h') {
        directive.size = Size::Short;
        directive.narrowSize = true;
        ++at;
    } else if (at[0] == L'I' || at[0] == L'z') {
        directive.size = Size::Pointer;
        ++at;
    }
}

void PutPadded(Target& target, TextView text, const Directive& directive)
{
    const int missing = directive.width - static_cast<int>(text.size());
    for (int i = 0; !directive.left && i < missing; ++i)
        target.Put(L' ');
    for (const wchar_t character : text)
        target.Put(character);
    for (int i = 0; directive.left && i < missing; ++i)
        target.Put(L' ');
}

// Sign, prefix, leading zeros and digits of a number, in its field.
void PutNumber(Target& target, const Directive& directive, unsigned long long bits, bool isSigned)
{
    const bool negative = isSigned && static_cast<long long>(bits) < 0;
    unsigned long long rest = negative ? 0 - bits : bits;
    const bool isPointer = directive.conversion == L'p';
    const bool isHexadecimal = isPointer || directive.conversion == L'x' || directive.conversion == L'X';
    const unsigned base = isHexadecimal ? 16 : directive.conversion == L'o' ? 8 : 10;
    const wchar_t* const alphabet = directive.conversion == L'x' ? L"0123456789abcdef" : L"0123456789ABCDEF";
    const bool prefixed = directive.alternate && isHexadecimal && !isPointer && bits != 0;
    Text digits;
    for (; rest != 0; rest /= base)
        digits.insert(digits.begin(), alphabet[rest % base]);
    const auto least = static_cast<std::size_t>(isPointer ? 16 : directive.precision < 0 ? 1 : directive.precision);
    while (digits.size() < least)
        digits.insert(digits.begin(), L'0');
    Text sign = negative ? L"-" : isSigned && directive.plus ? L"+" : isSigned && directive.blank ? L" " : L"";
    if (prefixed)
        sign += directive.conversion == L'x' ? L"0x" : L"0X";
    const auto width = static_cast<std::size_t>(directive.width);
    if (directive.zero && !directive.left && directive.precision < 0) {
        while (sign.size() + digits.size() < width)
            digits.insert(digits.begin(), L'0');
    }
    PutPadded(target, sign + digits, directive);
}

// An argument of its size; long is 32 bits wide, as Windows has it.
void PutInteger(Target& target, const Directive& directive, va_list& arguments)
{
    const bool isSigned = directive.conversion == L'd' || directive.conversion == L'i';
    unsigned long long bits = 0;
    if (directive.size == Size::LongLong || directive.size == Size::Pointer || directive.conversion == L'p')
        bits = va_arg(arguments, unsigned long long);
    else
        bits = va_arg(arguments, unsigned int);
    if (isSigned && directive.size == Size::Default)
        bits = static_cast<unsigned long long>(static_cast<long long>(static_cast<int>(bits)));
    if (isSigned && directive.size == Size::Long)
        bits = static_cast<unsigned long long>(static_cast<long long>(static_cast<int>(bits)));
    if (directive.size == Size::Short)
        bits = isSigned ? static_cast<unsigned long long>(static_cast<long long>(static_cast<short>(bits)))
                        : bits & 0xFFFF;
    PutNumber(target, directive, bits, isSigned);
}

void PutText(Target& target, const Directive& directive, va_list& arguments, bool wide)
{
    Text text;
    const auto limit = directive.precision < 0 ? ~std::size_t{0} : static_cast<std::size_t>(directive.precision);
    if (wide) {
        const wchar_t* const value = va_arg(arguments, const wchar_t*);
        for (const wchar_t* at = value != nullptr ? value : L"(null)"; text.size() < limit && *at != 0; ++at)
            text.push_back(*at);
    } else {
        const char* const value = va_arg(arguments, const char*);
        for (const char* at = value != nullptr ? value : "(null)"; text.size() < limit && *at != 0; ++at)
            text.push_back(static_cast<wchar_t>(static_cast<unsigned char>(*at)));
    }
    PutPadded(target, text, directive);
}

void Format(Target& target, const wchar_t* at, va_list& arguments)
{
    while (*at != L'\0') {
        if (*at != L'%') {
            target.Put(*at++);
            continue;
        }
        ++at;
        Directive directive;
        for (;; ++at) {
            if (*at == L'-')
                directive.left = true;
            else if (*at == L'0')
                directive.zero = true;
            else if (*at == L'+')
                directive.plus = true;
            else if (*at == L' ')
                directive.blank = true;
            else if (*at == L'#')
                directive.alternate = true;
            else
                break;
        }
        if (*at == L'*') {
            directive.width = va_arg(arguments, int);
            ++at;
        } else {
            directive.width = ReadNumber(at);
        }
        if (*at == L'.') {
            ++at;
            if (*at == L'*') {
                directive.precision = va_arg(arguments, int);
                ++at;
            } else {
                directive.precision = ReadNumber(at);
            }
        }
        ReadSize(at, directive);
        directive.conversion = *at;
        if (*at != L'\0')
            ++at;
        switch (directive.conversion) {
        case L'd':
        case L'i':
        case L'u':
        case L'x':
        case L'X':
        case L'o':
        case L'p':
            PutInteger(target, directive, arguments);
            break;
        case L's':
            PutText(target, directive, arguments, !directive.narrowSize);
            break;
        case L'S':
            PutText(target, directive, arguments, directive.wideSize);
            break;
        case L'c':
        case L'C': {
            const wchar_t character = static_cast<wchar_t>(va_arg(arguments, int));
            PutPadded(target, TextView(&character, 1), directive);
            break;
        }
        case L'\0':
            break;
        default:
            target.Put(directive.conversion); // the unknown stand for themselves
            break;
        }
    }
}

} // namespace

} // namespace vtdouble

using namespace vtdouble;

// As the C run-time of Windows has it: -1 when the text does not fit, and no NUL when there is no room for it.
DOUBLE_API int _vsnwprintf(wchar_t* buffer, std::size_t capacity, const wchar_t* format, va_list arguments)
{
    Target target{buffer, capacity};
    va_list copy;
    va_copy(copy, arguments);
    Format(target, format, copy);
    va_end(copy);
    if (target.length < capacity)
        buffer[target.length] = L'\0';
    return target.length <= capacity ? static_cast<int>(target.length) : -1;
}

DOUBLE_API int _snwprintf(wchar_t* buffer, std::size_t capacity, const wchar_t* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int length = _vsnwprintf(buffer, capacity, format, arguments);
    va_end(arguments);
    return length;
}

// Cut at 1,024 characters with their NUL.
DOUBLE_API int WINAPIV wsprintfW(LPWSTR buffer, LPCWSTR format, ...)
{
    wchar_t text[1025] = {};
    va_list arguments;
    va_start(arguments, format);
    _vsnwprintf(text, 1024, format, arguments);
    va_end(arguments);
    text[1023] = L'\0';
    std::size_t length = 0;
    while ((buffer[length] = text[length]) != L'\0')
        ++length;
    return static_cast<int>(length);
}

DOUBLE_API int _wtoi(const wchar_t* text)
{
    while (*text == L' ' || *text == L'\t')
        ++text;
    const bool negative = *text == L'-';
    if (*text == L'-' || *text == L'+')
        ++text;
    unsigned value = 0;
    while (*text >= L'0' && *text <= L'9')
        value = value * 10 + static_cast<unsigned>(*text++ - L'0');
    return static_cast<int>(negative ? 0u - value : value);
}

DOUBLE_API int WINAPI lstrcmpiW(LPCWSTR left, LPCWSTR right)
{
    const Text a = Upper(TextView(left));
    const Text b = Upper(TextView(right));
    return a < b ? -1 : a == b ? 0 : 1;
}

DOUBLE_API DWORD WINAPI CharUpperBuffW(LPWSTR text, DWORD length)
{
    for (DWORD i = 0; i < length; ++i)
        text[i] = Upper(text[i]);
    return length;
}

DOUBLE_API int WINAPI CompareStringOrdinal(LPCWSTR left, int leftLength, LPCWSTR right, int rightLength,
                                           BOOL ignoreCase)
{
    const Entry entry;
    if (left == nullptr || right == nullptr)
        return Failed(ERROR_INVALID_PARAMETER, 0);
    const TextView a = leftLength < 0 ? TextView(left) : TextView(left, static_cast<std::size_t>(leftLength));
    const TextView b = rightLength < 0 ? TextView(right) : TextView(right, static_cast<std::size_t>(rightLength));
    const int order = ignoreCase ? Upper(a).compare(Upper(b)) : a.compare(b);
    return order < 0 ? CSTR_LESS_THAN : order == 0 ? CSTR_EQUAL : CSTR_GREATER_THAN;
}

// The ANSI code page is Latin-1's part of 1252; UTF-8 has one to four bytes a character.
DOUBLE_API int WINAPI WideCharToMultiByte(UINT page, DWORD, LPCWSTR text, int length, LPSTR buffer, int capacity,
                                          LPCSTR, LPBOOL replaced)
{
    const Entry entry;
    const TextView source =
        length < 0 ? TextView(text, std::wcslen(text) + 1) : TextView(text, static_cast<std::size_t>(length));
    std::string bytes;
    bool any = false;
    for (std::size_t i = 0; i < source.size(); ++i) {
        std::uint32_t character = source[i];
        if (page != CP_UTF8) {
            any = any || character > 0xFF;
            bytes.push_back(character > 0xFF ? '?' : static_cast<char>(character));
            continue;
        }
        if (character >= 0xD800 && character < 0xDC00 && i + 1 < source.size() && source[i + 1] >= 0xDC00 &&
            source[i + 1] < 0xE000)
            character = 0x10000 + ((character - 0xD800) << 10) + (source[++i] - 0xDC00u);
        else if (character >= 0xD800 && character < 0xE000)
            character = 0xFFFD;
        const auto put = [&](std::uint32_t byte) { bytes.push_back(static_cast<char>(byte)); };
        if (character < 0x80) {
            put(character);
        } else if (character < 0x800) {
            put(0xC0 | character >> 6);
            put(0x80 | (character & 0x3F));
        } else if (character < 0x10000) {
            put(0xE0 | character >> 12);
            put(0x80 | (character >> 6 & 0x3F));
            put(0x80 | (character & 0x3F));
        } else {
            put(0xF0 | character >> 18);
            put(0x80 | (character >> 12 & 0x3F));
            put(0x80 | (character >> 6 & 0x3F));
            put(0x80 | (character & 0x3F));
        }
    }
    if (replaced != nullptr)
        *replaced = any;
    if (capacity == 0)
        return static_cast<int>(bytes.size());
    if (bytes.size() > static_cast<std::size_t>(capacity))
        return Failed(ERROR_INSUFFICIENT_BUFFER, 0);
    std::memcpy(buffer, bytes.data(), bytes.size());
    return static_cast<int>(bytes.size());
}

DOUBLE_API int WINAPI MultiByteToWideChar(UINT page, DWORD, LPCSTR text, int length, LPWSTR buffer, int capacity)
{
    const Entry entry;
    const std::string_view source = length < 0 ? std::string_view(text, std::strlen(text) + 1)
                                               : std::string_view(text, static_cast<std::size_t>(length));
    Text wide;
    for (std::size_t i = 0; i < source.size(); ++i) {
        const auto first = static_cast<unsigned char>(source[i]);
        if (page != CP_UTF8 || first < 0x80) {
            wide.push_back(first);
            continue;
        }
        const std::size_t more = first >= 0xF0 ? 3 : first >= 0xE0 ? 2 : first >= 0xC0 ? 1 : 0;
        std::uint32_t character = more == 0 ? 0xFFFDu : first & (0x3Fu >> more);
        for (std::size_t k = 0; k < more && i + 1 < source.size(); ++k)
            character = character << 6 | (static_cast<unsigned char>(source[++i]) & 0x3Fu);
        if (character >= 0x10000) {
            wide.push_back(static_cast<wchar_t>(0xD800 + ((character - 0x10000) >> 10)));
            wide.push_back(static_cast<wchar_t>(0xDC00 + ((character - 0x10000) & 0x3FF)));
        } else {
            wide.push_back(static_cast<wchar_t>(character));
        }
    }
    if (capacity == 0)
        return static_cast<int>(wide.size());
    if (wide.size() > static_cast<std::size_t>(capacity))
        return Failed(ERROR_INSUFFICIENT_BUFFER, 0);
    std::memcpy(buffer, wide.data(), wide.size() * sizeof(wchar_t));
    return static_cast<int>(wide.size());
}

// Only the mappings of case, which keep the length.
DOUBLE_API INT WINAPI LCMapStringEx(LPCWSTR, DWORD flags, LPCWSTR text, INT length, LPWSTR target, INT capacity,
                                    LPNLSVERSIONINFO, LPVOID, LPARAM)
{
    const Entry entry;
    if (text == nullptr || length == 0 || (flags != LCMAP_UPPERCASE && flags != LCMAP_LOWERCASE))
        return Failed(ERROR_INVALID_PARAMETER, 0);
    const TextView source =
        length < 0 ? TextView(text, std::wcslen(text) + 1) : TextView(text, static_cast<std::size_t>(length));
    if (capacity == 0)
        return static_cast<INT>(source.size());
    if (source.size() > static_cast<std::size_t>(capacity))
        return Failed(ERROR_INSUFFICIENT_BUFFER, 0);
    for (std::size_t i = 0; i < source.size(); ++i)
        target[i] = flags == LCMAP_UPPERCASE ? Upper(source[i]) : Lower(source[i]);
    return static_cast<INT>(source.size());
}
