// The registry: keys and values in memory, one for all processes.
#pragma once

#include "double/kernel.h"

#include <optional>

namespace vtdouble {

struct RegistryValue {
    Text name;
    DWORD type = 0;
    std::vector<BYTE> data;
};

class RegistryKey : public std::enable_shared_from_this<RegistryKey> {
public:
    explicit RegistryKey(Text keyName) : name(std::move(keyName)) {}
    std::shared_ptr<RegistryKey> Child(TextView childName) const;
    RegistryValue* Value(TextView valueName);
    void Remove(RegistryValue* value);

    Text name;
    RegistryKey* parent = nullptr;
    std::map<Text, std::shared_ptr<RegistryKey>, LessNoCase> children;
    std::vector<RegistryValue> values; // in the order of their making
    bool deleted = false;
    Security security;
};

// An open key.
class OpenKey final : public Object {
public:
    const char* kind() const noexcept override { return "key"; }
    std::shared_ptr<RegistryKey> key;
};

// The key of a predefined handle, whatever a process has put in its place.
std::shared_ptr<RegistryKey> PredefinedKey(HKEY key);
std::shared_ptr<RegistryKey> MakeKey(HKEY root, TextView path);

} // namespace vtdouble
