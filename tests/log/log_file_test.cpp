#include "log_file_test.h"

namespace vttest {

namespace {

constexpr std::wstring_view TIME_PATTERN = L"0000/00/00 00:00:00:000";

bool IsTimeAt(const std::wstring& text, std::size_t at)
{
    if (at + TIME_PATTERN.size() > text.size())
        return false;
    for (std::size_t i = 0; i < TIME_PATTERN.size(); ++i) {
        const bool isDigit = text[at + i] >= L'0' && text[at + i] <= L'9';
        if (TIME_PATTERN[i] == L'0' ? !isDigit : text[at + i] != TIME_PATTERN[i])
            return false;
    }
    return true;
}

std::wstring FiveDigits(DWORD number)
{
    const std::wstring digits = WideNumber(number);
    return digits.size() < 5 ? std::wstring(5 - digits.size(), L'0') + digits : digits;
}

} // namespace

std::wstring MaskTimes(std::wstring text)
{
    for (std::size_t at = text.find(L'['); at != std::wstring::npos; at = text.find(L'[', at + 1)) {
        if (IsTimeAt(text, at + 1))
            text.replace(at + 1, TIME_PATTERN.size(), TIME_PATTERN);
    }
    return text;
}

std::wstring MaskedHeader(int level, DWORD code)
{
    std::wstring header = L"[" + std::wstring(TIME_PATTERN) + L"   0" + WideNumber(static_cast<unsigned>(level)) +
                          L"   " + FiveDigits(GetCurrentProcessId()) + L"   " + FiveDigits(GetCurrentThreadId());
    if (code == 0)
        return header + L"             ] ";
    header += L"   0X";
    for (int shift = 28; shift >= 0; shift -= 4)
        header.push_back(L"0123456789abcdef"[code >> shift & 0xF]);
    return header + L"] ";
}

std::wstring Tail(const std::wstring& version)
{
    const std::wstring name(vtflt::ExecutableModule().Name());
    return L"   {" + name + L"::" + name + L"(" + version + L")}";
}

std::vector<std::wstring> Lines(const std::wstring& text)
{
    std::vector<std::wstring> lines;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = text.find(L"\r\n", at);
        lines.push_back(text.substr(at, end - at));
        at = end == std::wstring::npos ? text.size() : end + 2;
    }
    return lines;
}

LogFileTest::LogFileTest()
{
    vtflt::CloseOutputState();
    m_machine.AttachProgram();
    ClearTrace();
}

void LogFileTest::TearDown()
{
    VTFltSimClearCallFaults();
    m_output.reset();
    vtflt::CloseOutputState();
    for (const std::wstring& line : vtfltsim::LeftOpen())
        ADD_FAILURE() << "left open: " << Narrow(line);
    m_machine.Detach();
}

void LogFileTest::MakeOutput()
{
    m_output = std::make_unique<vtflt::NSDBG::CFileOutput>();
}

void LogFileTest::Start(const std::wstring& path)
{
    MakeOutput();
    SetEntryPath(path);
}

void LogFileTest::SetEntryPath(const std::wstring& path)
{
    const ConfigEditor editor;
    vtflt::LogCfgModuleEntry* const entry = editor.Find(ProgramName());
    ASSERT_NE(nullptr, entry);
    vtflt::CopyText(entry->path, path);
}

void LogFileTest::SetEntryLevel(DWORD level, DWORD flags)
{
    const ConfigEditor editor;
    vtflt::LogCfgModuleEntry* const entry = editor.Find(ProgramName());
    ASSERT_NE(nullptr, entry);
    entry->level = level;
    entry->flags = flags;
}

void LogFileTest::SetProcessPath(const std::wstring& path)
{
    const ConfigEditor editor;
    ASSERT_NE(nullptr, editor.block);
    vtflt::CopyText(editor.block->path, path);
}

