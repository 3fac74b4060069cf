// The imports of a module of the double: the slots through which it calls what other modules export.
#include "interpose/imports.h"

#include <algorithm>
#include <cstring>
#include <dlfcn.h>
#include <link.h>
#include <unwind.h>

namespace vtfltsim {

namespace {

struct Search {
    ElfW(Addr) base;
    const ElfW(Dyn) * dynamic = nullptr;
    ElfW(Addr) size = 0; // in memory
};

int LookAtParts(dl_phdr_info* info, std::size_t, void* data)
{
    auto& search = *static_cast<Search*>(data);
    if (info->dlpi_addr != search.base)
        return 0;
    for (ElfW(Half) i = 0; i < info->dlpi_phnum; ++i) {
        const ElfW(Phdr)& part = info->dlpi_phdr[i];
        if (part.p_type == PT_DYNAMIC)
            search.dynamic = reinterpret_cast<const ElfW(Dyn)*>(info->dlpi_addr + part.p_vaddr);
        if (part.p_type == PT_LOAD)
            search.size = std::max(search.size, part.p_vaddr + part.p_memsz);
    }
    return 1;
}

struct Tables {
    const ElfW(Sym) * symbols = nullptr;
    const char* names = nullptr;
    const ElfW(Rela) * relocations[2] = {};
    std::size_t bytes[2] = {};
};

Tables ReadTables(const ElfW(Dyn) * dynamic)
{
    Tables tables;
    for (; dynamic->d_tag != DT_NULL; ++dynamic) {
        switch (dynamic->d_tag) {
        case DT_SYMTAB:
            tables.symbols = reinterpret_cast<const ElfW(Sym)*>(dynamic->d_un.d_ptr);
            break;
        case DT_STRTAB:
            tables.names = reinterpret_cast<const char*>(dynamic->d_un.d_ptr);
            break;
        case DT_JMPREL:
            tables.relocations[0] = reinterpret_cast<const ElfW(Rela)*>(dynamic->d_un.d_ptr);
            break;
        case DT_PLTRELSZ:
            tables.bytes[0] = dynamic->d_un.d_val;
            break;
        case DT_RELA:
            tables.relocations[1] = reinterpret_cast<const ElfW(Rela)*>(dynamic->d_un.d_ptr);
            break;
        case DT_RELASZ:
            tables.bytes[1] = dynamic->d_un.d_val;
            break;
        default:
            break;
        }
    }
    return tables;
}

// The heap's functions have another name here: see memory.cpp.
const char* WithoutWrap(const char* name)
{
    constexpr char WRAP[] = "__wrap_";
    return std::strncmp(name, WRAP, sizeof(WRAP) - 1) == 0 ? name + sizeof(WRAP) - 1 : name;
}

struct SiteSearch {
    const void* own = nullptr;
    const void* site = nullptr;
};

const void* ModuleOf(const void* code)
{
    Dl_info information{};
    return dladdr(code, &information) != 0 ? information.dli_fbase : nullptr;
}

_Unwind_Reason_Code LookAt(_Unwind_Context* context, void* data)
{
    auto& search = *static_cast<SiteSearch*>(data);
    const auto* const code = reinterpret_cast<const void*>(_Unwind_GetIP(context));
    if (ModuleOf(code) == search.own)
        return _URC_NO_REASON;
    search.site = code;
    return _URC_NORMAL_STOP;
}

} // namespace

bool ForEachImport(HMODULE module, const std::function<bool(const char* name, void** place)>& visit)
{
    Search search{reinterpret_cast<ElfW(Addr)>(module)};
    dl_iterate_phdr(LookAtParts, &search);
    if (search.dynamic == nullptr)
        return true;
    const Tables tables = ReadTables(search.dynamic);
    for (int table = 0; table < 2; ++table) {
        const std::size_t count = tables.bytes[table] / sizeof(ElfW(Rela));
        for (std::size_t i = 0; i < count; ++i) {
            const ElfW(Rela)& relocation = tables.relocations[table][i];
            const auto type = ELF64_R_TYPE(relocation.r_info);
            if (type != R_X86_64_JUMP_SLOT && type != R_X86_64_GLOB_DAT)
                continue;
            const ElfW(Sym)& symbol = tables.symbols[ELF64_R_SYM(relocation.r_info)];
            if (symbol.st_shndx != SHN_UNDEF)
                continue;
            if (!visit(WithoutWrap(tables.names + symbol.st_name),
                       reinterpret_cast<void**>(search.base + relocation.r_offset)))
                return false;
        }
    }
    return true;
}

ImageMark MarkOf(HMODULE module)
{
    Search search{reinterpret_cast<ElfW(Addr)>(module)};
    dl_iterate_phdr(LookAtParts, &search);
    ImageMark mark;
    mark.size = search.size;
    return mark;
}

const void* CallSite()
{
    SiteSearch search{ModuleOf(reinterpret_cast<const void*>(&CallSite))};
    _Unwind_Backtrace(LookAt, &search);
    return search.site;
}

} // namespace vtfltsim
