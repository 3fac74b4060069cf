// What a fuzzing target is: a function that takes any bytes apart, hands them to the code under test, and holds what
// comes back against what must be true of it. It keeps nothing from one input to the next.
//
// The same targets are linked twice: with libFuzzer, one program each (main_libfuzzer.cpp), and all together with a
// test program that replays kept inputs (replay_test.cpp).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

// For sums and differences that do not overflow.
__extension__ typedef __int128 Number128;

struct Target {
    const char* name;
    void (*run)(const std::uint8_t* bytes, std::size_t count);
};

// All targets; the list is in targets.cpp.
const std::vector<Target>& Targets();

// Ends the program with the text; a target found something.
[[noreturn]] void Broken(const char* condition, const char* file, int line);

// Takes an input apart from its front. Behind its end everything reads as zero, so that every input is a whole one.
class Input {
public:
    Input(const std::uint8_t* bytes, std::size_t count) : m_bytes(bytes), m_left(count) {}

    std::size_t Left() const { return m_left; }
    template <class T>
    T Take()
    {
        T value = {};
        const std::size_t count = sizeof(T) < m_left ? sizeof(T) : m_left;
        std::memcpy(&value, m_bytes, count);
        Skip(count);
        return value;
    }
    std::uint8_t Byte() { return Take<std::uint8_t>(); }
    bool Flag() { return (Byte() & 1) != 0; }
    // At most this many bytes.
    std::vector<std::uint8_t> Bytes(std::size_t most)
    {
        const std::size_t count = most < m_left ? most : m_left;
        std::vector<std::uint8_t> bytes(m_bytes, m_bytes + count);
        Skip(count);
        return bytes;
    }
    std::vector<std::uint8_t> Rest() { return Bytes(m_left); }
    // As many bytes as the next byte says.
    std::vector<std::uint8_t> ShortBytes() { return Bytes(Byte()); }
    // Characters, two bytes each.
    std::wstring Text(std::size_t mostCharacters)
    {
        std::wstring text;
        while (text.size() < mostCharacters && m_left >= 2)
            text.push_back(static_cast<wchar_t>(Take<std::uint16_t>()));
        return text;
    }
    std::wstring ShortText() { return Text(Byte()); }

private:
    void Skip(std::size_t count)
    {
        m_bytes += count;
        m_left -= count;
    }

    const std::uint8_t* m_bytes;
    std::size_t m_left;
};

} // namespace fuzz

#define FUZZ_HOLDS(condition) ((condition) ? void() : fuzz::Broken(#condition, __FILE__, __LINE__))
