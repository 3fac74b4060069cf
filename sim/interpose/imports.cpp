// The imports of a module as Windows loads it.
#include "interpose/imports.h"

namespace vtfltsim {

namespace {

template <class T>
T* At(HMODULE base, DWORD offset)
{
    return reinterpret_cast<T*>(reinterpret_cast<BYTE*>(base) + offset);
}

const IMAGE_NT_HEADERS* Headers(HMODULE base)
{
    const auto* dos = At<IMAGE_DOS_HEADER>(base, 0);
    return dos->e_magic == IMAGE_DOS_SIGNATURE ? At<IMAGE_NT_HEADERS>(base, static_cast<DWORD>(dos->e_lfanew))
                                               : nullptr;
}

const IMAGE_IMPORT_DESCRIPTOR* Imports(HMODULE base)
{
    const auto* headers = Headers(base);
    if (headers == nullptr)
        return nullptr;
    const auto& directory = headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    return directory.VirtualAddress != 0 ? At<IMAGE_IMPORT_DESCRIPTOR>(base, directory.VirtualAddress) : nullptr;
}

} // namespace

bool ForEachImport(HMODULE module, const std::function<bool(const char* name, void** place)>& visit)
{
    for (const auto* import = Imports(module); import != nullptr && import->Name != 0; ++import) {
        if (import->OriginalFirstThunk == 0)
            continue; // names are gone; such modules are not made by today's linkers
        const auto* names = At<IMAGE_THUNK_DATA>(module, import->OriginalFirstThunk);
        auto* places = At<IMAGE_THUNK_DATA>(module, import->FirstThunk);
        for (; names->u1.AddressOfData != 0; ++names, ++places) {
            if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal))
                continue;
            const auto* byName = At<IMAGE_IMPORT_BY_NAME>(module, static_cast<DWORD>(names->u1.AddressOfData));
            if (!visit(reinterpret_cast<const char*>(byName->Name), reinterpret_cast<void**>(&places->u1.Function)))
                return false;
        }
    }
    return true;
}

ImageMark MarkOf(HMODULE module)
{
    ImageMark mark;
    if (const auto* headers = Headers(module)) {
        mark.size = headers->OptionalHeader.SizeOfImage;
        mark.time = headers->FileHeader.TimeDateStamp;
    }
    return mark;
}

const void* CallSite()
{
    CONTEXT context = {};
    RtlCaptureContext(&context);
    DWORD64 own = 0;
    RtlLookupFunctionEntry(context.Rip, &own, nullptr);
    for (;;) {
        DWORD64 base = 0;
        auto* const function = RtlLookupFunctionEntry(context.Rip, &base, nullptr);
        if (function == nullptr)
            return nullptr;
        if (base != own)
            return reinterpret_cast<const void*>(context.Rip);
        void* data = nullptr;
        DWORD64 frame = 0;
        RtlVirtualUnwind(UNW_FLAG_NHANDLER, base, context.Rip, function, &context, &data, &frame, nullptr);
    }
}

} // namespace vtfltsim
