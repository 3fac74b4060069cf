#include "tools/vtbackup_test.h"

#include "support/start_again.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <stdexcept>

namespace vtbackup_test {
namespace {

std::wstring ProgramFolder()
{
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring folder(path);
    folder.resize(folder.find_last_of(L'\\') + 1);
    return folder;
}

std::wstring EnvironmentWith(const std::wstring& variable)
{
    std::wstring block;
    wchar_t* const own = GetEnvironmentStringsW();
    for (const wchar_t* p = own; *p != L'\0';) {
        const std::wstring entry(p);
        block += entry + L'\0';
        p += entry.size() + 1;
    }
    FreeEnvironmentStringsW(own);
    return block + variable + L'\0' + L'\0';
}

std::string ReadToEnd(HANDLE pipe)
{
    std::string text;
    char buffer[4096];
    DWORD got = 0;
    while (ReadFile(pipe, buffer, sizeof(buffer), &got, nullptr) && got > 0)
        text.append(buffer, got);
    return text;
}

void ReadJson(Result& result)
{
    const nlohmann::json object = nlohmann::json::parse(result.out, nullptr, false);
    result.json = object.is_object();
    if (!result.json)
        return;
    result.result = object.value("result", "");
    result.message = object.value("message", "");
    result.reported = object.value("reported", false);
    result.snapshotChanges = object.value("snapshotChanges", "");
    result.snapshotNote = object.value("snapshotNote", "");
    const auto backup = object.find("backup");
    if (backup == object.end() || !backup->is_object())
        return;
    result.kind = backup->value("kind", "");
    for (const nlohmann::json& reason : backup->at("reasons"))
        result.reasons.push_back(reason.value("code", ""));
    result.sequence = backup->value("sequence", std::uint64_t{0});
    result.blocksStored = backup->value("blocksStored", std::uint64_t{0});
    result.bytesRead = backup->value("bytesRead", std::uint64_t{0});
}

} // namespace

bool Result::Has(const std::string& reason) const
{
    return std::find(reasons.begin(), reasons.end(), reason) != reasons.end();
}

Process::Process(const std::vector<std::wstring>& arguments, const std::wstring& calls)
{
    SECURITY_ATTRIBUTES inheritable = {sizeof(inheritable), nullptr, TRUE};
    HANDLE out = nullptr;
    HANDLE err = nullptr;
    if (!CreatePipe(&m_out, &out, &inheritable, 0) || !CreatePipe(&m_err, &err, &inheritable, 0))
        throw std::runtime_error("CreatePipe failed");
    SetHandleInformation(m_out, HANDLE_FLAG_INHERIT, 0);
    SetHandleInformation(m_err, HANDLE_FLAG_INHERIT, 0);
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = out;
    startup.hStdError = err;
    std::wstring line = L"\"" + ProgramFolder() + L"vtbackup.exe\"";
    for (const std::wstring& argument : arguments)
        line += L" \"" + argument + L"\"";
    std::wstring environment = EnvironmentWith(L"VTFLTSIM_CALLS=" + calls);
    PROCESS_INFORMATION process = {};
    const bool started = vttest::StartAgain([&] {
        return CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, CREATE_UNICODE_ENVIRONMENT,
                              environment.data(), nullptr, &startup, &process);
    });
    const DWORD error = GetLastError();
    CloseHandle(out);
    CloseHandle(err);
    if (!started)
        throw vtfltsim::SimError("starting vtbackup.exe", error);
    CloseHandle(process.hThread);
    m_process = process.hProcess;
    m_id = process.dwProcessId;
}

Process::~Process()
{
    CloseHandle(m_out);
    CloseHandle(m_err);
    CloseHandle(m_process);
}

void Process::Terminate()
{
    TerminateProcess(m_process, 99);
}

Result Process::Finish()
{
    Result result;
    // What it says on standard error fits into the pipe, so one can be read after the other.
    result.out = ReadToEnd(m_out);
    result.err = ReadToEnd(m_err);
    WaitForSingleObject(m_process, INFINITE);
    GetExitCodeProcess(m_process, &result.exitCode);
    ReadJson(result);
    return result;
}

VtBackupTest::VtBackupTest()
    : volume(machine.AddVolume(LENGTH, BLOCK, L"E:\\")), repository(machine.directory() + L"-repository")
{
    RemoveTree(repository);
    for (std::uint64_t block = 10; block < 60; ++block)
        Write(block, static_cast<std::uint8_t>(block));
}

VtBackupTest::~VtBackupTest()
{
    RemoveTree(repository);
    RemoveTree(machine.directory() + L"\\vtbackup");
}

std::vector<std::wstring> VtBackupTest::Arguments(const wchar_t* command, const wchar_t* application,
                                                  const vtfltsim::Volume* of) const
{
    std::vector<std::wstring> arguments = {command,   L"--json",  L"--app",      application,
                                           L"--repo", repository, L"--simulate", machine.directory()};
    if (of != nullptr)
        arguments.insert(arguments.end(), {L"--volume", of->guid});
    return arguments;
}

Result VtBackupTest::Run(const std::vector<std::wstring>& arguments, const std::wstring& calls) const
{
    return Process(arguments, calls).Finish();
}

Result VtBackupTest::Init(const wchar_t* application) const
{
    return Run(Arguments(L"init", application));
}

Result VtBackupTest::Backup(const wchar_t* application, const std::wstring& calls) const
{
    return Run(Arguments(L"backup", application, &volume), calls);
}

Result VtBackupTest::BackupWith(const std::wstring& call, const std::function<void(Process&)>& meanwhile,
                                const std::wstring& moreCalls) const
{
    return RunWith(Arguments(L"backup", L"App", &volume), call, meanwhile, moreCalls);
}

