// The repository's checksum: XXH3, 128 bits, kept in its canonical (big-endian) byte order.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <string>

namespace vtbackup {

using Checksum = std::array<unsigned char, 16>;

Checksum ChecksumOf(const void* bytes, std::size_t length);
std::string ToHex(const Checksum& checksum);

// A checksum over bytes that come in pieces.
class RunningChecksum {
public:
    RunningChecksum();
    ~RunningChecksum();
    RunningChecksum(const RunningChecksum&) = delete;
    RunningChecksum& operator=(const RunningChecksum&) = delete;

    void Add(const void* bytes, std::size_t length);
    [[nodiscard]] Checksum Value() const;

private:
    struct State;
    std::unique_ptr<State> m_state;
};

} // namespace vtbackup
