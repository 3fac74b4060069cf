// The log's output into a file on disk, shared with every process that logs into the same file.
//
// The file lies where the process's log configuration says, which may change from one record to the next. It is opened
// by the first record and stays open. A file that reached its limit is left alone, and the records go on in a numbered
// successor. Writers of one file, in whatever process, take turns by a mutex that is named after the path.
//
// A new file is UTF-16 with its byte-order mark; one that somebody else began without the mark gets its records in the
// ANSI code page. Nothing fails the caller: a record that cannot be written is dropped.
#pragma once

#include "log/config_block.h"
#include "log/log.h"
#include "win/owners.h"

#include <atomic>
#include <string_view>

namespace vtflt::NSDBG {

class CFileOutput final : public IDBGLogOutput {
public:
    // A file of this size, in bytes, is full.
    static constexpr LONGLONG SIZE_LIMIT = 0x6400000;

    // Settles names, threshold and path; enters the module in the process's log configuration.
    CFileOutput() noexcept;
    CFileOutput(const CFileOutput&) = delete;
    CFileOutput& operator=(const CFileOutput&) = delete;
    ~CFileOutput() override;

    void WriteLogA(int level, DWORD errorCode, const char* text) override;
    void WriteLogW(int level, DWORD errorCode, const wchar_t* text) override;
    DWORD GetLogLevel() override;

private:
    // A record's message in the form its caller had; the other one is null.
    struct Message {
        const wchar_t* wide;
        const char* narrow;
    };
    class FileHold;
    // New: it has no record and no summary yet. A file whose size cannot be had counts as begun.
    enum class FileState { Begun, New };

    bool Passes(int level) noexcept;
    void Write(int level, DWORD errorCode, const Message& message) noexcept;
    void WriteRecord(int level, DWORD errorCode, const Message& message) noexcept;
    void WriteWideRecord(int level, DWORD errorCode, const Message& message) noexcept;
    void WriteNarrowRecord(int level, DWORD errorCode, const Message& message) noexcept;

    bool OpenOrRotate() noexcept;
    bool FollowConfiguredPath(bool& isNewFileFull) noexcept;
    bool MoveToSuccessor() noexcept;
    bool OpenFile() noexcept;
    bool OpenMutex() noexcept;
    void Close() noexcept;

    LONGLONG OpenFileSize() const noexcept;
    FileState CheckByteOrderMark() noexcept;
    bool MoveToEnd() noexcept;
    void WriteSummary() noexcept;
    void WriteSummaryLine(std::wstring_view header, std::wstring_view text) noexcept;
    void WritePart(const void* bytes, DWORD size, const wchar_t* failure) noexcept;
    void WriteConverted(std::wstring_view text, const wchar_t* failure) noexcept;

    wchar_t m_path[LOG_PATH_CAPACITY] = {};                    // empty until the configuration gives one
    wchar_t m_configurationKey[LOG_MODULE_NAME_CAPACITY] = {}; // under which the configuration knows the module
    wchar_t m_moduleName[LOG_MODULE_NAME_CAPACITY] = {};       // of the module that contains the logging code
    wchar_t m_executableName[LOG_MODULE_NAME_CAPACITY] = {};
    DWORD m_version = 0;           // the lower half of the module's file version
    bool m_isVersionKnown = false; // apart from it: a version's lower half may be 0, and is not read for every record
    bool m_isWide = true;          // the form of the open file; kept for the next one
    std::atomic<int> m_threshold = LOG_INFORMATION;
    UniqueHandle m_file;
    UniqueHandle m_mutex;
    CRITICAL_SECTION m_lock; // guards everything but the names and the threshold
    bool m_isGlobalOptionDisabled = false;
};

} // namespace vtflt::NSDBG
