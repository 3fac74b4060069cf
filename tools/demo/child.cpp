#include "child.h"

#include "vtfltsim/VTFltSim.h"

#include <nlohmann/json.hpp>

#include <stdexcept>
#include <string>

namespace vtdemo {
namespace {

constexpr int STARTS = 3;
constexpr DWORD PAUSE_MILLISECONDS = 200;

std::wstring ProgramBeside(const wchar_t* name)
{
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring folder(path);
    folder.resize(folder.find_last_of(L'\\') + 1);
    return folder + name;
}

// No argument of the demonstration holds a quotation mark or ends in a backslash.
std::wstring CommandLine(const std::vector<std::wstring>& arguments)
{
    std::wstring line = L"\"" + ProgramBeside(L"vtbackup.exe") + L"\"";
    for (const std::wstring& argument : arguments)
        line += L" \"" + argument + L"\"";
    return line;
}

// This process's environment and one more variable; the process's own stays as it is, for other threads.
std::wstring EnvironmentWith(const std::wstring& name, const std::wstring& value)
{
    std::wstring block;
    wchar_t* const own = GetEnvironmentStringsW();
    for (const wchar_t* p = own; *p != L'\0';) {
        const std::wstring entry(p);
        block += entry + L'\0';
        p += entry.size() + 1;
    }
    FreeEnvironmentStringsW(own);
    if (!value.empty())
        block += name + L"=" + value + L'\0';
    return block + L'\0';
}

void ReadJson(Answer& answer)
{
    const nlohmann::json object = nlohmann::json::parse(answer.output, nullptr, false);
    if (!object.is_object())
        return;
    answer.message = object.value("message", "");
    answer.reported = object.value("reported", false);
    const std::string snapshot = object.value("snapshotId", "");
    if (!snapshot.empty())
        answer.snapshot = static_cast<DWORD>(std::stoul(snapshot));
    const auto backup = object.find("backup");
    if (backup == object.end() || !backup->is_object())
        return;
    answer.kind = backup->value("kind", "");
    for (const nlohmann::json& reason : backup->at("reasons"))
        answer.reasons.push_back(reason.value("code", ""));
    answer.sequence = backup->value("sequence", std::uint64_t{0});
    answer.blocks = backup->value("blocksReported", std::uint64_t{0});
    answer.bytesRead = backup->value("bytesRead", std::uint64_t{0});
    answer.volumeLength = backup->value("volumeLength", std::uint64_t{0});
}

} // namespace

Child::Child(const std::vector<std::wstring>& arguments, const std::wstring& calls)
{
    SECURITY_ATTRIBUTES inheritable = {sizeof(inheritable), nullptr, TRUE};
    HANDLE writeEnd = nullptr;
    if (!CreatePipe(&m_output, &writeEnd, &inheritable, 0))
        throw std::runtime_error("CreatePipe failed");
    SetHandleInformation(m_output, HANDLE_FLAG_INHERIT, 0);
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = writeEnd;
    // Diagnostics repeat what the JSON object says; expected ones would only confuse.
    startup.hStdError = nullptr;
    PROCESS_INFORMATION process = {};
    std::wstring line = CommandLine(arguments);
    std::wstring environment = EnvironmentWith(VTFLTSIM_CALLS_VARIABLE, calls);
    DWORD error = 0;
    // Under Wine this was seen to fail, twice in some hundred demonstrations, for no known reason. Nothing has run yet, so it is
    // tried again.
    for (int attempt = 0; attempt < STARTS && process.hProcess == nullptr; ++attempt) {
        if (attempt > 0)
            Sleep(PAUSE_MILLISECONDS);
        if (!CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, CREATE_UNICODE_ENVIRONMENT,
                            environment.data(), nullptr, &startup, &process))
            error = GetLastError();
    }
    CloseHandle(writeEnd);
    if (process.hProcess == nullptr) {
        CloseHandle(m_output);
        throw std::runtime_error("vtbackup.exe could not be started, error " + std::to_string(error));
    }
    CloseHandle(process.hThread);
    m_process = process.hProcess;
}

Child::~Child()
{
    CloseHandle(m_output);
    CloseHandle(m_process);
}

void Child::Terminate()
{
    TerminateProcess(m_process, 99);
}

Answer Child::Finish()
{
    Answer answer;
    char buffer[4096];
    DWORD got = 0;
    while (ReadFile(m_output, buffer, sizeof(buffer), &got, nullptr) && got > 0)
        answer.output.append(buffer, got);
    WaitForSingleObject(m_process, INFINITE);
    GetExitCodeProcess(m_process, &answer.exitCode);
    ReadJson(answer);
    return answer;
}

} // namespace vtdemo
