#include "double/registry.h"

#include "double/api.h"

#include <algorithm>
#include <cstring>

namespace vtdouble {

namespace {

constexpr std::size_t MAX_KEY_NAME = 255;
constexpr std::size_t MAX_VALUE_NAME = 16383;
constexpr REGSAM VIEWS = KEY_WOW64_32KEY | KEY_WOW64_64KEY;

bool IsPredefined(HKEY key)
{
    const auto value = static_cast<DWORD>(reinterpret_cast<std::uintptr_t>(key));
    return value >= 0x80000000u && value <= 0x80000006u;
}

REGSAM MapKeyAccess(REGSAM access)
{
    if ((access & GENERIC_READ) != 0)
        access |= KEY_READ;
    if ((access & GENERIC_WRITE) != 0)
        access |= KEY_WRITE;
    if ((access & (GENERIC_ALL | MAXIMUM_ALLOWED)) != 0)
        access |= KEY_ALL_ACCESS;
    return access & KEY_ALL_ACCESS & ~VIEWS;
}

// The key of a handle that was opened with this access. 0 or the error.
LSTATUS KeyOf(HKEY handle, REGSAM access, std::shared_ptr<RegistryKey>& key)
{
    if (IsPredefined(handle)) {
        const auto& replaced = CurrentProcess().predefinedKeys;
        const auto found = replaced.find(handle);
        key = found != replaced.end() ? found->second : PredefinedKey(handle);
        return 0;
    }
    const HandleEntry* const entry = CurrentProcess().Find(reinterpret_cast<HANDLE>(handle));
    const auto* const open = entry != nullptr ? dynamic_cast<const OpenKey*>(entry->object.get()) : nullptr;
    if (open == nullptr)
        return ERROR_INVALID_HANDLE;
    if (open->key->deleted)
        return ERROR_KEY_DELETED;
    if ((access & ~entry->access) != 0)
        return ERROR_ACCESS_DENIED;
    key = open->key;
    return 0;
}

// The names of a path; 0 or the error.
// Views of the path.
LSTATUS SplitPath(const wchar_t* path, std::vector<TextView>& names)
{
    TextView rest = path != nullptr ? path : L"";
    if (!rest.empty() && rest.front() == L'\\')
        return ERROR_BAD_PATHNAME;
    while (!rest.empty()) {
        const std::size_t end = std::min(rest.find(L'\\'), rest.size());
        if (end > MAX_KEY_NAME)
            return ERROR_INVALID_PARAMETER;
        if (end != 0)
            names.push_back(rest.substr(0, end));
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return 0;
}

Text PathOf(const RegistryKey& key)
{
    return key.parent != nullptr ? PathOf(*key.parent) + L"\\" + key.name : key.name;
}

LSTATUS Open(const std::shared_ptr<RegistryKey>& key, REGSAM access, HKEY* result)
{
    access = MapKeyAccess(access);
    if (!key->security.Grants(access))
        return ERROR_ACCESS_DENIED;
    auto open = std::make_shared<OpenKey>();
    open->key = key;
    open->name = PathOf(*key);
    *result = static_cast<HKEY>(CurrentProcess().Open(open, access, true));
    return 0;
}

std::shared_ptr<RegistryKey> AddChild(RegistryKey& parent, const Text& name)
{
    auto child = std::make_shared<RegistryKey>(name);
    child->parent = &parent;
    parent.children[name] = child;
    return child;
}

void Delete(RegistryKey& key)
{
    for (const auto& [name, child] : key.children) {
        Delete(*child);
        child->parent = nullptr;
    }
    key.children.clear();
    key.values.clear();
    key.deleted = true;
}

bool IsText(DWORD type)
{
    return type == REG_SZ || type == REG_EXPAND_SZ || type == REG_MULTI_SZ;
}

bool IsReadable(const void* address)
{
    return __asan_address_is_poisoned == nullptr || __asan_address_is_poisoned(address) == 0;
}

wchar_t CharacterAt(const BYTE* data, std::size_t index)
{
    wchar_t character = 0;
    std::memcpy(&character, data + index * sizeof(character), sizeof(character));
    return character;
}

// Text that was written without its NUL is stored with it when one happens to stand behind it.
DWORD StoredSize(DWORD type, const BYTE* data, DWORD size)
{
    if (!IsText(type) || size < sizeof(wchar_t))
        return size;
    const std::size_t characters = size / sizeof(wchar_t);
    const BYTE* const behind = data + characters * sizeof(wchar_t);
    if (CharacterAt(data, characters - 1) == 0 || !IsReadable(behind) || !IsReadable(behind + 1) ||
        CharacterAt(data, characters) != 0)
        return size;
    return size + static_cast<DWORD>(sizeof(wchar_t));
}

} // namespace

std::shared_ptr<RegistryKey> RegistryKey::Child(TextView childName) const
{
    const auto found = children.find(childName);
    return found != children.end() ? found->second : nullptr;
}

RegistryValue* RegistryKey::Value(TextView valueName)
{
    for (RegistryValue& value : values) {
        if (EqualNoCase(value.name, valueName))
            return &value;
    }
    return nullptr;
}

void RegistryKey::Remove(RegistryValue* value)
{
    values.erase(values.begin() + (value - values.data()));
}

std::shared_ptr<RegistryKey> PredefinedKey(HKEY key)
{
    static auto& roots = *new std::map<HKEY, std::shared_ptr<RegistryKey>>();
    auto& root = roots[key];
    if (root == nullptr)
        root = std::make_shared<RegistryKey>(key == HKEY_LOCAL_MACHINE  ? L"HKEY_LOCAL_MACHINE"
                                             : key == HKEY_CURRENT_USER ? L"HKEY_CURRENT_USER"
                                                                        : L"HKEY");
    return root;
}

std::shared_ptr<RegistryKey> MakeKey(HKEY root, TextView path)
{
    std::shared_ptr<RegistryKey> key = PredefinedKey(root);
    std::vector<TextView> names;
    const Text whole(path);
    SplitPath(whole.c_str(), names);
    for (const TextView name : names) {
        std::shared_ptr<RegistryKey> child = key->Child(name);
        key = child != nullptr ? child : AddChild(*key, Text(name));
    }
    return key;
}

} // namespace vtdouble

using namespace vtdouble;

DOUBLE_API LSTATUS WINAPI RegCreateKeyExW(HKEY parent, LPCWSTR path, DWORD, LPWSTR, DWORD, REGSAM access,
                                          LPSECURITY_ATTRIBUTES attributes, PHKEY result, LPDWORD disposition)
{
    const Entry entry;
    std::shared_ptr<RegistryKey> key;
    LSTATUS code = KeyOf(parent, 0, key);
    std::vector<TextView> names;
    if (code == 0)
        code = SplitPath(path, names);
    if (code != 0)
        return code;
    bool made = false;
    for (const TextView name : names) {
        std::shared_ptr<RegistryKey> child = key->Child(name);
        if (child == nullptr) {
            if (!key->security.Grants(KEY_CREATE_SUB_KEY))
                return ERROR_ACCESS_DENIED;
            child = AddChild(*key, Text(name));
            made = true;
        }
        key = std::move(child);
    }
    if (made)
        key->security = SecurityOf(attributes);
    if (disposition != nullptr)
        *disposition = made ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY;
    return Open(key, access, result);
}

DOUBLE_API LSTATUS WINAPI RegCreateKeyW(HKEY parent, LPCWSTR path, PHKEY result)
{
    return RegCreateKeyExW(parent, path, 0, nullptr, REG_OPTION_NON_VOLATILE, MAXIMUM_ALLOWED, nullptr, result,
                           nullptr);
}

DOUBLE_API LSTATUS WINAPI RegOpenKeyExW(HKEY parent, LPCWSTR path, DWORD, REGSAM access, PHKEY result)
{
    const Entry entry;
    std::shared_ptr<RegistryKey> key;
    LSTATUS code = KeyOf(parent, 0, key);
    std::vector<TextView> names;
    if (code == 0)
        code = SplitPath(path, names);
    if (code != 0)
        return code;
    for (const TextView name : names) {
        key = key->Child(name);
        if (key == nullptr)
            return ERROR_FILE_NOT_FOUND;
    }
    return Open(key, access, result);
}

DOUBLE_API LSTATUS WINAPI RegOpenKeyW(HKEY parent, LPCWSTR path, PHKEY result)
{
    return RegOpenKeyExW(parent, path, 0, MAXIMUM_ALLOWED, result);
}

DOUBLE_API LSTATUS WINAPI RegCloseKey(HKEY handle)
{
    const Entry entry;
    if (IsPredefined(handle))
        return 0;
    const HandleEntry* const found = CurrentProcess().Find(reinterpret_cast<HANDLE>(handle));
    if (found == nullptr || !found->isKey) {
        ++CurrentProcess().badCloses;
        return ERROR_INVALID_HANDLE;
    }
    CurrentProcess().Close(reinterpret_cast<HANDLE>(handle));
    return 0;
}

DOUBLE_API LSTATUS WINAPI RegOverridePredefKey(HKEY predefined, HKEY replacement)
{
    const Entry entry;
    if (!IsPredefined(predefined))
        return ERROR_INVALID_HANDLE;
    if (replacement == nullptr) {
        CurrentProcess().predefinedKeys.erase(predefined);
        return 0;
    }
    std::shared_ptr<RegistryKey> key;
    const LSTATUS code = KeyOf(replacement, 0, key);
    if (code == 0)
        CurrentProcess().predefinedKeys[predefined] = key;
    return code;
}

DOUBLE_API LSTATUS WINAPI RegDeleteKeyW(HKEY parent, LPCWSTR path)
{
    const Entry entry;
    std::shared_ptr<RegistryKey> key;
    LSTATUS code = KeyOf(parent, 0, key);
    std::vector<TextView> names;
    if (code == 0)
        code = SplitPath(path, names);
    if (code != 0)
        return code;
    for (const TextView name : names) {
        key = key->Child(name);
        if (key == nullptr)
            return ERROR_FILE_NOT_FOUND;
    }
    if (!key->children.empty() || key->parent == nullptr || !key->security.Grants(DELETE))
        return ERROR_ACCESS_DENIED;
    key->parent->children.erase(key->name);
    key->parent = nullptr;
    Delete(*key);
    return 0;
}

DOUBLE_API LSTATUS WINAPI RegDeleteTreeW(HKEY parent, LPCWSTR path)
{
    const Entry entry;
    std::shared_ptr<RegistryKey> key;
    LSTATUS code = KeyOf(parent, 0, key);
    std::vector<TextView> names;
    if (code == 0)
        code = SplitPath(path, names);
    if (code != 0)
        return code;
    for (const TextView name : names) {
        key = key->Child(name);
        if (key == nullptr)
            return ERROR_FILE_NOT_FOUND;
    }
    if (names.empty()) { // the key itself stays
        for (const auto& [name, child] : key->children) {
            Delete(*child);
            child->parent = nullptr;
        }
        key->children.clear();
        key->values.clear();
        return 0;
    }
    key->parent->children.erase(key->name);
    key->parent = nullptr;
    Delete(*key);
    return 0;
}

DOUBLE_API LSTATUS WINAPI RegQueryValueExW(HKEY handle, LPCWSTR name, LPDWORD reserved, LPDWORD type, LPBYTE data,
                                           LPDWORD size)
{
    const Entry entry;
    if ((data != nullptr && size == nullptr) || reserved != nullptr)
        return ERROR_INVALID_PARAMETER;
    std::shared_ptr<RegistryKey> key;
    const LSTATUS code = KeyOf(handle, KEY_QUERY_VALUE, key);
    if (code != 0)
        return code;
    const RegistryValue* const value = key->Value(name != nullptr ? name : L"");
    if (value == nullptr) {
        if (type != nullptr)
            *type = REG_NONE;
        if (size != nullptr)
            *size = 0;
        return ERROR_FILE_NOT_FOUND;
    }
    if (type != nullptr)
        *type = value->type;
    if (size == nullptr)
        return 0;
    const DWORD room = *size;
    *size = static_cast<DWORD>(value->data.size());
    if (data == nullptr)
        return 0;
    if (room < *size)
        return ERROR_MORE_DATA;
    std::copy(value->data.begin(), value->data.end(), data);
    // Text without its NUL gets one where there is room.
    if (IsText(value->type) && *size != 0 && room - *size >= sizeof(wchar_t) && *size % sizeof(wchar_t) == 0 &&
        CharacterAt(data, *size / sizeof(wchar_t) - 1) != 0)
        std::memset(data + *size, 0, sizeof(wchar_t));
    return 0;
}

DOUBLE_API LSTATUS WINAPI RegSetValueExW(HKEY handle, LPCWSTR name, DWORD, DWORD type, const BYTE* data, DWORD size)
{
    const Entry entry;
    std::shared_ptr<RegistryKey> key;
    const LSTATUS code = KeyOf(handle, KEY_SET_VALUE, key);
    if (code != 0)
        return code;
    const TextView valueName = name != nullptr ? name : L"";
    if (valueName.size() > MAX_VALUE_NAME || (data == nullptr && size != 0))
        return ERROR_INVALID_PARAMETER;
    const DWORD stored = data != nullptr ? StoredSize(type, data, size) : 0;
    RegistryValue* value = key->Value(valueName);
    if (value == nullptr) {
        key->values.push_back({Text(valueName), 0, {}});
        value = &key->values.back();
    }
    value->type = type;
    value->data.assign(data, data + stored);
    return 0;
}

DOUBLE_API LSTATUS WINAPI RegDeleteValueW(HKEY handle, LPCWSTR name)
{
    const Entry entry;
    std::shared_ptr<RegistryKey> key;
    const LSTATUS code = KeyOf(handle, KEY_SET_VALUE, key);
    if (code != 0)
        return code;
    RegistryValue* const value = key->Value(name != nullptr ? name : L"");
    if (value == nullptr)
        return ERROR_FILE_NOT_FOUND;
    key->Remove(value);
    return 0;
}

DOUBLE_API LSTATUS WINAPI RegEnumKeyExW(HKEY handle, DWORD index, LPWSTR name, LPDWORD characters, LPDWORD, LPWSTR,
                                        LPDWORD, PFILETIME)
{
    const Entry entry;
    std::shared_ptr<RegistryKey> key;
    const LSTATUS code = KeyOf(handle, KEY_ENUMERATE_SUB_KEYS, key);
    if (code != 0)
        return code;
    if (index >= key->children.size())
        return ERROR_NO_MORE_ITEMS;
    const Text& found = std::next(key->children.begin(), static_cast<std::ptrdiff_t>(index))->second->name;
    if (*characters <= found.size())
        return ERROR_MORE_DATA;
    std::copy_n(found.c_str(), found.size() + 1, name);
    *characters = static_cast<DWORD>(found.size());
    return 0;
}

DOUBLE_API LSTATUS WINAPI RegEnumValueW(HKEY handle, DWORD index, LPWSTR name, LPDWORD characters, LPDWORD,
                                        LPDWORD type, LPBYTE data, LPDWORD size)
{
    const Entry entry;
    std::shared_ptr<RegistryKey> key;
    const LSTATUS code = KeyOf(handle, KEY_QUERY_VALUE, key);
    if (code != 0)
        return code;
    if (index >= key->values.size())
        return ERROR_NO_MORE_ITEMS;
    const RegistryValue& value = key->values[index];
    if (*characters <= value.name.size())
        return ERROR_MORE_DATA;
    std::copy_n(value.name.c_str(), value.name.size() + 1, name);
    *characters = static_cast<DWORD>(value.name.size());
    if (type != nullptr)
        *type = value.type;
    if (size == nullptr)
        return 0;
    const DWORD room = *size;
    *size = static_cast<DWORD>(value.data.size());
    if (data == nullptr)
        return 0;
    if (room < *size)
        return ERROR_MORE_DATA;
    std::copy(value.data.begin(), value.data.end(), data);
    return 0;
}

DOUBLE_API LSTATUS WINAPI RegQueryInfoKeyW(HKEY handle, LPWSTR, LPDWORD, LPDWORD, LPDWORD keys, LPDWORD longestKey,
                                           LPDWORD, LPDWORD values, LPDWORD longestValue, LPDWORD longestData, LPDWORD,
                                           PFILETIME)
{
    const Entry entry;
    std::shared_ptr<RegistryKey> key;
    const LSTATUS code = KeyOf(handle, KEY_QUERY_VALUE, key);
    if (code != 0)
        return code;
    const auto give = [](LPDWORD target, std::size_t number) {
        if (target != nullptr)
            *target = static_cast<DWORD>(number);
    };
    std::size_t keyName = 0;
    for (const auto& [upper, child] : key->children)
        keyName = std::max(keyName, child->name.size());
    std::size_t valueName = 0;
    std::size_t data = 0;
    for (const RegistryValue& value : key->values) {
        valueName = std::max(valueName, value.name.size());
        data = std::max(data, value.data.size());
    }
    give(keys, key->children.size());
    give(longestKey, keyName);
    give(values, key->values.size());
    give(longestValue, valueName);
    give(longestData, data);
    return 0;
}

DOUBLE_API LSTATUS WINAPI RegGetValueW(HKEY parent, LPCWSTR path, LPCWSTR name, DWORD, LPDWORD type, PVOID data,
                                       LPDWORD size)
{
    HKEY key = nullptr;
    LSTATUS code = RegOpenKeyExW(parent, path, 0, KEY_READ, &key);
    if (code != 0)
        return code;
    code = RegQueryValueExW(key, name, nullptr, type, static_cast<LPBYTE>(data), size);
    RegCloseKey(key);
    return code;
}
