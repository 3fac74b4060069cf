// Files of a machine: sparse stores for contents, and maps that several processes see at once.
#pragma once

#include "interpose/win.h"
#include "model/contents.h"

#include <cstdint>
#include <memory>
#include <string>

namespace vtfltsim {

// A sparse file of contents. Calls are serialised by the machine's lock.
class FileStore final : public model::Store {
public:
    // Opens the file, or makes it with this length when length is not 0. A volume may be longer than a file of this
    // file system can be (16 TiB is usual). Then the file grows with what is written; behind its end there are zeros.
    static DWORD Open(const std::wstring& path, std::uint64_t length, std::unique_ptr<FileStore>& store);
    model::Status ReadAt(std::uint64_t offset, std::uint8_t* data, std::uint32_t length) override;
    model::Status WriteAt(std::uint64_t offset, const std::uint8_t* data, std::uint32_t length) override;
    // As far as a file can reach: see Open.
    DWORD Resize(std::uint64_t length);
    // Writes what the system still holds back to the disk.
    DWORD Flush();

private:
    explicit FileStore(Handle file) : m_file(std::move(file)) {}
    Handle m_file;
};

// A file mapped for reading and writing; what one process writes, all see.
class MappedFile {
public:
    // size above 0: makes the file with this size, zero-filled, when it is missing; else the file must exist.
    static DWORD Open(const std::wstring& path, std::uint64_t size, std::unique_ptr<MappedFile>& file);
    MappedFile(const MappedFile&) = delete;
    MappedFile& operator=(const MappedFile&) = delete;
    ~MappedFile();
    std::uint8_t* data() const noexcept { return m_view; }
    std::uint64_t size() const noexcept { return m_size; }
    // However the two were reached.
    bool IsSameFile(const MappedFile& other) const;

private:
    MappedFile() = default;
    Handle m_file;
    Handle m_mapping;
    std::uint8_t* m_view = nullptr;
    std::uint64_t m_size = 0;
};

// Makes a folder; an existing one is fine.
DWORD MakeDirectory(const std::wstring& path);
// Removes a folder with all it holds. What cannot be removed is left, and its error answered.
DWORD RemoveTree(const std::wstring& path);

} // namespace vtfltsim
