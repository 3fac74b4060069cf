#include "proof/tests/library_calls.h"

#include "proof/exported.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cxxabi.h>
#include <dlfcn.h>
#include <elf.h>
#include <map>

namespace vtproof {

namespace {

using Image = std::vector<std::uint8_t>;

Image ReadImage(const char* path)
{
    Image image;
    std::FILE* const file = std::fopen(path, "rb");
    if (file == nullptr)
        return image;
    std::uint8_t piece[1 << 14];
    while (const std::size_t read = std::fread(piece, 1, sizeof(piece), file))
        image.insert(image.end(), piece, piece + read);
    std::fclose(file);
    return image;
}

template <class T>
T At(const Image& image, std::size_t offset)
{
    T value;
    std::memcpy(&value, image.data() + offset, sizeof(value));
    return value;
}

// The program as it lies in memory, and what its file says of it.
class Program {
public:
    Program()
    {
        Dl_info self{};
        dladdr(reinterpret_cast<const void*>(&ReadImage), &self);
        m_base = static_cast<const std::uint8_t*>(self.dli_fbase);
        m_image = ReadImage(self.dli_fname);
        const auto header = At<Elf64_Ehdr>(m_image, 0);
        for (std::size_t i = 0; i < header.e_shnum; ++i)
            m_sections.push_back(At<Elf64_Shdr>(m_image, header.e_shoff + i * header.e_shentsize));
        FindSlots();
    }

    std::vector<LibraryCall> Calls() const
    {
        std::vector<LibraryCall> calls;
        for (const Elf64_Shdr& section : m_sections) {
            if (section.sh_type != SHT_SYMTAB)
                continue;
            for (std::size_t at = 0; at < section.sh_size; at += sizeof(Elf64_Sym)) {
                const auto symbol = At<Elf64_Sym>(m_image, section.sh_offset + at);
                const char* const name = Name(section, symbol.st_name);
                if (ELF64_ST_TYPE(symbol.st_info) == STT_FUNC && symbol.st_size != 0 && IsTheLibrarys(name))
                    LookThrough(m_base + symbol.st_value, symbol.st_size, name, calls);
            }
        }
        // Constructors and destructors have several names.
        std::sort(calls.begin(), calls.end(),
                  [](const LibraryCall& a, const LibraryCall& b) { return a.behind < b.behind; });
        calls.erase(std::unique(calls.begin(), calls.end(),
                                [](const LibraryCall& a, const LibraryCall& b) { return a.behind == b.behind; }),
                    calls.end());
        return calls;
    }

private:
    const char* Name(const Elf64_Shdr& symbols, std::size_t at) const
    {
        return reinterpret_cast<const char*>(m_image.data()) + m_sections[symbols.sh_link].sh_offset + at;
    }

    // The slots of the imports that lead into the simulator.
    void FindSlots()
    {
        for (const Elf64_Shdr& section : m_sections) {
            if (section.sh_type != SHT_RELA || m_sections[section.sh_link].sh_type != SHT_DYNSYM)
                continue;
            for (std::size_t at = 0; at < section.sh_size; at += sizeof(Elf64_Rela)) {
                const auto relocation = At<Elf64_Rela>(m_image, section.sh_offset + at);
                const auto type = ELF64_R_TYPE(relocation.r_info);
                if (type != R_X86_64_JUMP_SLOT && type != R_X86_64_GLOB_DAT)
                    continue;
                const Elf64_Shdr& symbols = m_sections[section.sh_link];
                const auto symbol =
                    At<Elf64_Sym>(m_image, symbols.sh_offset + ELF64_R_SYM(relocation.r_info) * sizeof(Elf64_Sym));
                const char* const name = Name(symbols, symbol.st_name);
                const std::uint8_t* const slot = m_base + relocation.r_offset;
                if (LeadsIntoTheSimulator(slot) && std::strstr(name, "VTFltSim") == nullptr &&
                    std::strstr(name, "alloc") == nullptr)
                    m_slots[slot] = name;
            }
        }
    }