Result VtBackupTest::RunWith(const std::vector<std::wstring>& arguments, const std::wstring& call,
                             const std::function<void(Process&)>& meanwhile, const std::wstring& moreCalls) const
{
    static int number = 0;
    const std::wstring name =
        L"vtbackup_test." + std::to_wstring(GetCurrentProcessId()) + L"." + std::to_wstring(++number);
    const HANDLE reached = CreateEventW(nullptr, TRUE, FALSE, (name + L".reached").c_str());
    const HANDLE go = CreateEventW(nullptr, TRUE, FALSE, (name + L".go").c_str());
    Process process(arguments, L"pause|" + call + L"|1|" + name + moreCalls);
    const HANDLE either[] = {reached, process.Get()};
    const DWORD waited = WaitForMultipleObjects(2, either, FALSE, INFINITE);
    EXPECT_EQ(WAIT_OBJECT_0, waited) << "the backup never came to this call";
    if (waited == WAIT_OBJECT_0)
        meanwhile(process);
    SetEvent(go);
    const Result result = process.Finish();
    CloseHandle(reached);
    CloseHandle(go);
    return result;
}

void VtBackupTest::Write(std::uint64_t block, std::uint8_t value)
{
    machine.Write(volume, block * BLOCK, std::vector<std::uint8_t>(BLOCK, value));
}

std::vector<std::uint8_t> VtBackupTest::Contents() const
{
    return machine.Read(volume, 0, static_cast<DWORD>(machine.Info(volume).length));
}

std::vector<std::uint8_t> VtBackupTest::Restored(std::uint64_t sequence, const wchar_t* application) const
{
    const std::wstring file = repository + L".restored";
    std::vector<std::wstring> arguments = Arguments(L"restore", application, &volume);
    arguments.insert(arguments.end(), {L"--to", file, L"--overwrite"});
    if (sequence != 0)
        arguments.insert(arguments.end(), {L"--backup", std::to_wstring(sequence)});
    const Result result = Run(arguments);
    EXPECT_EQ(EXIT_OK, result.exitCode) << result.err;
    std::vector<std::uint8_t> bytes = ReadFileBytes(file);
    DeleteFileW(file.c_str());
    return bytes;
}

DWORD VtBackupTest::OnlySnapshot() const
{
    VTFLTSIM_SNAPSHOT_INFO info = {};
    info.size = sizeof(info);
    vtfltsim::Check("VTFltSimEnumSnapshot", VTFltSimEnumSnapshot(machine.handle(), 0, &info));
    return info.number;
}

std::wstring VtBackupTest::SnapshotPath() const
{
    VTFLTSIM_SNAPSHOT_INFO info = {};
    info.size = sizeof(info);
    vtfltsim::Check("VTFltSimGetSnapshotInfo", VTFltSimGetSnapshotInfo(machine.handle(), OnlySnapshot(), &info));
    return info.devicePath;
}

std::wstring VtBackupTest::BitmapFile(const wchar_t* which, const wchar_t* application) const
{
    return std::wstring(machine.Info(volume).filesDirectory) + L"\\VelVolTrc\\VelVolTrc_" + which + L"_" + application +
           L".dat";
}

std::wstring VtBackupTest::BackupFile(std::uint64_t sequence, const wchar_t* name) const
{
    // The repository of a test holds one chain: the first folder of each level leads there.
    std::wstring folder = repository + L"\\chains";
    for (int level = 0; level < 2; ++level) {
        WIN32_FIND_DATAW found = {};
        const HANDLE search = FindFirstFileW((folder + L"\\*").c_str(), &found);
        if (search == INVALID_HANDLE_VALUE)
            throw std::runtime_error("the repository holds no chain");
        while (found.cFileName[0] == L'.' && FindNextFileW(search, &found)) {
        }
        FindClose(search);
        folder += std::wstring(L"\\") + found.cFileName;
    }
    std::wstring number = std::to_wstring(sequence);
    number.insert(0, 8 - number.size(), L'0');
    return folder + L"\\" + number + L"\\" + name;
}

std::vector<std::uint8_t> ReadFileBytes(const std::wstring& path)
{
    std::vector<std::uint8_t> bytes;
    const HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return bytes;
    LARGE_INTEGER size = {};
    GetFileSizeEx(file, &size);
    bytes.resize(static_cast<std::size_t>(size.QuadPart));
    DWORD got = 0;
    if (!ReadFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &got, nullptr) || got != bytes.size())
        bytes.clear();
    CloseHandle(file);
    return bytes;
}

void WriteFileBytes(const std::wstring& path, const std::vector<std::uint8_t>& bytes)
{
    SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
    const HANDLE file =
        CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    DWORD written = 0;
    if (file == INVALID_HANDLE_VALUE ||
        !WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr))
        throw std::runtime_error("a test file could not be written");
    CloseHandle(file);
}

bool Exists(const std::wstring& path)
{
    return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

void RemoveTree(const std::wstring& path)
{
    WIN32_FIND_DATAW found = {};
    const HANDLE search = FindFirstFileW((path + L"\\*").c_str(), &found);
    if (search != INVALID_HANDLE_VALUE) {
        do {
            const std::wstring name = found.cFileName;
            if (name == L"." || name == L"..")
                continue;
            if ((found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
                RemoveTree(path + L"\\" + name);
            else
                DeleteFileW((path + L"\\" + name).c_str());
        } while (FindNextFileW(search, &found));
        FindClose(search);
    }
    RemoveDirectoryW(path.c_str());
}

} // namespace vtbackup_test
