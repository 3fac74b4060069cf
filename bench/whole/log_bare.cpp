#include "log_bare.h"

#include "measure.h"

#include <cstring>

namespace bench {

namespace {

constexpr DWORD WAIT = 5000;
constexpr BYTE MARK[] = {0xFF, 0xFE};
constexpr wchar_t HEADER[] = L"[2026/11/21 12:00:00:000   00   00100   00200             ] ";
constexpr wchar_t TEXT[] = L"CMultiBitmapManager::VTDeviceIoControl: SUCCESS::Updated child bitmaps.";
constexpr wchar_t TAIL[] = L"   {whole_log_bench.exe::whole_log_bench.exe(0.0)}";

vtflt::UniqueHandle MakeEvent(const std::wstring& name)
{
    vtflt::UniqueHandle event(CreateEventW(nullptr, FALSE, FALSE, name.c_str()));
    Require(event.valid(), "making an event");
    return event;
}

vtflt::UniqueHandle MakeMutex(const std::wstring& name)
{
    vtflt::UniqueHandle mutex(CreateMutexW(nullptr, FALSE, name.empty() ? nullptr : name.c_str()));
    Require(mutex.valid(), "making a mutex");
    return mutex;
}

vtflt::UniqueHandle MakeMapping(const wchar_t* name, DWORD bytes)
{
    vtflt::UniqueHandle mapping(CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, bytes, name));
    Require(mapping.valid(), "making a mapping");
    return mapping;
}

template <std::size_t N>
void Append(HANDLE file, const wchar_t (&text)[N])
{
    DWORD written = 0;
    Require(WriteFile(file, text, (N - 1) * sizeof(wchar_t), &written, nullptr) != FALSE, "writing");
}

} // namespace

Viewer::Viewer(const std::wstring& ringName)
    : m_present(MakeEvent(vtflt::LOG_VIEWER_EVENT_NAME)),
      m_ringEvent(MakeEvent(vtflt::LOG_RING_EVENT_PREFIX + ringName)),
      m_breakpointEvent(MakeEvent(vtflt::LOG_BREAKPOINT_EVENT_NAME)),
      m_breakpointMutex(MakeMutex(vtflt::LOG_BREAKPOINT_MUTEX_NAME)),
      m_breakpointMapping(MakeMapping(vtflt::LOG_BREAKPOINT_GLOBAL_MAPPING_NAME, sizeof(vtflt::LogBreakpointBlock)))
{
}

BareLog::BareLog(const std::wstring& path)
    : m_configuration(MakeMutex({})),
      m_file(CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                         OPEN_ALWAYS, FILE_FLAG_SEQUENTIAL_SCAN, nullptr))
{
    Require(m_file.valid(), "opening a file");
    std::wstring name = L"Global\\bench";
    for (const wchar_t c : path)
        name.push_back(c == L'\\' ? L'/' : c);
    m_fileMutex = MakeMutex(name);
    DWORD written = 0;
    LARGE_INTEGER size = {};
    Require(GetFileSizeEx(m_file.get(), &size) != FALSE, "asking for a size");
    if (size.QuadPart == 0)
        Require(WriteFile(m_file.get(), MARK, sizeof(MARK), &written, nullptr) != FALSE, "writing the mark");
}

// Every question to the configuration is asked under its mutex.
void BareLog::UseConfiguration()
{
    Require(WaitForSingleObject(m_configuration.get(), WAIT) == WAIT_OBJECT_0, "waiting");
    ReleaseMutex(m_configuration.get());
}

void BareLog::Reject()
{
    UseConfiguration();
    Require(OpenEventW(SYNCHRONIZE, FALSE, vtflt::LOG_VIEWER_EVENT_NAME) == nullptr, "no viewer");
}

