#include "tools/vtfltctl_test.h"

#include "tools/vtfltctl_schema.h"

#include <algorithm>
#include <map>

namespace vtfltctl_test {
namespace {

using vtlog_test::Utf8;

const char* ResultOf(DWORD exitCode)
{
    static const std::map<DWORD, const char*> NAMES = {
        {EXIT_OK, "ok"},
        {1, "internal"},
        {EXIT_USAGE, "usage"},
        {EXIT_BUSY, "busy"},
        {EXIT_REFUSED, "refused"},
        {EXIT_DRIVER_DOWN, "driver-down"},
        {EXIT_DAMAGED, "damaged"},
        {EXIT_DEVICE, "device"},
        {EXIT_NOT_FOUND, "not-found"},
        {EXIT_UNREADABLE, "unreadable"},
        {EXIT_VERIFY_REQUIRED, "verify-required"},
        {EXIT_UNKNOWN, "unknown"},
        {EXIT_NOT_MONITORED, "not-monitored"},
    };
    const auto found = NAMES.find(exitCode);
    return found == NAMES.end() ? "?" : found->second;
}

// As the program's start-up code reads it back: backslashes before the closing quote would take it away.
std::wstring Argument(std::wstring text)
{
    const std::size_t end = text.find_last_not_of(L'\\') + 1;
    return text + std::wstring(text.size() - end, L'\\');
}

void CollectKey(HKEY key, const std::wstring& path, std::map<std::wstring, std::string>& values)
{
    std::vector<wchar_t> name(16384);
    for (DWORD index = 0;; ++index) {
        auto length = static_cast<DWORD>(name.size());
        DWORD type = 0;
        DWORD size = 0;
        if (RegEnumValueW(key, index, name.data(), &length, nullptr, &type, nullptr, &size) != ERROR_SUCCESS)
            break;
        std::string bytes(size, '\0');
        const std::wstring value(name.data(), length);
        RegQueryValueExW(key, value.c_str(), nullptr, nullptr, reinterpret_cast<BYTE*>(bytes.data()), &size);
        values[path + L"|" + value] = std::to_string(type) + ":" + bytes;
    }
    for (DWORD index = 0;; ++index) {
        auto length = static_cast<DWORD>(name.size());
        if (RegEnumKeyExW(key, index, name.data(), &length, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            break;
        HKEY below = nullptr;
        const std::wstring child(name.data(), length);
        if (RegOpenKeyExW(key, child.c_str(), 0, KEY_READ, &below) != ERROR_SUCCESS)
            continue;
        CollectKey(below, path + L"\\" + child, values);
        RegCloseKey(below);
    }
}

void CollectFolder(const std::wstring& folder, std::map<std::wstring, std::string>& values)
{
    WIN32_FIND_DATAW found = {};
    const vtflt::UniqueFileSearch search(FindFirstFileW((folder + L"\\*").c_str(), &found));
    if (!search)
        return;
    do {
        const std::wstring name = found.cFileName;
        const std::wstring path = folder + L"\\" + name;
        if (name == L"." || name == L"..")
            continue;
        if ((found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
            CollectFolder(path, values);
            continue;
        }
        const std::vector<std::uint8_t> bytes = ReadBytes(path);
        values[path] = std::string(bytes.begin(), bytes.end());
    } while (FindNextFileW(search.get(), &found));
}

} // namespace

std::vector<std::uint8_t> ReadBytes(const std::wstring& path)
{
    const vtflt::UniqueHandle file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                               OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    EXPECT_TRUE(file.valid()) << Utf8(path);
    LARGE_INTEGER size = {};
    GetFileSizeEx(file.get(), &size);
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(size.QuadPart));
    DWORD read = 0;
    EXPECT_TRUE(ReadFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &read, nullptr));
    return bytes;
}

void WriteBytes(const std::wstring& path, const std::vector<std::uint8_t>& bytes)
{
    const vtflt::UniqueHandle file(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                               FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM, nullptr));
    DWORD written = 0;
    ASSERT_TRUE(file.valid()) << Utf8(path);
    ASSERT_TRUE(WriteFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr));
}

VtFltCtlTest::VtFltCtlTest() : volume(machine.AddVolume(1 << 20, 4096, L"E:\\")) {}

vtlog_test::Result VtFltCtlTest::Run(std::vector<std::wstring> arguments) const
{
    for (std::wstring& argument : arguments)
        argument = Argument(std::move(argument));
    // What stands behind "--" is no option.
    const auto end = std::find(arguments.begin(), arguments.end(), L"--");
    const std::vector<std::wstring> simulate = {L"--simulate", machine.directory()};
    arguments.insert(end, simulate.begin(), simulate.end());
    return vtlog_test::Process(arguments, {}, L"vtfltctl.exe").Finish();
}

