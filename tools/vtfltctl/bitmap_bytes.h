// Where the bytes of a bitmap file come from: a file on Windows, memory in the tests.
#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

namespace vtfltctl::bitmap {

// A read that the system refused, or that no longer gives what it gave: the file was cut or rewritten meanwhile.
class ReadError : public std::runtime_error {
public:
    ReadError(std::uint32_t code, const std::string& what) : std::runtime_error(what), m_code(code) {}
    // The system's error; 0 when the file changed while it was read.
    [[nodiscard]] std::uint32_t Code() const noexcept { return m_code; }

private:
    std::uint32_t m_code;
};

class ByteSource {
public:
    ByteSource() = default;
    ByteSource(const ByteSource&) = delete;
    ByteSource& operator=(const ByteSource&) = delete;
    virtual ~ByteSource() = default;

    // The same from the first call on.
    [[nodiscard]] virtual std::uint64_t Size() const = 0;
    // Reads exactly so many bytes, all of which lie below Size(); throws ReadError.
    virtual void Read(std::uint64_t offset, std::uint8_t* to, std::size_t count) = 0;
};

} // namespace vtfltctl::bitmap
