// The fixture of the tests of the log's file: a simulated machine whose registry the log reads and whose faults strike
// its calls, a folder of the case's own, and the output as the library makes it at load.
#pragma once

#include "log/file_output.h"
#include "log/own_module.h"
#include "support/log_test.h"
#include "support/text.h"
#include "trace_capture.h"
#include "vtfltsim/VTFltSim.hpp"

#include <memory>
#include <string>
#include <vector>

namespace vttest {

// Whether the case runs on the double, which lacks what a few cases need: they skip with the reason.
#if defined(_WIN32)
inline constexpr bool ON_DOUBLE = false;
#else
inline constexpr bool ON_DOUBLE = true;
#endif

inline constexpr LONGLONG LOG_SIZE_LIMIT = 104857600;

// Lets the module of the logging code, or the executable, lie elsewhere while the object lives: what was found out once is
// overwritten, and with an empty path found out anew.
class Elsewhere {
public:
    explicit Elsewhere(const std::wstring& path, const vtflt::ModulePath& module = vtflt::OwnModule())
        : m_path(const_cast<vtflt::ModulePath&>(module)), m_before(module)
    {
        vtflt::CopyText(m_path.text, path);
    }
    Elsewhere(const Elsewhere&) = delete;
    Elsewhere& operator=(const Elsewhere&) = delete;
    ~Elsewhere() { m_path = m_before; }

private:
    vtflt::ModulePath& m_path;
    const vtflt::ModulePath m_before;
};

class LogFileTest : public ::testing::Test {
protected:
    LogFileTest();
    // Nothing that the log opened may be open when it is gone.
    void TearDown() override;

    // Makes the output, as the load of the library does. The block then holds the default path, below this program.
    void MakeOutput();
    // Makes it and leads it to a file of the case's folder, as a program that edits the configuration does.
    void Start(const std::wstring& path);
    // Changes what the configuration holds for the module.
    void SetEntryPath(const std::wstring& path);
    void SetEntryLevel(DWORD level, DWORD flags);
    void SetProcessPath(const std::wstring& path);
    void SetProcessLevel(DWORD level);
    std::wstring EntryPath() const;
    std::wstring ProcessPath() const;

    void Write(const std::wstring& text, int level = 2, DWORD code = 0)
    {
        m_output->WriteLogW(level, code, text.c_str());
    }

    // The file of a name in the case's folder.
    std::wstring File(const std::wstring& name) const { return m_folder.File(name); }
    static bool Exists(const std::wstring& path) { return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }
    static LONGLONG SizeOf(const std::wstring& path);
    // The records of a wide file: its lines behind the seven of the summary block, their times masked.
    static std::vector<std::wstring> Records(const std::wstring& path);
    // The texts alone.
    static std::vector<std::wstring> Texts(const std::wstring& path);

    // The registry of the machine.
    void SetText(const std::wstring& key, const std::wstring& value, const std::wstring& text);
    void SetNumber(const std::wstring& key, const std::wstring& value, DWORD number);
    void MakeKey(const std::wstring& key);
    // Makes this program a part of a component: the component's folder contains it.
    void InstallEngineHere();
    void InstallManagementHere();
    // The product root's own folder, and this program's module in it.
    std::wstring InstallProductRoot();
    static std::wstring ProgramFolder() { return std::wstring(vtflt::ExecutableModule().Folder()); }
    // A file with the version 5.1.2.773.
    static std::wstring VersionedProgram() { return ProgramFolder() + L"\\log_child.exe"; }
    static std::wstring ProgramName() { return std::wstring(vtflt::ExecutableModule().Name()); }

    static std::vector<std::wstring> Recorded(const std::wstring& function);

    vtfltsim::SimMachine m_machine;
    ScratchFolder m_folder;
    std::unique_ptr<vtflt::NSDBG::CFileOutput> m_output;
};

// Replaces the digits of every time that stands where a header has it, so that texts can be compared; a header without a
// well-formed time stays as it is.
std::wstring MaskTimes(std::wstring text);
// The header of a record of this thread, its time masked.
std::wstring MaskedHeader(int level, DWORD code = 0);
// The tail of a record of this program, which has no version of its own.
std::wstring Tail(const std::wstring& version = L"0.0");
std::vector<std::wstring> Lines(const std::wstring& text);

inline constexpr wchar_t ENGINE[] = L"SOFTWARE\\Veltrix\\Lumen Protect\\Engine";
inline constexpr wchar_t MANAGEMENT[] = L"SOFTWARE\\Veltrix\\Lumen Protect\\Management";
inline constexpr wchar_t PRODUCT[] = L"SOFTWARE\\Veltrix\\Lumen Protect";

} // namespace vttest
