#include "double/mapping.h"

#include "double/api.h"
#include "double/file_system.h"

#include <algorithm>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

namespace vtdouble {

Contents::~Contents()
{
    if (m_file >= 0)
        close(m_file);
}

bool Contents::MoveToFile()
{
    if (m_file >= 0)
        return true;
    m_file = memfd_create("double", MFD_CLOEXEC);
    if (m_file < 0)
        return false;
    const std::vector<unsigned char> bytes = std::move(m_bytes);
    m_bytes = {};
    return Cut(m_size) && Put(0, bytes.data(), bytes.size());
}

// Up to the size, which stays as it is.
bool Contents::Put(std::uint64_t offset, const void* data, std::size_t length)
{
    if (length == 0)
        return true;
    if (m_file >= 0)
        return pwrite(m_file, data, length, static_cast<off_t>(offset)) == static_cast<ssize_t>(length);
    std::memcpy(m_bytes.data() + offset, data, length);
    return true;
}

bool Contents::Cut(std::uint64_t size)
{
    if (m_file < 0)
        m_bytes.resize(static_cast<std::size_t>(size));
    else if (ftruncate(m_file, static_cast<off_t>(size)) != 0)
        return false;
    m_size = size;
    return true;
}

std::size_t Contents::Read(std::uint64_t offset, void* data, std::size_t length) const
{
    if (offset >= m_size || length == 0)
        return 0;
    if (m_file < 0) {
        length = std::min(length, m_bytes.size() - static_cast<std::size_t>(offset));
        std::memcpy(data, m_bytes.data() + offset, length);
        return length;
    }
    const ssize_t got = pread(m_file, data, length, static_cast<off_t>(offset));
    return got > 0 ? static_cast<std::size_t>(got) : 0;
}

void Contents::Remember(std::uint64_t offset, std::uint64_t end)
{
    end = std::min(end, m_syncedSize);
    for (std::uint64_t page = offset / PAGE; page * PAGE < end; ++page) {
        auto [place, fresh] = m_before.try_emplace(page);
        if (!fresh)
            continue;
        place->second.resize(PAGE);
        place->second.resize(Read(page * PAGE, place->second.data(), PAGE));
    }
}

bool Contents::Write(std::uint64_t offset, const void* data, std::size_t length)
{
    if (length == 0)
        return true;
    const std::uint64_t end = offset + length;
    if (!IsInMemory(end) && !MoveToFile())
        return false;
    Remember(offset, end);
    return (end <= m_size || Cut(end)) && Put(offset, data, length);
}

bool Contents::Resize(std::uint64_t size)
{
    if (size == m_size)
        return true;
    if (!IsInMemory(size) && !MoveToFile())
        return false;
    if (size < m_size)
        Remember(size, m_size);
    return Cut(size);
}

void* Contents::Map(std::uint64_t offset, std::size_t length, bool writable, bool copies)
{
    if (!MoveToFile())
        return nullptr;
    void* const view = mmap(nullptr, length, PROT_READ | (writable || copies ? PROT_WRITE : 0),
                            copies ? MAP_PRIVATE : MAP_SHARED, m_file, static_cast<off_t>(offset));
    return view != MAP_FAILED ? view : nullptr;
}

void Contents::Sync()
{
    m_before.clear();
    m_syncedSize = m_size;
}

void Contents::DropUnsynced()
{
    const auto before = std::move(m_before);
    m_before.clear();
    if (!Cut(m_syncedSize))
        Die("contents could not be put back");
    for (const auto& [page, bytes] : before) {
        if (!Put(page * PAGE, bytes.data(), bytes.size()))
            Die("contents could not be put back");
    }
}

void Contents::TearUnsynced(std::uint64_t& seed)
{
    constexpr std::size_t SECTOR = 512;
    const auto coin = [&seed] {
        seed = seed * 6364136223846793005ull + 1442695040888963407ull;
        return (seed >> 40 & 1) != 0;
    };
    std::vector<unsigned char> now(static_cast<std::size_t>(m_size));
    Read(0, now.data(), now.size());
    std::vector<unsigned char> before = now;
    before.resize(static_cast<std::size_t>(m_syncedSize));
    for (const auto& [page, bytes] : m_before) {
        for (std::size_t i = 0; i < bytes.size() && page * PAGE + i < before.size(); ++i)
            before[static_cast<std::size_t>(page * PAGE) + i] = bytes[i];
    }
    std::vector<unsigned char> torn(coin() ? now.size() : before.size());
    for (std::size_t start = 0; start < torn.size(); start += SECTOR) {
        const std::vector<unsigned char>& from = coin() ? now : before;
        for (std::size_t i = start; i < std::min(start + SECTOR, torn.size()); ++i)
            torn[i] = i < from.size() ? from[i] : 0;
    }
    if (!Resize(torn.size()) || !Write(0, torn.data(), torn.size()))
        Die("contents could not be torn");
    Sync();
}

std::shared_ptr<Mapping> Mapping::Make(HANDLE file, DWORD protection, std::uint64_t size)
{
    const bool reserved = (protection & SEC_RESERVE) != 0;
    protection &= 0xFF;
    const bool writable = protection == PAGE_READWRITE || protection == PAGE_EXECUTE_READWRITE;
    if (!writable && protection != PAGE_READONLY && protection != PAGE_WRITECOPY)
        return Failed<std::shared_ptr<Mapping>>(ERROR_INVALID_PARAMETER, nullptr);
    auto mapping = std::make_shared<Mapping>();
    mapping->writable = writable;
    mapping->size = size;
    if (reserved && file == INVALID_HANDLE_VALUE)
        mapping->committed = std::make_shared<std::size_t>(0);
    if (file == INVALID_HANDLE_VALUE) {
        if (size == 0)
            return Failed<std::shared_ptr<Mapping>>(ERROR_INVALID_PARAMETER, nullptr);
        mapping->contents = std::make_shared<Contents>();
        mapping->contents->Resize(size);
        return mapping;
    }
    const auto open =
        CurrentProcess().Get<OpenedFile>(file, writable ? FILE_READ_DATA | FILE_WRITE_DATA : FILE_READ_DATA);
    if (open == nullptr)
        return nullptr;
    mapping->contents = open->node->contents;
    if (size == 0)
        mapping->size = mapping->contents->size();
    if (mapping->size == 0)
        return Failed<std::shared_ptr<Mapping>>(ERROR_FILE_INVALID, nullptr);
    if (mapping->size > mapping->contents->size()) {
        if (!writable)
            return Failed<std::shared_ptr<Mapping>>(ERROR_NOT_ENOUGH_MEMORY, nullptr);
        mapping->contents->Resize(mapping->size);
    }
    return mapping;
}

} // namespace vtdouble