nlohmann::json VtFltCtlTest::RunJson(std::vector<std::wstring> arguments, DWORD exitCode) const
{
    std::string group = Utf8(arguments.front());
    arguments.emplace_back(L"--json");
    const vtlog_test::Result result = Run(std::move(arguments));
    EXPECT_EQ(exitCode, result.exitCode) << result.out << result.err;
    nlohmann::json object = nlohmann::json::parse(result.out, nullptr, false);
    if (!object.is_object()) {
        ADD_FAILURE() << "no JSON object: " << result.out << result.err;
        return nlohmann::json::object();
    }
    EXPECT_EQ(ResultOf(result.exitCode), object.value("result", ""));
    if (object.contains("message"))
        group = "failure";
    const nlohmann::json schema = LoadSchema(group);
    EXPECT_TRUE(schema.is_object()) << "there is no schema for " << group;
    EXPECT_EQ("", Violations(object, schema)) << result.out;
    return object;
}

std::string VtFltCtlTest::ExpectRefusal(const std::vector<std::wstring>& arguments, DWORD exitCode) const
{
    const std::string before = Fingerprint();
    const vtlog_test::Result result = Run(arguments);
    EXPECT_EQ(exitCode, result.exitCode) << result.err;
    EXPECT_EQ("", result.out);
    EXPECT_EQ(0u, result.err.find("vtfltctl: ")) << result.err;
    const nlohmann::json object = RunJson(arguments, exitCode);
    const std::string message = object.value("message", "");
    EXPECT_FALSE(message.empty());
    EXPECT_NE(std::string::npos, result.err.find(message)) << result.err;
    EXPECT_TRUE(before == Fingerprint()) << "something was changed";
    return message;
}

void VtFltCtlTest::Register(const std::wstring& application) const
{
    const vtlog_test::Result result = Run({L"apps", L"register", application});
    ASSERT_EQ(EXIT_OK, result.exitCode) << result.err;
    DeleteValue(LISTS_KEY, L"DeviceListForReSync" + application + L".Last");
}

void VtFltCtlTest::DeleteValue(const wchar_t* key, const std::wstring& value) const
{
    HKEY root = nullptr;
    vtfltsim::Check("VTFltSimOpenKey", VTFltSimOpenKey(machine.handle(), key, KEY_SET_VALUE, &root));
    EXPECT_EQ(ERROR_SUCCESS, RegDeleteValueW(root, value.c_str())) << Utf8(value);
    RegCloseKey(root);
}

std::string VtFltCtlTest::Fingerprint() const
{
    std::map<std::wstring, std::string> values;
    HKEY root = nullptr;
    vtfltsim::Check("VTFltSimOpenKey", VTFltSimOpenKey(machine.handle(), L"", KEY_READ, &root));
    CollectKey(root, L"", values);
    RegCloseKey(root);
    VTFLTSIM_VOLUME_INFO info = {};
    info.size = sizeof(info);
    for (DWORD index = 0; VTFltSimEnumVolume(machine.handle(), index, &info) == 0; ++index)
        CollectFolder(info.filesDirectory, values);
    std::string text;
    for (const auto& [name, value] : values)
        text += Utf8(name) + "=" + value + "\n";
    return text;
}

std::wstring VtFltCtlTest::BitmapFile(const wchar_t* which, const std::wstring& application) const
{
    return std::wstring(machine.Info(volume).filesDirectory) + L"\\VelVolTrc\\VelVolTrc_" + which + L"_" + application +
           L".dat";
}

void VtFltCtlTest::StoreList(const std::wstring& value, const std::vector<std::wstring>& entries, const wchar_t* key,
                             DWORD type)
{
    const std::wstring text = vtfltsim::MultiString(entries);
    const auto* const bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    machine.WriteValue(key, value, type, std::vector<std::uint8_t>(bytes, bytes + text.size() * sizeof(wchar_t)));
}

std::vector<std::wstring> VtFltCtlTest::StoredList(const std::wstring& value, const wchar_t* key) const
{
    const std::vector<std::uint8_t> bytes = machine.ReadValue(key, value);
    std::vector<std::wstring> entries;
    std::wstring entry;
    for (std::size_t i = 0; i + 1 < bytes.size(); i += sizeof(wchar_t)) {
        const auto unit = static_cast<wchar_t>(bytes[i] | bytes[i + 1] << 8);
        if (unit != L'\0') {
            entry += unit;
            continue;
        }
        if (!entry.empty())
            entries.push_back(std::exchange(entry, {}));
    }
    return entries;
}

void VtFltCtlTest::StoreNumber(const wchar_t* key, const wchar_t* value, DWORD number)
{
    machine.WriteValue(key, value, REG_DWORD,
                       {static_cast<std::uint8_t>(number), static_cast<std::uint8_t>(number >> 8),
                        static_cast<std::uint8_t>(number >> 16), static_cast<std::uint8_t>(number >> 24)});
}

} // namespace vtfltctl_test