void LogFileTest::SetProcessLevel(DWORD level)
{
    const ConfigEditor editor;
    ASSERT_NE(nullptr, editor.block);
    editor.block->level = level;
}

std::wstring LogFileTest::EntryPath() const
{
    const ConfigEditor editor;
    const vtflt::LogCfgModuleEntry* const entry = editor.Find(ProgramName());
    return entry != nullptr ? std::wstring(vtflt::FieldText(entry->path)) : L"(no entry)";
}

std::wstring LogFileTest::ProcessPath() const
{
    const ConfigEditor editor;
    return editor.block != nullptr ? std::wstring(vtflt::FieldText(editor.block->path)) : L"(no block)";
}

LONGLONG LogFileTest::SizeOf(const std::wstring& path)
{
    WIN32_FILE_ATTRIBUTE_DATA data = {};
    if (!GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data))
        return -1;
    return static_cast<LONGLONG>(data.nFileSizeHigh) << 32 | data.nFileSizeLow;
}

std::vector<std::wstring> LogFileTest::Records(const std::wstring& path)
{
    std::vector<std::wstring> lines = Lines(MaskTimes(WideFileText(path)));
    EXPECT_LE(7u, lines.size()) << "no summary block in " << Narrow(path);
    lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(std::min<std::size_t>(7, lines.size())));
    return lines;
}

std::vector<std::wstring> LogFileTest::Texts(const std::wstring& path)
{
    std::vector<std::wstring> texts;
    for (const std::wstring& record : Records(path)) {
        const std::size_t begin = record.find(L"] ");
        const std::size_t end = record.rfind(L"   {");
        EXPECT_TRUE(begin != std::wstring::npos && end != std::wstring::npos) << Narrow(record);
        if (begin != std::wstring::npos && end != std::wstring::npos)
            texts.push_back(record.substr(begin + 2, end - begin - 2));
    }
    return texts;
}

void LogFileTest::MakeKey(const std::wstring& key)
{
    vtflt::UniqueKey opened;
    ASSERT_EQ(0u, VTFltSimOpenKey(m_machine.handle(), key.c_str(), KEY_READ, opened.put()));
}

void LogFileTest::SetText(const std::wstring& key, const std::wstring& value, const std::wstring& text)
{
    vtflt::UniqueKey opened;
    ASSERT_EQ(0u, VTFltSimOpenKey(m_machine.handle(), key.c_str(), KEY_WRITE, opened.put()));
    ASSERT_EQ(0, RegSetValueExW(opened.get(), value.c_str(), 0, REG_SZ, reinterpret_cast<const BYTE*>(text.c_str()),
                                static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t))));
}

void LogFileTest::SetNumber(const std::wstring& key, const std::wstring& value, DWORD number)
{
    vtflt::UniqueKey opened;
    ASSERT_EQ(0u, VTFltSimOpenKey(m_machine.handle(), key.c_str(), KEY_WRITE, opened.put()));
    ASSERT_EQ(0, RegSetValueExW(opened.get(), value.c_str(), 0, REG_DWORD, reinterpret_cast<const BYTE*>(&number),
                                sizeof(number)));
}

void LogFileTest::InstallEngineHere()
{
    SetText(std::wstring(ENGINE) + L"\\InstallPath", L"Path", ProgramFolder());
}

void LogFileTest::InstallManagementHere()
{
    SetText(MANAGEMENT, L"Path", ProgramFolder());
}

std::wstring LogFileTest::InstallProductRoot()
{
    SetText(PRODUCT, L"RootPath", L"C:\\Lumen");
    return L"C:\\Lumen\\Update Manager\\" + ProgramName();
}

std::vector<std::wstring> LogFileTest::Recorded(const std::wstring& function)
{
    std::vector<std::wstring> calls;
    for (const std::wstring& call : vtfltsim::Trace()) {
        if (call.substr(0, call.find(L' ')) == function)
            calls.push_back(call);
    }
    return calls;
}

} // namespace vttest