void BareLog::WriteRecord()
{
    UseConfiguration(); // does the message pass?
    UseConfiguration(); // the output asks once more,
    UseConfiguration(); // and for the path
    LARGE_INTEGER size = {};
    GetFileSizeEx(m_file.get(), &size); // is it full?
    Require(WaitForSingleObject(m_fileMutex.get(), WAIT) == WAIT_OBJECT_0, "waiting");
    GetFileSizeEx(m_file.get(), &size); // is it new?
    SetFilePointerEx(m_file.get(), {}, nullptr, FILE_BEGIN);
    BYTE mark[sizeof(MARK)];
    DWORD moved = 0;
    Require(ReadFile(m_file.get(), mark, sizeof(mark), &moved, nullptr) != FALSE, "reading the mark");
    SYSTEMTIME now = {};
    GetLocalTime(&now);
    SetFilePointerEx(m_file.get(), {}, nullptr, FILE_END);
    Append(m_file.get(), HEADER);
    Append(m_file.get(), TEXT);
    Append(m_file.get(), TAIL);
    Append(m_file.get(), L"\r\n");
    ReleaseMutex(m_fileMutex.get());
}

void BareLog::Accept()
{
    WriteRecord();
    Require(OpenEventW(SYNCHRONIZE, FALSE, vtflt::LOG_VIEWER_EVENT_NAME) == nullptr, "no viewer");
}

void BareLog::ConnectToViewer(const std::wstring& ringName)
{
    m_ringMutex = MakeMutex({});
    m_ringMapping = MakeMapping(nullptr, sizeof(vtflt::LogRingBlock));
    m_ringEvent.reset(OpenEventW(EVENT_ALL_ACCESS, FALSE, (vtflt::LOG_RING_EVENT_PREFIX + ringName).c_str()));
    Require(m_ringEvent.valid(), "the ring's event");
    m_breakpointMutex.reset(OpenMutexW(SYNCHRONIZE | MUTEX_MODIFY_STATE, FALSE, vtflt::LOG_BREAKPOINT_MUTEX_NAME));
    m_breakpointMapping.reset(
        OpenFileMappingW(FILE_MAP_READ | FILE_MAP_WRITE, FALSE, vtflt::LOG_BREAKPOINT_GLOBAL_MAPPING_NAME));
    Require(m_breakpointMutex.valid() && m_breakpointMapping.valid(), "the breakpoints' objects");
}

void BareLog::AcceptWithViewer()
{
    WriteRecord();
    const vtflt::UniqueHandle present(OpenEventW(SYNCHRONIZE, FALSE, vtflt::LOG_VIEWER_EVENT_NAME));
    Require(present.valid(), "a viewer");

    SYSTEMTIME now = {};
    GetLocalTime(&now);
    Require(WaitForSingleObject(m_ringMutex.get(), WAIT) == WAIT_OBJECT_0, "waiting");
    {
        const vtflt::UniqueView view(
            MapViewOfFile(m_ringMapping.get(), FILE_MAP_READ | FILE_MAP_WRITE, 0, 0, sizeof(vtflt::LogRingBlock)));
        Require(view.valid(), "mapping the ring");
        auto& ring = *static_cast<vtflt::LogRingBlock*>(view.get());
        ++ring.writeSequence;
        std::memcpy(&ring.slots[ring.writeSequence % 1024], &m_record, sizeof(m_record));
    }
    ReleaseMutex(m_ringMutex.get());
    SetEvent(m_ringEvent.get());

    Require(WaitForSingleObject(m_breakpointMutex.get(), WAIT) == WAIT_OBJECT_0, "waiting");
    {
        const vtflt::UniqueView view(MapViewOfFile(m_breakpointMapping.get(), FILE_MAP_READ | FILE_MAP_WRITE, 0, 0,
                                                   sizeof(vtflt::LogBreakpointBlock)));
        Require(view.valid() && static_cast<vtflt::LogBreakpointBlock*>(view.get())->count == 0, "no breakpoints");
    }
    ReleaseMutex(m_breakpointMutex.get());
}

} // namespace bench
