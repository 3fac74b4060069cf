#include "bare_fetch.h"

namespace bench {

namespace {

constexpr DWORD HEAD_BYTES = 88; // what a record's reader looks at first
constexpr LONG TRAILER_BYTES = 4;
constexpr std::ptrdiff_t BITMAP_OFFSET = 84;

} // namespace

std::wstring AppIdOf(int index)
{
    return {L'A', L'p', L'p', static_cast<wchar_t>(L'0' + index / 10), static_cast<wchar_t>(L'0' + index % 10)};
}

BareFetch::BareFetch(const vtfltsim::Volume& volume, int applications, int caller, DWORD recordBytes)
    : m_folder(volume.Path() + L"\\VelVolTrc\\VelVolTrc_"), m_applications(applications), m_caller(caller),
      m_size(recordBytes), m_clearChild(recordBytes)
{
    HoldClearChild();
}

// A file that is shorter than the record leaves the rest clear, too.
void BareFetch::HoldClearChild()
{
    const Handle file(CreateFileW(Path(L"child_", m_caller).c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                  OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD moved = 0;
    Require(ReadFile(file.get(), m_clearChild.data(), m_size, &moved, nullptr) && moved > HEAD_BYTES,
            "reading the caller's child");
    Require(std::all_of(m_clearChild.begin() + BITMAP_OFFSET,
                        m_clearChild.begin() + static_cast<std::ptrdiff_t>(moved) - TRAILER_BYTES,
                        [](std::uint8_t byte) { return byte == 0; }),
            "a caller's child that is clear");
}

void BareFetch::Fetch()
{
    FetchInLengths(m_size, false);
}

void BareFetch::FetchWithoutFlushes()
{
    m_durable = false;
    FetchInLengths(m_size, false);
    m_durable = true;
}

void BareFetch::FetchFrom(DWORD oldRecordBytes)
{
    FetchInLengths(oldRecordBytes, true);
}

void BareFetch::FetchInLengths(DWORD read, bool grown)
{
    GetMemory();
    for (int i = 0; i < m_applications; ++i) {
        Read(L"child_", i, read);
        if (grown)
            Write(L"child_", i);
        if (i != m_caller)
            Write(L"child_", i);
    }
    Read(L"base_", m_caller, read);
    if (grown)
        Write(L"base_", m_caller);
    Write(L"base_", m_caller);
    Write(L"child_", m_caller, m_clearChild.data());
}

void BareFetch::HoldBase()
{
    GetMemory();
    Read(L"base_", m_caller, m_size);
}

void BareFetch::ReplicationSuccess()
{
    Write(L"base_", m_caller);
}

void BareFetch::SyncSnapshotChanges()
{
    GetMemory();
    Read(L"child_", m_caller, m_size);
    Write(L"child_", m_caller);
}

void BareFetch::GetMemory()
{
    if (m_record == nullptr)
        m_record = static_cast<std::uint8_t*>(VirtualAlloc(nullptr, m_size, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE));
    Require(m_record != nullptr, "memory for a record");
}

void BareFetch::Release()
{
    if (m_record != nullptr)
        VirtualFree(m_record, 0, MEM_RELEASE);
    m_record = nullptr;
}

void BareFetch::Read(const wchar_t* kind, int application, DWORD size)
{
    const Handle file(CreateFileW(Path(kind, application).c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                  OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    std::uint8_t head[HEAD_BYTES];
    DWORD moved = 0;
    Require(ReadFile(file.get(), head, HEAD_BYTES, &moved, nullptr) && moved == HEAD_BYTES, "reading a head");
    Require(SetFilePointer(file.get(), 0, nullptr, FILE_BEGIN) == 0, "seeking");
    LARGE_INTEGER fileSize = {};
    Require(GetFileSizeEx(file.get(), &fileSize) && fileSize.QuadPart == size && size <= m_size,
            "a file of the expected size");
    Require(ReadFile(file.get(), m_record, size, &moved, nullptr) && moved == size, "reading");
}

void BareFetch::Write(const wchar_t* kind, int application, const std::uint8_t* record)
{
    const Handle file(CreateFileW(Path(kind, application).c_str(), GENERIC_WRITE, FILE_SHARE_WRITE, nullptr,
                                  CREATE_ALWAYS, FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM, nullptr));
    DWORD moved = 0;
    Require(SetFilePointer(file.get(), 0, nullptr, FILE_BEGIN) == 0, "seeking");
    Require(WriteFile(file.get(), record, m_size, &moved, nullptr) && moved == m_size, "writing");
    if (!m_durable)
        return;
    Require(FlushFileBuffers(file.get()) != FALSE, "flushing");
    Require(SetFilePointer(file.get(), -TRAILER_BYTES, nullptr, FILE_END) != INVALID_SET_FILE_POINTER, "seeking");
    Require(WriteFile(file.get(), record + m_size - TRAILER_BYTES, TRAILER_BYTES, &moved, nullptr) != FALSE,
            "writing the trailer");
    Require(FlushFileBuffers(file.get()) != FALSE, "flushing");
}

} // namespace bench
