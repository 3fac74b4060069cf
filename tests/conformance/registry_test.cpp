// What the library relies on of the registry, on Windows' side and on the double.
#include "support/registry_sandbox.h"

#include <gtest/gtest.h>

namespace vttest {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr LSTATUS NOT_FOUND = ERROR_FILE_NOT_FOUND;
constexpr LSTATUS DENIED = ERROR_ACCESS_DENIED;

class Registry : public testing::Test {
protected:
    vtflt::UniqueKey Open(const wchar_t* subkey, REGSAM access) const
    {
        vtflt::UniqueKey key;
        EXPECT_EQ(ERROR_SUCCESS, RegOpenKeyExW(HKEY_LOCAL_MACHINE, subkey, 0, access, key.put()));
        return key;
    }

    RegistrySandbox sandbox;
};

TEST_F(Registry, AMissingKeyIs2AndSoIsAMissingValue)
{
    HKEY key = nullptr;
    EXPECT_EQ(NOT_FOUND, RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Nothing", 0, KEY_READ, &key));
    const vtflt::UniqueKey made = sandbox.Open(L"SOFTWARE\\Something");
    EXPECT_EQ(NOT_FOUND, RegQueryValueExW(made.get(), L"None", nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(NOT_FOUND, RegDeleteValueW(made.get(), L"None"));
}

TEST_F(Registry, NamesOfKeysAndValuesAreComparedWithoutCase)
{
    sandbox.Set(L"SOFTWARE\\Case", L"Value", REG_DWORD, {1, 0, 0, 0});
    EXPECT_EQ(Bytes({1, 0, 0, 0}), sandbox.Get(L"software\\CASE", L"vALUE").bytes);
}

TEST_F(Registry, AKeyForReadingRefusesToBeWritten)
{
    sandbox.Set(L"SOFTWARE\\Guarded", L"Value", REG_DWORD, {1, 0, 0, 0});
    const vtflt::UniqueKey key = Open(L"SOFTWARE\\Guarded", KEY_READ);
    const BYTE data[4] = {};
    EXPECT_EQ(DENIED, RegSetValueExW(key.get(), L"Value", 0, REG_DWORD, data, sizeof(data)));
    EXPECT_EQ(DENIED, RegDeleteValueW(key.get(), L"Value"));
    const vtflt::UniqueKey writer = Open(L"SOFTWARE\\Guarded", KEY_SET_VALUE);
    EXPECT_EQ(DENIED, RegQueryValueExW(writer.get(), L"Value", nullptr, nullptr, nullptr, nullptr));
}

TEST_F(Registry, ABufferThatIsTooShortIs234AndTheSizeIsTold)
{
    sandbox.Set(L"SOFTWARE\\Short", L"Value", REG_BINARY, {1, 2, 3, 4, 5});
    const vtflt::UniqueKey key = Open(L"SOFTWARE\\Short", KEY_READ);
    BYTE data[4] = {9, 9, 9, 9};
    DWORD size = sizeof(data);
    DWORD type = 0;
    EXPECT_EQ(ERROR_MORE_DATA, RegQueryValueExW(key.get(), L"Value", nullptr, &type, data, &size));
    EXPECT_EQ(5u, size);
    EXPECT_EQ(static_cast<DWORD>(REG_BINARY), type);
    EXPECT_EQ(9, data[0]);
    EXPECT_EQ(ERROR_INVALID_PARAMETER, RegQueryValueExW(key.get(), L"Value", nullptr, nullptr, data, nullptr));
}

TEST_F(Registry, AValueOfNoBytesIsThere)
{
    sandbox.Set(L"SOFTWARE\\Empty", L"Value", REG_MULTI_SZ, {});
    const RegistrySandbox::Value value = sandbox.Get(L"SOFTWARE\\Empty", L"Value");
    EXPECT_EQ(0u, value.error);
    EXPECT_EQ(static_cast<DWORD>(REG_MULTI_SZ), value.type);
    EXPECT_TRUE(value.bytes.empty());
}

TEST_F(Registry, TextWithoutItsNulTakesOneThatStandsBehindIt)
{
    const vtflt::UniqueKey key = sandbox.Open(L"SOFTWARE\\Text");
    const wchar_t text[] = L"ab";
    ASSERT_EQ(ERROR_SUCCESS, RegSetValueExW(key.get(), L"Value", 0, REG_SZ, reinterpret_cast<const BYTE*>(text), 4));
    EXPECT_EQ(6u, sandbox.Get(L"SOFTWARE\\Text", L"Value").bytes.size());
    sandbox.Set(L"SOFTWARE\\Text", L"Other", REG_SZ, {'a', 0, 'b', 0});
    EXPECT_EQ(4u, sandbox.Get(L"SOFTWARE\\Text", L"Other").bytes.size());
}

TEST_F(Registry, AKeyWithKeysBelowItIsNotDeleted)
{
    sandbox.Open(L"SOFTWARE\\Tree\\Leaf");
    EXPECT_EQ(DENIED, RegDeleteKeyW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tree"));
    EXPECT_EQ(ERROR_SUCCESS, RegDeleteKeyW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tree\\Leaf"));
    EXPECT_EQ(ERROR_SUCCESS, RegDeleteKeyW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tree"));
    EXPECT_FALSE(sandbox.Exists(L"SOFTWARE\\Tree"));
}

TEST_F(Registry, ADeletedKeyThatIsStillOpenIs1018)
{
    const vtflt::UniqueKey key = sandbox.Open(L"SOFTWARE\\Doomed");
    ASSERT_EQ(ERROR_SUCCESS, RegDeleteKeyW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Doomed"));
    EXPECT_EQ(ERROR_KEY_DELETED, RegQueryValueExW(key.get(), L"Value", nullptr, nullptr, nullptr, nullptr));
}

TEST_F(Registry, CreationTellsWhetherTheKeyWasThere)
{
    for (const DWORD expected : {DWORD{REG_CREATED_NEW_KEY}, DWORD{REG_OPENED_EXISTING_KEY}}) {
        vtflt::UniqueKey key;
        DWORD disposition = 0;
        ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyExW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\New\\Deep", 0, nullptr, 0, KEY_READ,
                                                 nullptr, key.put(), &disposition));
        EXPECT_EQ(expected, disposition);
    }
}

TEST_F(Registry, AClosedKeyIs6)
{
    vtflt::UniqueKey key = sandbox.Open(L"SOFTWARE\\Closed");
    const HKEY stale = key.get();
    key.reset();
    EXPECT_EQ(ERROR_INVALID_HANDLE, RegQueryValueExW(stale, L"Value", nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(ERROR_INVALID_HANDLE, RegCloseKey(stale));
}

} // namespace
} // namespace vttest
