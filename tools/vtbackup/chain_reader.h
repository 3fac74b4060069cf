// Reads a chain as the contents of a volume: for every block the newest record, in ascending order.
//
// The index files of a chain are sorted, so they are merged as they are read: memory grows with the number of
// backups in the chain, not with the size of the volume. Whatever the files say, reading stays inside them.
#pragma once

#include "file.h"
#include "index_format.h"
#include "repository.h"

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

namespace vtbackup {

// One index file, checked as a whole when it is opened. Throws Failure(Damaged).
class IndexReader {
public:
    IndexReader(const Chain& chain, const Manifest& manifest);

    [[nodiscard]] bool Empty() const noexcept { return m_left == 0; }
    // The record at the front; there is one unless the reader is empty.
    [[nodiscard]] const IndexRecord& Front() const noexcept { return m_front; }
    void Pop();

private:
    // Goes over the file once; nothing that the records say can fail later, unless the file changes.
    void CheckWhole(const std::array<unsigned char, INDEX_HEADER_BYTES>& header,
                    const std::array<unsigned char, INDEX_FOOTER_BYTES>& footer);
    void Rewind();
    void Fill();
    const char* Take(); // the next record to the front; what is wrong with it, or nullptr
    void Load();
    [[noreturn]] void Damaged(const char* what) const;

    FileReader m_file;
    Geometry m_geometry;
    std::uint64_t m_records = 0;
    std::uint64_t m_left = 0;     // records from the front to the end
    std::uint64_t m_offset = 0;   // of the next bytes to buffer
    std::uint64_t m_nextData = 0; // where the next stored block has to begin
    std::uint64_t m_dataLength = 0;
    std::vector<unsigned char> m_buffer;
    std::size_t m_place = 0;
    IndexRecord m_front;
    bool m_first = true;
};

// Where the contents of a block lie.
struct ChainBlock {
    std::uint64_t block = 0;
    std::size_t member = 0; // which of the chain's backups, from 0
    std::uint64_t offset = 0;
    std::uint32_t length = 0;
    bool zero = false;
    Checksum checksum = {};
};

class ChainReader {
public:
    // path: from the full backup to the one that is to be read, as Chain::PathTo gives it.
    ChainReader(const Chain& chain, std::vector<Manifest> path);

    [[nodiscard]] const Manifest& Last() const noexcept { return m_path.back(); }
    // Which backup the block's record is from.
    [[nodiscard]] std::uint64_t SequenceOf(const ChainBlock& block) const noexcept
    {
        return m_path[block.member].sequence;
    }
    // The next block that has a record. Blocks without one hold zeros.
    std::optional<ChainBlock> Next();
    // A block that is not zero has to be as long as it is in the backup that is read: one that was stored when the volume
    // ended in it, and not again when the volume had grown, is not whole. Throws Failure(Damaged).
    void RequireLength(const ChainBlock& block) const;
    // Reads a block's contents and checks them. Throws Failure(Damaged).
    void Read(const ChainBlock& block, void* out);

private:
    struct Waiting {
        std::uint64_t block;
        std::size_t member;
    };
    static bool Later(const Waiting& a, const Waiting& b) noexcept;
    void Queue(std::size_t member);
    Waiting Take();

    const Chain& m_chain;
    std::vector<Manifest> m_path;
    std::vector<std::unique_ptr<IndexReader>> m_indexes;
    std::vector<std::unique_ptr<FileReader>> m_data;
    std::vector<Waiting> m_waiting;      // heap of the members' front records
    std::vector<std::uint64_t> m_limits; // first block that a member's records no longer speak for
};

} // namespace vtbackup
