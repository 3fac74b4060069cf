// The functions that a loaded module imports, by name.
#pragma once

#include <windows.h>

namespace bench {

// Lets a module call another function where it calls the imported one, until the object is destroyed.
class ImportOverride {
public:
    ImportOverride(HMODULE module, const char* name, void* replacement);
    ImportOverride(const ImportOverride&) = delete;
    ImportOverride& operator=(const ImportOverride&) = delete;
    ~ImportOverride();

    // What the module called before.
    [[nodiscard]] void* Original() const { return m_original; }

private:
    void Store(void* function);

    void** m_place = nullptr;
    void* m_original = nullptr;
};

} // namespace bench
