/*
 * The wide-character functions that the C++ library's templates call, for 16-bit characters: the system's own
 * work on 32-bit ones. Hidden, so that they serve this program alone and not the system's libraries in it.
 */
#include <stddef.h>
#include <string.h>

#pragma GCC visibility push(hidden)

size_t wcslen(const wchar_t* text);
int wcscmp(const wchar_t* left, const wchar_t* right);
wchar_t* wmemcpy(wchar_t* target, const wchar_t* source, size_t count);
wchar_t* wmemmove(wchar_t* target, const wchar_t* source, size_t count);
wchar_t* wmemset(wchar_t* target, wchar_t value, size_t count);
int wmemcmp(const wchar_t* left, const wchar_t* right, size_t count);
wchar_t* wmemchr(const wchar_t* text, wchar_t value, size_t count);

_Static_assert(sizeof(wchar_t) == 2, "compile with -fshort-wchar");

size_t wcslen(const wchar_t* text)
{
    size_t length = 0;
    while (text[length] != 0)
        ++length;
    return length;
}

int wcscmp(const wchar_t* left, const wchar_t* right)
{
    while (*left != 0 && *left == *right) {
        ++left;
        ++right;
    }
    return (*left > *right) - (*left < *right);
}

wchar_t* wmemcpy(wchar_t* target, const wchar_t* source, size_t count)
{
    return memcpy(target, source, count * sizeof(wchar_t));
}

wchar_t* wmemmove(wchar_t* target, const wchar_t* source, size_t count)
{
    return memmove(target, source, count * sizeof(wchar_t));
}

wchar_t* wmemset(wchar_t* target, wchar_t value, size_t count)
{
    for (size_t i = 0; i < count; ++i)
        target[i] = value;
    return target;
}

int wmemcmp(const wchar_t* left, const wchar_t* right, size_t count)
{
    if (memcmp(left, right, count * sizeof(wchar_t)) == 0)
        return 0;
    for (size_t i = 0; i < count; ++i) {
        if (left[i] != right[i])
            return left[i] < right[i] ? -1 : 1;
    }
    return 0;
}

wchar_t* wmemchr(const wchar_t* text, wchar_t value, size_t count)
{
    for (size_t i = 0; i < count; ++i) {
        if (text[i] == value)
            return (wchar_t*)(size_t)(text + i);
    }
    return NULL;
}

#pragma GCC visibility pop