using namespace vtdouble;

DOUBLE_API LPVOID WINAPI MapViewOfFile(HANDLE handle, DWORD access, DWORD high, DWORD low, SIZE_T length)
{
    const Entry entry;
    const bool copies = access == FILE_MAP_COPY;
    const bool writable = (access & FILE_MAP_WRITE) != 0 && !copies;
    const auto mapping = CurrentProcess().Get<Mapping>(handle, writable ? FILE_MAP_WRITE : FILE_MAP_READ);
    if (mapping == nullptr)
        return nullptr;
    if (writable && !mapping->writable)
        return Failed<LPVOID>(ERROR_ACCESS_DENIED, nullptr);
    const std::uint64_t offset = (static_cast<std::uint64_t>(high) << 32) | low;
    if (offset % 65536 != 0)
        return Failed<LPVOID>(ERROR_MAPPED_ALIGNMENT, nullptr);
    if (offset >= mapping->size || length > mapping->size - offset)
        return Failed<LPVOID>(ERROR_ACCESS_DENIED, nullptr);
    if (length == 0)
        length = mapping->size - offset;
    void* const view = mapping->contents->Map(offset, length, writable, copies);
    if (view == nullptr)
        return Failed<LPVOID>(ERROR_NOT_ENOUGH_MEMORY, nullptr);
    if (mapping->committed != nullptr && *mapping->committed < length)
        mprotect(static_cast<char*>(view) + *mapping->committed, length - *mapping->committed, PROT_NONE);
    CurrentProcess().views[view] = View{length, mapping->name, mapping->committed};
    return view;
}

DOUBLE_API BOOL WINAPI UnmapViewOfFile(LPCVOID address)
{
    const Entry entry;
    auto& views = CurrentProcess().views;
    const auto found = views.find(address);
    if (found == views.end())
        return Failed(ERROR_INVALID_ADDRESS, FALSE);
    munmap(const_cast<void*>(address), found->second.size);
    views.erase(found);
    return TRUE;
}

DOUBLE_API BOOL WINAPI FlushViewOfFile(LPCVOID address, SIZE_T)
{
    const Entry entry;
    return CurrentProcess().views.count(address) != 0 ? TRUE : Failed(ERROR_INVALID_ADDRESS, FALSE);
}

DOUBLE_API SIZE_T WINAPI VirtualQuery(LPCVOID address, PMEMORY_BASIC_INFORMATION information, SIZE_T length)
{
    const Entry entry;
    constexpr std::uintptr_t PAGE_MASK = 4095;
    if (length < sizeof(*information))
        return Failed<SIZE_T>(ERROR_BAD_LENGTH, 0);
    for (const auto& [base, view] : CurrentProcess().views) {
        const auto start = reinterpret_cast<std::uintptr_t>(base);
        const auto at = reinterpret_cast<std::uintptr_t>(address);
        const std::uintptr_t end = (start + view.size + PAGE_MASK) & ~PAGE_MASK;
        if (at < start || at >= end)
            continue;
        const std::uintptr_t page = at & ~PAGE_MASK;
        const std::uintptr_t withMemory = view.committed != nullptr ? std::min(start + *view.committed, end) : end;
        const bool reserved = page >= withMemory;
        *information = {};
        information->AllocationBase = const_cast<void*>(base);
        information->BaseAddress = reinterpret_cast<void*>(page);
        information->RegionSize = (reserved ? end : withMemory) - page;
        information->State = reserved ? MEM_RESERVE : MEM_COMMIT;
        information->Protect = reserved ? 0 : PAGE_READWRITE;
        information->Type = MEM_MAPPED;
        return sizeof(*information);
    }
    return Failed<SIZE_T>(ERROR_INVALID_PARAMETER, 0);
}

// Gives memory to the front of a view of reserved address space; all that is needed of it here.
DOUBLE_API LPVOID WINAPI VirtualAlloc(LPVOID address, SIZE_T length, DWORD kind, DWORD)
{
    const Entry entry;
    constexpr std::size_t PAGE_MASK = 4095;
    const auto& views = CurrentProcess().views;
    const auto found = views.find(address);
    if (found == views.end() || found->second.committed == nullptr || kind != MEM_COMMIT || length > found->second.size)
        return Failed<LPVOID>(ERROR_INVALID_ADDRESS, nullptr);
    const std::size_t bytes = (length + PAGE_MASK) & ~PAGE_MASK;
    mprotect(address, bytes, PROT_READ | PROT_WRITE);
    *found->second.committed = std::max(*found->second.committed, bytes);
    return address;
}
