#include "log/file_output.h"

#include "log/bounded_text.h"
#include "log/log_config.h"
#include "log/log_folder.h"
#include "log/log_levels.h"
#include "log/log_path.h"
#include "log/own_module.h"
#include "log/probes.h"
#include "log/product_info.h"
#include "log/record_text.h"
#include "log/shared_objects.h"
#include "log/text_compare.h"
#include "log/trace.h"

#include <cstring>
#include <iterator>

namespace vtflt::NSDBG {

namespace {

constexpr BYTE BYTE_ORDER_MARK[] = {0xFF, 0xFE};
constexpr LONGLONG UNKNOWN_SIZE = -1;
constexpr int CONVERTED_CAPACITY = 1024; // bytes or characters of one part of a record
constexpr std::size_t MUTEX_PATH_LENGTH = 260;

constexpr wchar_t HEADER_FAILURE[] = L"[%d:%d] Failed to Write log header. ERR=%d, [%d]File=%s\r\n";
constexpr wchar_t MESSAGE_FAILURE[] = L"[%d:%d] Failed to Write log message. ERR=%d, [%d]File=%s\r\n";
constexpr wchar_t TAIL_FAILURE[] = L"[%d:%d] Failed to Write log tail. ERR=%d, [%d]File=%s\r\n";
constexpr wchar_t LINE_END_FAILURE[] = L"[%d:%d] Failed to Write [rn]. ERR=%d, [%d]File=%s\r\n";

// Converts to the ANSI code page; empty when that fails or does not fit.
struct NarrowText {
    explicit NarrowText(std::wstring_view text) noexcept
    {
        if (!text.empty())
            length = WideCharToMultiByte(CP_ACP, 0, text.data(), static_cast<int>(text.size()), bytes,
                                         CONVERTED_CAPACITY, nullptr, nullptr);
        bytes[length] = '\0';
    }
    char bytes[CONVERTED_CAPACITY + 1];
    int length = 0;
};

// Converts from the ANSI code page; empty when that fails or does not fit.
struct WideText {
    explicit WideText(std::string_view text) noexcept
    {
        if (!text.empty())
            length = MultiByteToWideChar(CP_ACP, 0, text.data(), static_cast<int>(text.size()), characters,
                                         CONVERTED_CAPACITY);
    }
    std::wstring_view View() const noexcept { return {characters, static_cast<std::size_t>(length)}; }
    wchar_t characters[CONVERTED_CAPACITY];
    int length = 0;
};

DWORD BytesOf(std::wstring_view text) noexcept
{
    return static_cast<DWORD>(text.size() * sizeof(wchar_t));
}

LONGLONG JoinSize(DWORD high, DWORD low) noexcept
{
    return static_cast<LONGLONG>(static_cast<ULONGLONG>(high) << 32 | low);
}

// 0 when there is no such file.
LONGLONG SizeOnDisk(const wchar_t* path) noexcept
{
    WIN32_FILE_ATTRIBUTE_DATA data = {};
    if (!GetFileAttributesExW(path, GetFileExInfoStandard, &data))
        return 0;
    return JoinSize(data.nFileSizeHigh, data.nFileSizeLow);
}

// One name for one file, however its path is spelt.
void BuildMutexName(std::wstring_view path, wchar_t (&name)[LOG_PATH_CAPACITY]) noexcept
{
    constexpr std::wstring_view PREFIX = L"Global\\";
    const std::wstring_view part = path.substr(0, MUTEX_PATH_LENGTH);
    CopyText(name, PREFIX);
    wchar_t* const begin = name + PREFIX.size();
    const int length = LCMapStringEx(LOCALE_NAME_INVARIANT, LCMAP_LOWERCASE, part.data(), static_cast<int>(part.size()),
                                     begin, static_cast<int>(MUTEX_PATH_LENGTH), nullptr, nullptr, 0);
    for (int index = 0; index < length; ++index) {
        if (begin[index] == L'\\')
            begin[index] = L'/';
    }
    begin[length] = L'\0';
}

} // namespace

// Holds the file's mutex over one record. The mutex is given back whether the wait gave it or not: then it fails, which
// is no matter.
class CFileOutput::FileHold {
public:
    explicit FileHold(HANDLE mutex) noexcept
        : m_mutex(mutex), m_result(WaitForSingleObject(mutex, LOG_MUTEX_WAIT_MILLISECONDS))
    {
    }
    FileHold(const FileHold&) = delete;
    FileHold& operator=(const FileHold&) = delete;
    ~FileHold() { ReleaseMutex(m_mutex); }