    static bool LeadsIntoTheSimulator(const std::uint8_t* slot)
    {
        const void* target = nullptr;
        std::memcpy(&target, slot, sizeof(target));
        Dl_info module{};
        return dladdr(target, &module) != 0 && std::strstr(module.dli_fname, "VTFltSim") != nullptr;
    }

    // What is in its namespace, and its exports.
    static bool IsTheLibrarys(const char* name)
    {
        const bool ours = std::strstr(name, "7vtproof") != nullptr || std::strstr(name, "6vttest") != nullptr;
        return (!ours && (std::strstr(name, "N5vtflt") != nullptr || std::strstr(name, "NK5vtflt") != nullptr)) ||
               std::any_of(std::begin(EXPORT_NAMES), std::end(EXPORT_NAMES),
                           [name](const char* exported) { return std::strcmp(name, exported) == 0; });
    }

    static const std::uint8_t* Relative(const std::uint8_t* behind)
    {
        std::int32_t distance = 0;
        std::memcpy(&distance, behind - sizeof(distance), sizeof(distance));
        return behind + distance;
    }

    // The import that a stub jumps to; null when it is no stub of one. Stubs: [endbr64] [bnd] jmp *slot(%rip)
    const char* StubOf(const std::uint8_t* code) const
    {
        constexpr std::uint8_t ENDBR64[] = {0xF3, 0x0F, 0x1E, 0xFA};
        if (!IsCode(code))
            return nullptr;
        if (std::memcmp(code, ENDBR64, sizeof(ENDBR64)) == 0)
            code += sizeof(ENDBR64);
        code += *code == 0xF2 ? 1 : 0;
        return code[0] == 0xFF && code[1] == 0x25 ? SlotName(Relative(code + 6)) : nullptr;
    }

    const char* SlotName(const std::uint8_t* slot) const
    {
        const auto found = m_slots.find(slot);
        return found != m_slots.end() ? found->second : nullptr;
    }

    bool IsCode(const std::uint8_t* address) const
    {
        constexpr std::size_t LONGEST_STUB = 16;
        return std::any_of(m_sections.begin(), m_sections.end(), [&](const Elf64_Shdr& section) {
            return (section.sh_flags & SHF_EXECINSTR) != 0 && address >= m_base + section.sh_addr &&
                   address + LONGEST_STUB <= m_base + section.sh_addr + section.sh_size;
        });
    }

    // Calls and jumps to a stub, and through a slot. Four bytes that are the distance to one of a few dozen stubs, and are no
    // call, do not happen; if they did, a call would be missed that there is none of.
    void LookThrough(const std::uint8_t* code, std::size_t size, const char* name,
                     std::vector<LibraryCall>& calls) const
    {
        for (const std::uint8_t* at = code; at + 5 <= code + size; ++at) {
            const bool straight = *at == 0xE8 || *at == 0xE9;
            const bool indirect = at[0] == 0xFF && (at[1] == 0x15 || at[1] == 0x25) && at + 6 <= code + size;
            const std::uint8_t* const behind = at + (straight ? 5 : 6);
            const char* const import =
                straight ? StubOf(Relative(behind)) : (indirect ? SlotName(Relative(behind)) : nullptr);
            if (import != nullptr)
                calls.push_back({behind, Readable(name), import});
        }
    }

    static std::string Readable(const char* name)
    {
        int status = 0;
        char* const text = abi::__cxa_demangle(name, nullptr, nullptr, &status);
        const std::string readable = status == 0 ? text : name;
        std::free(text);
        return readable;
    }

    const std::uint8_t* m_base = nullptr;
    Image m_image;
    std::vector<Elf64_Shdr> m_sections;
    std::map<const std::uint8_t*, const char*> m_slots;
};

} // namespace

std::vector<LibraryCall> LibraryCalls()
{
    return Program().Calls();
}

} // namespace vtproof
