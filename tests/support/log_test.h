// The fixture of the log's own tests: a registry and a folder of the case's own, and the process's configuration block
// as another program sees it.
#pragma once

#include "log/bounded_text.h"
#include "log/config_block.h"
#include "log/log_config.h"
#include "log/outputs.h"
#include "log/shared_objects.h"
#include "support/config_names.h"
#include "support/registry_sandbox.h"
#include "win/owners.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace vttest {

// A folder that is made empty for the object and removed with it.
class ScratchFolder {
public:
    ScratchFolder()
    {
        wchar_t temp[MAX_PATH] = {};
        GetTempPathW(MAX_PATH, temp);
        m_path = std::wstring(temp) + L"vtlogtest" + Digits(GetCurrentProcessId());
        Remove(LongForm());
        EXPECT_TRUE(CreateDirectoryW(m_path.c_str(), nullptr));
    }
    ~ScratchFolder() { Remove(LongForm()); }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    const std::wstring& Path() const { return m_path; }
    std::wstring File(const std::wstring& name) const { return m_path + L"\\" + name; }

    static std::wstring Digits(DWORD number)
    {
        std::wstring text;
        do
            text.insert(text.begin(), static_cast<wchar_t>(L'0' + number % 10));
        while ((number /= 10) != 0);
        return text;
    }
    static void Remove(const std::wstring& folder)
    {
        WIN32_FIND_DATAW data = {};
        {
            const vtflt::UniqueFileSearch search(FindFirstFileW((folder + L"\\*").c_str(), &data));
            for (BOOL more = search.valid(); more; more = FindNextFileW(search.get(), &data)) {
                const std::wstring name = data.cFileName;
                if (name == L"." || name == L"..")
                    continue;
                const std::wstring path = folder + L"\\" + name;
                SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
                if ((data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
                    Remove(path);
                else
                    DeleteFileW(path.c_str());
            }
        }
        RemoveDirectoryW(folder.c_str());
    }

private:
    // Cases leave files with paths that are too long for any other form.
    std::wstring LongForm() const { return L"\\\\?\\" + m_path; }

    std::wstring m_path;
};

// A process's configuration block as a program that edits it holds it: mapped, and locked for as long as the object
// lives. block is null when there is none.
class ConfigEditor {
public:
    explicit ConfigEditor(DWORD processId = GetCurrentProcessId())
        : m_mutex(OpenMutexW(SYNCHRONIZE, FALSE, ConfigName(CONFIG_MUTEX, processId).c_str())),
          m_mapping(vtflt::OpenSharedMapping(
              {ConfigName(CONFIG_MAPPING, processId).c_str(), ConfigName(CONFIG_LOCAL_MAPPING, processId).c_str()})),
          m_view(vtflt::MapShared(m_mapping.get(), sizeof(vtflt::LogCfgBlock))), m_hold(m_mutex.get()),
          block(static_cast<vtflt::LogCfgBlock*>(m_view.get()))
    {
    }

    vtflt::LogCfgModuleEntry* Find(const std::wstring& name) const
    {
        if (block == nullptr)
            return nullptr;
        for (vtflt::LogCfgModuleEntry& entry : block->modules) {
            if (vtflt::FieldText(entry.name) == name)
                return &entry;
        }
        return nullptr;
    }

private:
    vtflt::UniqueHandle m_mutex;
    vtflt::UniqueHandle m_mapping;
    vtflt::UniqueView m_view;
    vtflt::MutexHold m_hold;

public:
    vtflt::LogCfgBlock* const block;
};

class LogTest : public ::testing::Test {
protected:
    LogTest() { vtflt::CloseOutputState(); }
    ~LogTest() override { vtflt::CloseOutputState(); }

    // Everything of the process's configuration that a case may have changed goes with the block.
    void TearDown() override
    {
        vtflt::CloseOutputState();
        EXPECT_EQ(nullptr, ConfigEditor().block) << "a configuration block was left open";
    }

    RegistrySandbox m_registry;
    ScratchFolder m_folder;
};

inline constexpr wchar_t ENGINE_DEBUG_KEY[] = L"SOFTWARE\\Veltrix\\Lumen Protect\\Engine\\Debug";

// A file's bytes; empty when there is none.
inline std::vector<std::uint8_t> FileBytes(const std::wstring& path)
{
    std::vector<std::uint8_t> bytes;
    const vtflt::UniqueHandle file(CreateFileW(path.c_str(), GENERIC_READ,
                                               FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                               OPEN_EXISTING, 0, nullptr));
    LARGE_INTEGER size = {};
    if (!file || !GetFileSizeEx(file.get(), &size))
        return bytes;
    bytes.resize(static_cast<std::size_t>(size.QuadPart));
    DWORD got = 0;
    EXPECT_TRUE(ReadFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &got, nullptr));
    bytes.resize(got);
    return bytes;
}

// The text of a UTF-16 log file, without its mark.
inline std::wstring WideFileText(const std::wstring& path)
{
    const std::vector<std::uint8_t> bytes = FileBytes(path);
    if (bytes.size() < 2)
        return {};
    EXPECT_EQ(0xFF, bytes[0]);
    EXPECT_EQ(0xFE, bytes[1]);
    std::wstring text((bytes.size() - 2) / 2, L'\0');
    std::copy(bytes.begin() + 2, bytes.begin() + 2 + static_cast<std::ptrdiff_t>(text.size() * 2),
              reinterpret_cast<std::uint8_t*>(text.data()));
    return text;
}

// Makes a file of exactly these bytes, or a sparse one of a size.
inline void MakeFile(const std::wstring& path, const std::string& bytes, LONGLONG size = 0)
{
    const vtflt::UniqueHandle file(
        CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    ASSERT_TRUE(file.valid());
    DWORD done = 0;
    ASSERT_TRUE(bytes.empty() || WriteFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &done, nullptr));
    if (size == 0)
        return;
    DeviceIoControl(file.get(), FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0, &done, nullptr);
    LARGE_INTEGER end = {};
    end.QuadPart = size;
    ASSERT_TRUE(SetFilePointerEx(file.get(), end, nullptr, FILE_BEGIN));
    ASSERT_TRUE(SetEndOfFile(file.get()));
}

} // namespace vttest
