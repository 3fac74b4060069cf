// Contents that can be mapped: of files, and of memory without a file.
#pragma once

#include "double/kernel.h"

namespace vtdouble {

// Few bytes are kept in memory, as long as nobody maps them: most files are so, and need no call of the host. More are in an
// anonymous file of the host: holes cost nothing, views of it show the same bytes as reads do.
class Contents {
public:
    Contents() = default;
    Contents(const Contents&) = delete;
    Contents& operator=(const Contents&) = delete;
    ~Contents();

    std::uint64_t size() const noexcept { return m_size; }
    // Bytes beyond the end read as nothing; gives the number read.
    std::size_t Read(std::uint64_t offset, void* data, std::size_t length) const;
    bool Write(std::uint64_t offset, const void* data, std::size_t length);
    bool Resize(std::uint64_t size);
    void* Map(std::uint64_t offset, std::size_t length, bool writable, bool copies);

    // What Sync was not called for since is lost. A write through a view counts as synchronised.
    void Sync();
    void DropUnsynced();
    // Of what was not synchronised, each sector and the length are as they were or as they are now, as the seed chooses.
    void TearUnsynced(std::uint64_t& seed);
    bool HasUnsynced() const noexcept { return m_size != m_syncedSize || !m_before.empty(); }

private:
    static constexpr std::size_t PAGE = 4096;
    static constexpr std::size_t FEW = 65536;
    bool IsInMemory(std::uint64_t size) const noexcept { return m_file < 0 && size <= FEW; }
    bool MoveToFile();
    bool Put(std::uint64_t offset, const void* data, std::size_t length);
    bool Cut(std::uint64_t size);
    void Remember(std::uint64_t offset, std::uint64_t end);

    std::vector<unsigned char> m_bytes; // m_size of them, as long as there is no file
    int m_file = -1;
    std::uint64_t m_size = 0;
    std::uint64_t m_syncedSize = 0;
    std::map<std::uint64_t, std::vector<unsigned char>> m_before; // pages as they were at the last Sync
};

class Mapping final : public Object {
public:
    const char* kind() const noexcept override { return "mapping"; }
    // Null with the last error set when it cannot be made.
    static std::shared_ptr<Mapping> Make(HANDLE file, DWORD protection, std::uint64_t size);

    std::shared_ptr<Contents> contents;
    std::uint64_t size = 0;
    bool writable = false;
    std::shared_ptr<std::size_t> committed; // of address space without memory: the bytes that got some; null: all have
};

} // namespace vtdouble
