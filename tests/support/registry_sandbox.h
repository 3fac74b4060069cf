// A registry of a test's own: while it lives, HKEY_LOCAL_MACHINE is an empty key of the current user.
#pragma once

#include "win/owners.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace vttest {

class RegistrySandbox {
public:
    struct Value {
        DWORD error = ERROR_SUCCESS;
        DWORD type = REG_NONE;
        std::vector<std::uint8_t> bytes;
    };

    RegistrySandbox()
    {
        RegDeleteTreeW(HKEY_CURRENT_USER, ROOT);
        EXPECT_EQ(ERROR_SUCCESS, RegCreateKeyW(HKEY_CURRENT_USER, ROOT, m_root.put()));
        EXPECT_EQ(ERROR_SUCCESS, RegOverridePredefKey(HKEY_LOCAL_MACHINE, m_root.get()));
    }
    ~RegistrySandbox()
    {
        RegOverridePredefKey(HKEY_LOCAL_MACHINE, nullptr);
        m_root.reset();
        RegDeleteTreeW(HKEY_CURRENT_USER, ROOT);
    }
    RegistrySandbox(const RegistrySandbox&) = delete;
    RegistrySandbox& operator=(const RegistrySandbox&) = delete;

    // Opens a key below it, made when missing.
    vtflt::UniqueKey Open(const wchar_t* subkey) const
    {
        vtflt::UniqueKey key;
        EXPECT_EQ(ERROR_SUCCESS, RegCreateKeyW(m_root.get(), subkey, key.put()));
        return key;
    }
    bool Exists(const wchar_t* subkey) const
    {
        vtflt::UniqueKey key;
        return RegOpenKeyExW(m_root.get(), subkey, 0, KEY_READ, key.put()) == ERROR_SUCCESS;
    }

    // Stores exactly these bytes: the system takes a NUL that happens to stand behind an unended string into it.
    void Set(const wchar_t* subkey, const wchar_t* name, DWORD type, std::vector<std::uint8_t> bytes) const
    {
        const auto size = static_cast<DWORD>(bytes.size());
        bytes.insert(bytes.end(), 2, 0xFF);
        EXPECT_EQ(ERROR_SUCCESS, RegSetValueExW(Open(subkey).get(), name, 0, type, bytes.data(), size));
    }
    Value Get(const wchar_t* subkey, const wchar_t* name) const
    {
        Value value;
        const vtflt::UniqueKey key = Open(subkey);
        DWORD size = 0;
        value.error = static_cast<DWORD>(RegQueryValueExW(key.get(), name, nullptr, &value.type, nullptr, &size));
        if (value.error != ERROR_SUCCESS)
            return value;
        value.bytes.resize(size + 2);
        value.error =
            static_cast<DWORD>(RegQueryValueExW(key.get(), name, nullptr, &value.type, value.bytes.data(), &size));
        value.bytes.resize(size);
        return value;
    }

private:
    static constexpr wchar_t ROOT[] = L"Software\\VTFltMgrTests";
    vtflt::UniqueKey m_root;
};

} // namespace vttest
