#include "snapshot.h"

#include "failure.h"
#include "text.h"

#include <fmt/format.h>

namespace vtbackup {
namespace {

constexpr std::size_t OUTPUT_LIMIT = 64 * 1024;

struct CommandResult {
    DWORD exitCode = 0;
    std::string output;
};

[[noreturn]] void Fail(const std::wstring& command, DWORD error)
{
    throw Failure(Exit::Device, fmt::format("cannot run \"{}\": {}", ToUtf8(command), ErrorText(error)));
}

// Runs a command through the command interpreter and collects what it prints; its diagnostics go where ours go.
CommandResult Run(const std::wstring& command)
{
    SECURITY_ATTRIBUTES inheritable = {sizeof(inheritable), nullptr, TRUE};
    HANDLE readEnd = nullptr;
    HANDLE writeEnd = nullptr;
    if (!CreatePipe(&readEnd, &writeEnd, &inheritable, 0))
        Fail(command, GetLastError());
    const Handle reader(readEnd);
    Handle writer(writeEnd);
    SetHandleInformation(reader.Get(), HANDLE_FLAG_INHERIT, 0);

    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    startup.hStdOutput = writer.Get();
    startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
    PROCESS_INFORMATION process = {};
    std::wstring line = L"cmd.exe /d /s /c \"" + command + L"\"";
    if (!CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &process))
        Fail(command, GetLastError());
    const Handle processHandle(process.hProcess);
    const Handle threadHandle(process.hThread);
    writer.Close(); // or the pipe would never end

    CommandResult result;
    char buffer[4096];
    DWORD got = 0;
    while (ReadFile(reader.Get(), buffer, sizeof(buffer), &got, nullptr) && got > 0) {
        if (result.output.size() < OUTPUT_LIMIT)
            result.output.append(buffer, got);
    }
    WaitForSingleObject(processHandle.Get(), INFINITE);
    if (!GetExitCodeProcess(processHandle.Get(), &result.exitCode))
        Fail(command, GetLastError());
    return result;
}

class CommandSnapshots : public SnapshotProvider {
public:
    CommandSnapshots(std::wstring create, std::wstring remove)
        : m_create(std::move(create)), m_remove(std::move(remove))
    {
    }

    Snapshot Create(const VolumeName& volume) override
    {
        SetEnvironmentVariableW(L"VTBACKUP_VOLUME", volume.Path().c_str());
        const CommandResult result = Run(m_create);
        std::string device = result.output.substr(0, result.output.find_first_of("\r\n"));
        while (!device.empty() && (device.back() == ' ' || device.back() == '\\'))
            device.pop_back();
        if (result.exitCode != 0 || device.empty())
            throw Failure(Exit::Device, fmt::format("the command that makes snapshots ended with {} and printed \"{}\"",
                                                    result.exitCode, device));
        return {ToWide(device), ToWide(device)};
    }

    bool Delete(const std::wstring& id) noexcept override
    {
        try {
            SetEnvironmentVariableW(L"VTBACKUP_SNAPSHOT", id.c_str());
            return Run(m_remove).exitCode == 0;
        } catch (...) {
            return false;
        }
    }

    [[nodiscard]] bool IsGone(const std::wstring& id) const noexcept override
    {
        // Asks for no access: it is enough that there is something to open.
        const Handle device(CreateFileW(id.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                        FILE_ATTRIBUTE_NORMAL, nullptr));
        const DWORD error = device ? 0 : GetLastError();
        return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
    }

    [[nodiscard]] bool NeverReusesIds() const noexcept override { return false; }

private:
    std::wstring m_create;
    std::wstring m_remove;
};

} // namespace

std::unique_ptr<SnapshotProvider> MakeCommandSnapshots(std::wstring create, std::wstring remove)
{
    return std::make_unique<CommandSnapshots>(std::move(create), std::move(remove));
}

} // namespace vtbackup
