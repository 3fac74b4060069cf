#include "tools/vtlog_test.h"

#include "support/start_again.h"

#include <array>
#include <cstdio>
#include <stdexcept>

namespace vtlog_test {
namespace {

std::wstring ProgramFolder()
{
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring folder(path);
    folder.resize(folder.find_last_of(L'\\') + 1);
    return folder;
}

std::wstring EnvironmentWith(const std::vector<std::wstring>& variables)
{
    std::wstring block;
    wchar_t* const own = GetEnvironmentStringsW();
    for (const wchar_t* p = own; *p != L'\0';) {
        const std::wstring entry(p);
        block += entry + L'\0';
        p += entry.size() + 1;
    }
    FreeEnvironmentStringsW(own);
    for (const std::wstring& variable : variables)
        block += variable + L'\0';
    return block + L'\0';
}

// A pipe whose far end the child inherits.
void MakePipe(vtflt::UniqueHandle& own, vtflt::UniqueHandle& child, bool childReads)
{
    SECURITY_ATTRIBUTES inheritable = {sizeof(inheritable), nullptr, TRUE};
    vtflt::UniqueHandle& reader = childReads ? child : own;
    vtflt::UniqueHandle& writer = childReads ? own : child;
    if (!CreatePipe(reader.put(), writer.put(), &inheritable, 0))
        throw std::runtime_error("CreatePipe failed");
    SetHandleInformation(own.get(), HANDLE_FLAG_INHERIT, 0);
}

std::wstring Padded(unsigned number, std::size_t digits)
{
    const std::wstring text = std::to_wstring(number);
    return std::wstring(text.size() < digits ? digits - text.size() : 0, L'0') + text;
}

void WriteWhole(const std::wstring& path, const void* bytes, std::size_t count)
{
    const vtflt::UniqueHandle file(
        CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD written = 0;
    if (!file.valid() || !WriteFile(file.get(), bytes, static_cast<DWORD>(count), &written, nullptr) ||
        written != count)
        throw std::runtime_error("a file of the test could not be written");
}

void RemoveFolder(const std::wstring& folder)
{
    WIN32_FIND_DATAW found = {};
    {
        const vtflt::UniqueFileSearch search(FindFirstFileW((folder + L"\\*").c_str(), &found));
        if (!search.valid())
            return;
        do {
            const std::wstring name = found.cFileName;
            if (name == L"." || name == L"..")
                continue;
            if ((found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
                RemoveFolder(folder + L"\\" + name);
            else
                DeleteFileW((folder + L"\\" + name).c_str());
        } while (FindNextFileW(search.get(), &found));
    }
    RemoveDirectoryW(folder.c_str());
}

} // namespace

std::vector<std::string> Result::Lines() const
{
    std::vector<std::string> lines;
    for (std::size_t begin = 0; begin < out.size();) {
        const std::size_t end = std::min(out.find('\n', begin), out.size());
        lines.push_back(out.substr(begin, end - begin));
        begin = end + 1;
    }
    return lines;
}

std::vector<nlohmann::json> Result::Json() const
{
    std::vector<nlohmann::json> objects;
    for (const std::string& line : Lines()) {
        objects.push_back(nlohmann::json::parse(line, nullptr, false));
        EXPECT_TRUE(objects.back().is_object()) << line;
    }
    return objects;
}

Process::Process(const std::vector<std::wstring>& arguments, const std::vector<std::wstring>& variables,
                 const std::wstring& program)
{
    vtflt::UniqueHandle in;
    vtflt::UniqueHandle out;
    vtflt::UniqueHandle err;
    MakePipe(m_in, in, true);
    MakePipe(m_outPipe, out, false);
    MakePipe(m_errPipe, err, false);
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = in.get();
    startup.hStdOutput = out.get();
    startup.hStdError = err.get();
    std::wstring line = L"\"" + ProgramFolder() + program + L"\"";
    for (const std::wstring& argument : arguments)
        line += L" \"" + argument + L"\"";
    std::wstring environment = EnvironmentWith(variables);
    PROCESS_INFORMATION process = {};
    const bool started = vttest::StartAgain([&] {
        return CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, CREATE_UNICODE_ENVIRONMENT,
                              environment.data(), nullptr, &startup, &process);
    });
    if (!started)
        throw std::runtime_error("the program could not be started, error " + std::to_string(GetLastError()));
    CloseHandle(process.hThread);
    m_process.reset(process.hProcess);
    m_id = process.dwProcessId;
    out.reset();
    err.reset();
    m_outReader = std::thread([this] { Collect(m_outPipe.get(), m_out); });
    m_errReader = std::thread([this] { Collect(m_errPipe.get(), m_err); });
}

Process::~Process()
{
    if (WaitForSingleObject(m_process.get(), 0) != WAIT_OBJECT_0)
        TerminateProcess(m_process.get(), 99);
    if (m_outReader.joinable())
        m_outReader.join();
    if (m_errReader.joinable())
        m_errReader.join();
}

void Process::Collect(HANDLE pipe, std::string& text)
{
    std::array<char, 4096> buffer = {};
    DWORD got = 0;
    while (ReadFile(pipe, buffer.data(), static_cast<DWORD>(buffer.size()), &got, nullptr) && got > 0) {
        const std::lock_guard guard(m_lock);
        text.append(buffer.data(), got);
        m_changed.notify_all();
    }
    const std::lock_guard guard(m_lock);
    (&text == &m_out ? m_outEnded : m_errEnded) = true;
    m_changed.notify_all();
}

void Process::Type(std::string_view text)
{
    DWORD written = 0;
    WriteFile(m_in.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
}

bool Process::AwaitOutput(std::string_view text)
{
    std::unique_lock lock(m_lock);
    m_changed.wait(lock, [&] { return m_outEnded || m_out.find(text) != std::string::npos; });
    return m_out.find(text) != std::string::npos;
}

bool Process::AwaitDiagnosis(std::string_view text)
{
    std::unique_lock lock(m_lock);
    m_changed.wait(lock, [&] { return m_errEnded || m_err.find(text) != std::string::npos; });
    return m_err.find(text) != std::string::npos;
}

void Process::Terminate()
{
    TerminateProcess(m_process.get(), 99);
}

Result Process::Finish()
{
    m_in.reset();
    m_outReader.join();
    m_errReader.join();
    WaitForSingleObject(m_process.get(), INFINITE);
    Result result;
    GetExitCodeProcess(m_process.get(), &result.exitCode);
    result.out = m_out;
    result.err = m_err;
    return result;
}

VtLogTest::VtLogTest() : folder(ProgramFolder() + L"vtlog_test." + std::to_wstring(GetCurrentProcessId()))
{
    RemoveFolder(folder);
    CreateDirectoryW(folder.c_str(), nullptr);
}

VtLogTest::~VtLogTest()
{
    RemoveFolder(folder);
}

Result VtLogTest::Run(const std::vector<std::wstring>& arguments)
{
    return Process(arguments).Finish();
}

std::wstring VtLogTest::WriteWide(const std::wstring& name, std::wstring_view text) const
{
    const std::wstring marked = L"\xFEFF" + std::wstring(text);
    WriteWhole(Path(name), marked.data(), marked.size() * sizeof(wchar_t));
    return Path(name);
}

std::wstring VtLogTest::WriteBytes(const std::wstring& name, std::string_view bytes) const
{
    WriteWhole(Path(name), bytes.data(), bytes.size());
    return Path(name);
}

std::wstring Record(const std::wstring& time, int level, unsigned long code, const std::wstring& text, unsigned pid,
                    unsigned tid)
{
    std::wstring codeText(13, L' ');
    if (code != 0) {
        codeText = L"   0X00000000";
        for (std::size_t digit = codeText.size() - 1; code != 0; --digit, code /= 16)
            codeText[digit] = L"0123456789abcdef"[code % 16];
    }
    return L"[" + time + L"   " + Padded(static_cast<unsigned>(level), 2) + L"   " + Padded(pid, 5) + L"   " +
           Padded(tid, 5) + codeText + L"] " + text + L"   {a.exe::b.dll(0.1)}\r\n";
}

std::wstring SummaryBlock(const std::wstring& time)
{
    const std::wstring header = L"[" + time + L"   02   00100   00200             ] ";
    return L"[   Date        Time      Level  PID     TID   ErrCode    ] .......\r\n" + header +
           L"================ SUMMARY LOG =======================\r\n" + header +
           L"Product Info: [Veltrix Software Inc] [veltrix Lumen Protect] Ver[r10.0]\r\n" + header +
           L"OS      Info: Computer Name[HOST] Version[10.0] Platform[X64]\r\n" + header +
           L"Log level of each module can be controlled by registry key:\r\n" + header +
           L"[HKEY_LOCAL_MACHINE\\SOFTWARE\\Veltrix\\Lumen Protect\\Engine\\Debug\\ModuleName:DWORD]\r\n" + header +
           L"=====================================================\r\n";
}

std::string Utf8(std::wstring_view text)
{
    const int in = static_cast<int>(text.size());
    std::string out(
        static_cast<std::size_t>(WideCharToMultiByte(CP_UTF8, 0, text.data(), in, nullptr, 0, nullptr, nullptr)), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), in, out.data(), static_cast<int>(out.size()), nullptr, nullptr);
    return out;
}

} // namespace vtlog_test
