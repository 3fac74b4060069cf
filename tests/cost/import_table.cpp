#include "cost/import_table.h"

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>

namespace vttest {

namespace {

void** FindImport(HMODULE module, const char* name)
{
    auto* const base = reinterpret_cast<std::uint8_t*>(module);
    const auto* const dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
    const auto* const headers = reinterpret_cast<const IMAGE_NT_HEADERS64*>(base + dos->e_lfanew);
    const IMAGE_DATA_DIRECTORY& directory = headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    const auto* entry = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(base + directory.VirtualAddress);
    for (; entry->Name != 0; ++entry) {
        const auto* names = reinterpret_cast<const IMAGE_THUNK_DATA64*>(base + entry->OriginalFirstThunk);
        auto* places = reinterpret_cast<void**>(base + entry->FirstThunk);
        for (; names->u1.AddressOfData != 0; ++names, ++places) {
            const auto* const import = reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData);
            if (!IMAGE_SNAP_BY_ORDINAL64(names->u1.Ordinal) &&
                std::strcmp(reinterpret_cast<const char*>(import->Name), name) == 0)
                return places;
        }
    }
    return nullptr;
}

} // namespace

ImportOverride::ImportOverride(HMODULE module, const char* name, void* replacement)
    : m_place(FindImport(module, name)), m_original(nullptr)
{
    if (m_place == nullptr)
        throw std::runtime_error(std::string("the module does not import ") + name);
    m_original = *m_place;
    Store(replacement);
}

ImportOverride::~ImportOverride()
{
    Store(m_original);
}

void ImportOverride::Store(void* function)
{
    DWORD protection = 0;
    VirtualProtect(m_place, sizeof(*m_place), PAGE_READWRITE, &protection);
    *m_place = function;
    VirtualProtect(m_place, sizeof(*m_place), protection, &protection);
}

void* ImportedFunction(HMODULE module, const char* name)
{
    void** const place = FindImport(module, name);
    return place != nullptr ? *place : nullptr;
}

} // namespace vttest
