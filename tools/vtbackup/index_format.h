// The bytes of an index file: which blocks a backup stores, where, and with which checksum. Pure.
//
//   index  := header record* footer
//   header := "VTBKIDX1" version:u32 blockSize:u32 volumeLength:u64                       24 bytes
//   record := block:u64 offset:u64 checksum:16                                            32 bytes
//   footer := recordCount:u64 dataLength:u64 checksum:16                                  32 bytes
//
// Integers are little-endian. Records stand in strictly ascending order of their blocks. The offset is the
// block's place in the data file, where stored blocks follow each other without gaps; a block that holds only
// zeros has the offset ZERO_BLOCK, no data, and a zero checksum. The footer's checksum covers every byte of the
// file before it.
#pragma once

#include "checksum.h"

#include <array>
#include <cstdint>

namespace vtbackup {

constexpr std::uint64_t ZERO_BLOCK = ~std::uint64_t{0};
constexpr std::uint32_t INDEX_VERSION = 1;
constexpr std::size_t INDEX_HEADER_BYTES = 24;
constexpr std::size_t INDEX_RECORD_BYTES = 32;
constexpr std::size_t INDEX_FOOTER_BYTES = 32;

struct IndexHeader {
    std::uint32_t blockSize = 0;
    std::uint64_t volumeLength = 0;
};

struct IndexRecord {
    std::uint64_t block = 0;
    std::uint64_t offset = 0;
    Checksum checksum = {};
    [[nodiscard]] bool Zero() const noexcept { return offset == ZERO_BLOCK; }
};

struct IndexFooter {
    std::uint64_t recordCount = 0;
    std::uint64_t dataLength = 0;
    Checksum checksum = {};
};

std::array<unsigned char, INDEX_HEADER_BYTES> Encode(const IndexHeader& header);
std::array<unsigned char, INDEX_RECORD_BYTES> Encode(const IndexRecord& record);
std::array<unsigned char, INDEX_FOOTER_BYTES> Encode(const IndexFooter& footer);

// False for a wrong magic or version.
bool Decode(const std::array<unsigned char, INDEX_HEADER_BYTES>& bytes, IndexHeader& header);
IndexRecord DecodeRecord(const unsigned char* bytes);
IndexFooter DecodeFooter(const std::array<unsigned char, INDEX_FOOTER_BYTES>& bytes);

} // namespace vtbackup
