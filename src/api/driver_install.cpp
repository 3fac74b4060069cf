// The driver's reinstallation through its utility.
#include "api/driver_health.h"
#include "apps/volume_name.h"
#include "bitmap/result_codes.h"
#include "log/log.h"
#include "log/message_text.h"
#include "registry/value.h"
#include "win/owners.h"

#include <utility>

namespace vtflt {

namespace {

constexpr wchar_t AUTO_INSTALL_KEY[] = L"SOFTWARE\\Veltrix\\Lumen Protect\\Engine\\VTBackupDll";
constexpr wchar_t AUTO_INSTALL_VALUE[] = L"VTFltAutoInstall";
constexpr wchar_t INSTALL_LOCATION_KEY[] = L"SOFTWARE\\Veltrix\\Shared\\CBTDriver";
constexpr wchar_t INSTALL_LOCATION_VALUE[] = L"InstallLocation";

// Paths and command lines, each with its end.
constexpr std::size_t TEXT_UNITS = 260;
constexpr DWORD UTILITY_WAIT_MS = 600000;

// Only a 0 that could be read forbids the reinstallation.
bool IsAutoInstallAllowed()
{
    UniqueKey key;
    DWORD value = 1;
    if (OpenSettingsKey(AUTO_INSTALL_KEY, key) != ERROR_SUCCESS)
        return true;
    return ReadUntypedDwordValue(key.get(), AUTO_INSTALL_VALUE, value) != ERROR_SUCCESS || value != 0;
}

DWORD ReadInstallLocation(std::wstring& path)
{
    UniqueKey key;
    const DWORD error = OpenSettingsKey(INSTALL_LOCATION_KEY, key);
    return error == ERROR_SUCCESS ? ReadStringValue(key.get(), INSTALL_LOCATION_VALUE, TEXT_UNITS, path) : error;
}

// Roomy enough for the longest folder twice, so that a line which is too long shows its length.
constexpr std::size_t FORMATTED_UNITS = 4 * TEXT_UNITS;

// A line that does not fit is not run at all: cut off, it would mean something else.
DWORD RunUtility(std::wstring commandLine)
{
    if (commandLine.size() >= TEXT_UNITS)
        return ERROR_FILENAME_EXCED_RANGE;
    return ExecCmdLine(std::move(commandLine));
}

DWORD Uninstall(std::wstring commandLine)
{
    const DWORD result = RunUtility(std::move(commandLine));
    if (result != ERROR_SUCCESS)
        Log(LOG_WARNING, ERROR_SUCCESS, L"VTFltInstall: try to uninstall VTFlt failed, rc: %u.", result);
    return result;
}

DWORD Install(std::wstring commandLine)
{
    const DWORD result = RunUtility(std::move(commandLine));
    if (result == ERROR_SUCCESS)
        Log(LOG_INFORMATION, ERROR_SUCCESS, L"VTFltInstall: reinstall VTFlt finished.");
    else if (result == ERROR_SUCCESS_REBOOT_REQUIRED)
        Log(LOG_INFORMATION, ERROR_SUCCESS, L"VTFltInstall: enabled VTFlt, but reboot required.");
    else
        Log(LOG_ERROR, ERROR_SUCCESS, L"VTFltInstall: install VTFlt failed, rc: %d.", result);
    return result;
}

// The exit code of a started program, which is left running when it takes too long.
DWORD AwaitExit(HANDLE process)
{
    if (WaitForSingleObject(process, UTILITY_WAIT_MS) == WAIT_TIMEOUT)
        return WAIT_TIMEOUT;
    DWORD exitCode = ERROR_SUCCESS;
    if (!GetExitCodeProcess(process, &exitCode)) {
        // No code is no success.
        const DWORD error = GetLastError();
        return error != ERROR_SUCCESS ? error : ERROR_GEN_FAILURE;
    }
    return exitCode;
}

} // namespace

DWORD VTFltInstall()
{
    if (!IsAutoInstallAllowed()) {
        Log(LOG_INFORMATION, ERROR_SUCCESS, L"VTFltInstall: VTFlt auto install is disabled by registry.");
        return BM_ERR_FAILED;
    }

    std::wstring location;
    const DWORD error = ReadInstallLocation(location);
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"VTFltInstall: Failed to get driver install path, Error: %d.", error);
        return error;
    }

    const std::wstring folder = StripTrailingBackslash(location);
    const std::wstring logFolder = folder + L"\\Logs";
    // Usually it is there. The utility does without its log when it cannot be made.
    CreateDirectoryW(logFolder.c_str(), nullptr);

    // Both lines before the first is run: short memory in between would leave the machine without its driver.
    std::wstring uninstallLine = FormatText(FORMATTED_UNITS, L"\"%s\\VTFltUtl.exe\" -r -output=\"%s\\%s\" ",
                                            folder.c_str(), logFolder.c_str(), L"UninstallDriver.log");
    std::wstring installLine = FormatText(FORMATTED_UNITS, L"\"%s\\VTFltUtl.exe\" -i -output=\"%s\\%s\" ",
                                          folder.c_str(), logFolder.c_str(), L"InstallDriver.log");
    const DWORD uninstalled = Uninstall(std::move(uninstallLine));
    return uninstalled == ERROR_SUCCESS ? Install(std::move(installLine)) : uninstalled;
}

DWORD ExecCmdLine(std::wstring commandLine)
{
    Log(LOG_INFORMATION, ERROR_SUCCESS, L"ExecCmdLine launch command: %s", commandLine.c_str());

    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESHOWWINDOW;
    startup.wShowWindow = SW_HIDE;
    PROCESS_INFORMATION started = {};
    if (!CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                        &started)) {
        const DWORD lastError = GetLastError();
        const DWORD error = lastError != ERROR_SUCCESS ? lastError : ERROR_GEN_FAILURE;
        Log(LOG_ERROR, error, L"Failed to launch command: %s, Error: %d.", commandLine.c_str(), error);
        return error;
    }

    const UniqueHandle process(started.hProcess);
    const UniqueHandle thread(started.hThread);
    return AwaitExit(process.get());
}

} // namespace vtflt