    // A mutex that its owner left behind is owned: at worst the owner's record is cut, and ours begins behind it.
    bool IsOwned() const noexcept { return m_result == WAIT_OBJECT_0 || m_result == WAIT_ABANDONED; }

private:
    HANDLE m_mutex;
    DWORD m_result;
};

CFileOutput::CFileOutput() noexcept
{
    InitializeCriticalSection(&m_lock);
    CopyText(m_moduleName, OwnModule().Name());
    CopyText(m_configurationKey, FieldText(m_moduleName));
    CopyText(m_executableName, ExecutableModule().Name());
    m_isGlobalOptionDisabled = IsGlobalOptionDisabled(FieldText(m_executableName));

    DWORD level = GetModuleLogLevel(FieldText(m_executableName));
    if (level == LOG_LEVEL_NOT_SET)
        level = GetModuleLogLevel(FieldText(m_configurationKey));
    if (level != LOG_LEVEL_NOT_SET)
        m_threshold = static_cast<int>(level);

    CLogCfgShareMemory& configuration = CLogCfgShareMemory::Instance();
    configuration.RegisterModule(FieldText(m_configurationKey));
    configuration.QueryPath(FieldText(m_configurationKey), m_isGlobalOptionDisabled, m_path);
}

CFileOutput::~CFileOutput()
{
    Close();
    DeleteCriticalSection(&m_lock);
}

DWORD CFileOutput::GetLogLevel()
{
    const std::uint32_t level = CLogCfgShareMemory::Instance().QueryLevel(FieldText(m_configurationKey));
    if (level != LOG_LEVEL_NOT_SET)
        m_threshold = static_cast<int>(level);
    return static_cast<DWORD>(m_threshold.load());
}

void CFileOutput::WriteLogA(int level, DWORD errorCode, const char* text)
{
    Write(level, errorCode, {nullptr, text});
}

void CFileOutput::WriteLogW(int level, DWORD errorCode, const wchar_t* text)
{
    Write(level, errorCode, {text, nullptr});
}

bool CFileOutput::Passes(int level) noexcept
{
    return level <= static_cast<int>(GetLogLevel());
}

void CFileOutput::Write(int level, DWORD errorCode, const Message& message) noexcept
{
    if (message.wide == nullptr && message.narrow == nullptr)
        return;
    if (!Passes(level))
        return;
    const CriticalSectionHold lock(m_lock);
    if (!OpenOrRotate())
        return;
    const FileHold hold(m_mutex.get());
    if (hold.IsOwned())
        WriteRecord(level, errorCode, message);
    else if (message.narrow != nullptr)
        Trace(L"[%d:%d] Failed to wait mutex for file[%s]\r\n", GetCurrentThreadId(), GetCurrentProcessId(), m_path);
}

void CFileOutput::WriteRecord(int level, DWORD errorCode, const Message& message) noexcept
{
    if (CheckByteOrderMark() == FileState::New)
        WriteSummary();
    if (m_isWide)
        WriteWideRecord(level, errorCode, message);
    else
        WriteNarrowRecord(level, errorCode, message);
}

// A record is four writes, so that a part that cannot be written does not take the others with it.
void CFileOutput::WriteWideRecord(int level, DWORD errorCode, const Message& message) noexcept
{
    wchar_t time[TIME_TEXT_CAPACITY];
    wchar_t header[LOG_HEADER_CAPACITY];
    wchar_t tail[LOG_TAIL_CAPACITY];
    GetLocalTimeText(time);
    BuildRecordHeader(header, time, {level, GetCurrentProcessId(), GetCurrentThreadId(), errorCode});
    BuildRecordTail(tail, m_executableName, m_moduleName, m_version);

    if (!MoveToEnd())
        return;
    WritePart(header, BytesOf(header), HEADER_FAILURE);
    if (message.wide != nullptr) {
        WritePart(message.wide, BytesOf(message.wide), MESSAGE_FAILURE);
    } else {
        const WideText text{message.narrow};
        WritePart(text.characters, BytesOf(text.View()), MESSAGE_FAILURE);
    }
    WritePart(tail, BytesOf(tail), TAIL_FAILURE);
    WritePart(L"\r\n", BytesOf(L"\r\n"), LINE_END_FAILURE);
}

void CFileOutput::WriteNarrowRecord(int level, DWORD errorCode, const Message& message) noexcept
{
    char time[TIME_TEXT_CAPACITY];
    char header[LOG_HEADER_CAPACITY];
    char tail[LOG_TAIL_CAPACITY];
    GetLocalTimeText(time);
    BuildRecordHeader(header, time, {level, GetCurrentProcessId(), GetCurrentThreadId(), errorCode});
    BuildRecordTail(tail, NarrowText(FieldText(m_executableName)).bytes, NarrowText(FieldText(m_moduleName)).bytes,
                    m_version);

    if (!MoveToEnd())
        return;
    WritePart(header, static_cast<DWORD>(std::strlen(header)), HEADER_FAILURE);
    if (message.narrow != nullptr)
        WritePart(message.narrow, static_cast<DWORD>(std::strlen(message.narrow)), MESSAGE_FAILURE);
    else
        WriteConverted(message.wide, MESSAGE_FAILURE);
    WritePart(tail, static_cast<DWORD>(std::strlen(tail)), TAIL_FAILURE);
    WritePart("\r\n", 2, LINE_END_FAILURE);
}

bool CFileOutput::OpenOrRotate() noexcept
{
    const bool wasOpen = m_file.valid();
    bool isNewFileFull = false;
    if (!FollowConfiguredPath(isNewFileFull))
        return false;
    if (!m_file) {
        // The successor of a file that was open lies in a folder that is ready.
        if (!wasOpen || isNewFileFull)
            PrepareLogFolder(FieldText(m_path), CLogCfgShareMemory::Instance().DefaultLogFolder());
        if (!OpenFile()) {
            Close();
            return false;
        }
    }
    if (!m_isVersionKnown) {
        const FileVersion version = GetModuleFileVersion(OwnModule().text);
        m_version = version.low;
        m_isVersionKnown = version.high != 0 || version.low != 0;
    }
    if (!m_mutex && !OpenMutex()) {
        Close();
        return false;
    }
    return true;
}

// Settles which file the record goes to. isNewFileFull: the configuration gave another path, and its file was full.
// False when there is no path for the successor that is needed.
bool CFileOutput::FollowConfiguredPath(bool& isNewFileFull) noexcept
{
    CLogCfgShareMemory& configuration = CLogCfgShareMemory::Instance();
    const std::wstring_view key = FieldText(m_configurationKey);
    wchar_t configured[LOG_PATH_CAPACITY];
    CopyText(configured, FieldText(m_path));
    configuration.QueryPath(key, m_isGlobalOptionDisabled, configured);

    if (IsSameLogFile(FieldText(m_path), FieldText(configured), EqualIgnoringCase)) {
        if ((m_file ? OpenFileSize() : SizeOnDisk(m_path)) < SIZE_LIMIT)
            return true;
        m_file.reset();
        m_mutex.reset();
        return MoveToSuccessor();
    }
    m_file.reset();
    m_mutex.reset();
    CopyText(m_path, FieldText(configured));
    configuration.StorePath(key, FieldText(m_path));
    isNewFileFull = SizeOnDisk(m_path) >= SIZE_LIMIT;
    return !isNewFileFull || MoveToSuccessor();
}

bool CFileOutput::MoveToSuccessor() noexcept
{
    wchar_t candidate[LOG_PATH_CAPACITY];
    LogPathParts parts = SplitLogPath(FieldText(m_path));
    do {
        ++parts.number;
        if (!BuildSuccessorPath(parts, candidate))
            return false;
    } while (SizeOnDisk(candidate) >= SIZE_LIMIT);
    Trace(L"[%d:%d] Redirect file from [%s] to [%s]\r\n", GetCurrentThreadId(), GetCurrentProcessId(), m_path,
          candidate);
    CopyText(m_path, FieldText(candidate));
    CLogCfgShareMemory::Instance().StorePath(FieldText(m_configurationKey), FieldText(m_path));
    return true;
}

bool CFileOutput::OpenFile() noexcept
{
    OpenToEveryone everyone;
    // The path comes from memory that every program may write: the other end of a pipe must not be able to act in this
    // process's name,
    m_file.reset(CreateFileW(m_path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, everyone.get(),
                             OPEN_ALWAYS, FILE_FLAG_SEQUENTIAL_SCAN | SECURITY_SQOS_PRESENT | SECURITY_ANONYMOUS,
                             nullptr));
    // nor to keep every thread that logs waiting for it.
    if (m_file && GetFileType(m_file.get()) != FILE_TYPE_DISK) {
        m_file.reset();
        SetLastError(ERROR_INVALID_NAME);
    }
    if (!m_file)
        Trace(L"[%d:%d] Failed to create file [%s]. ERR=%d\r\n", GetCurrentThreadId(), GetCurrentProcessId(), m_path,
              GetLastError());
    return m_file.valid();
}

bool CFileOutput::OpenMutex() noexcept
{
    if (m_path[0] == L'\0') {
        Trace(L"[%d:%d] Failed to create mutex. File name is empty\r\n", GetCurrentThreadId(), GetCurrentProcessId());
        return false;
    }
    wchar_t name[LOG_PATH_CAPACITY];
    BuildMutexName(FieldText(m_path), name);
    OpenToEveryone everyone;
    m_mutex.reset(CreateMutexW(everyone.get(), FALSE, name));
    if (!m_mutex)
        Trace(L"[%d:%d] Failed to create mutex with name [%s]. ERR=%d\r\n", GetCurrentThreadId(), GetCurrentProcessId(),
              name, GetLastError());
    return m_mutex.valid();
}

// After a failure: the version is read again with the next file.
void CFileOutput::Close() noexcept
{
    m_file.reset();
    m_mutex.reset();
    m_version = 0;
    m_isVersionKnown = false;
}

LONGLONG CFileOutput::OpenFileSize() const noexcept
{
    LARGE_INTEGER size = {};
    return GetFileSizeEx(m_file.get(), &size) ? size.QuadPart : UNKNOWN_SIZE;
}

// The file is asked for its size once here: one that holds no more than the mark does so whether the mark was just written
// or not.
CFileOutput::FileState CFileOutput::CheckByteOrderMark() noexcept
{
    const LARGE_INTEGER start = {};
    DWORD transferred = 0;
    const LONGLONG size = OpenFileSize();
    if (size == UNKNOWN_SIZE)
        return FileState::Begun;
    if (size > static_cast<LONGLONG>(sizeof(BYTE_ORDER_MARK))) {
        BYTE mark[sizeof(BYTE_ORDER_MARK)] = {};
        // A mark that cannot be read says nothing: the form stays what it was.
        if (SetFilePointerEx(m_file.get(), start, nullptr, FILE_BEGIN) &&
            ReadFile(m_file.get(), mark, sizeof(mark), &transferred, nullptr) && transferred == sizeof(mark))
            m_isWide = std::memcmp(mark, BYTE_ORDER_MARK, sizeof(mark)) == 0;
        return FileState::Begun;
    }
    if (m_isWide && SetFilePointerEx(m_file.get(), start, nullptr, FILE_BEGIN)) {
        WriteFile(m_file.get(), BYTE_ORDER_MARK, sizeof(BYTE_ORDER_MARK), &transferred, nullptr);
        FlushFileBuffers(m_file.get());
    }
    return FileState::New;
}

bool CFileOutput::MoveToEnd() noexcept
{
    if (SetFilePointerEx(m_file.get(), {}, nullptr, FILE_END))
        return true;
    Trace(L"[%d:%d] Failed to SetFilePointer. ERR=%d, [%d]File=%s\r\n", GetCurrentThreadId(), GetCurrentProcessId(),
          GetLastError(), static_cast<int>(reinterpret_cast<INT_PTR>(m_file.get())), m_path);
    return false;
}

void CFileOutput::WriteSummary() noexcept
{
    if (!MoveToEnd())
        return;
    wchar_t time[TIME_TEXT_CAPACITY];
    wchar_t header[LOG_HEADER_CAPACITY];
    wchar_t line[LOG_LINE_CAPACITY];
    GetLocalTimeText(time);
    BuildRecordHeader(header, time, {m_threshold, GetCurrentProcessId(), GetCurrentThreadId(), 0});

    WriteSummaryLine({}, LOG_COLUMN_LINE);
    WriteSummaryLine(header, LOG_SUMMARY_LINE);
    GetProductLine(line);
    WriteSummaryLine(header, line);
    GetSystemLine(line);
    WriteSummaryLine(header, line);
    WriteSummaryLine(header, LOG_LEVEL_HINT_LINE);
    WriteSummaryLine(header, LOG_LEVEL_KEY_LINE);
    WriteSummaryLine(header, LOG_END_LINE);
}

void CFileOutput::WriteSummaryLine(std::wstring_view header, std::wstring_view text) noexcept
{
    wchar_t line[LOG_HEADER_CAPACITY + LOG_LINE_CAPACITY + 2];
    CopyText(line, header);
    AppendText(line, text);
    AppendText(line, L"\r\n");
    if (m_isWide)
        WritePart(line, BytesOf(FieldText(line)), MESSAGE_FAILURE);
    else
        WriteConverted(FieldText(line), MESSAGE_FAILURE);
}

void CFileOutput::WritePart(const void* bytes, DWORD size, const wchar_t* failure) noexcept
{
    DWORD written = 0;
    if (size == 0 || (WriteFile(m_file.get(), bytes, size, &written, nullptr) && written == size))
        return;
    Trace(failure, GetCurrentThreadId(), GetCurrentProcessId(), GetLastError(),
          static_cast<int>(reinterpret_cast<INT_PTR>(m_file.get())), m_path);
}

void CFileOutput::WriteConverted(std::wstring_view text, const wchar_t* failure) noexcept
{
    const NarrowText converted(text);
    WritePart(converted.bytes, static_cast<DWORD>(converted.length), failure);
}

} // namespace vtflt::NSDBG
