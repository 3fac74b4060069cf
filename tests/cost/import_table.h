// The functions that a loaded module imports, by name.
#pragma once

#include <windows.h>

namespace vttest {

// Lets a module call another function where it calls the imported one, until the object is destroyed. Objects for the same
// function are destroyed in the opposite order.
class ImportOverride {
public:
    // Throws when the module does not import the function.
    ImportOverride(HMODULE module, const char* name, void* replacement);
    ImportOverride(const ImportOverride&) = delete;
    ImportOverride& operator=(const ImportOverride&) = delete;
    ~ImportOverride();

    // What the module called before.
    [[nodiscard]] void* Original() const { return m_original; }

private:
    void Store(void* function);

    void** m_place;
    void* m_original;
};

// What a module calls by this name now; null when it does not import it.
void* ImportedFunction(HMODULE module, const char* name);

} // namespace vttest
