// Loading and unloading the DLL, beside a DLL that has nothing in it but the C run-time's own start.
#include "measure.h"

namespace bench {

namespace {

// Each load is of a copy under another name, so that the process's own one does not answer.
std::wstring CopyOf(const std::wstring& name)
{
    WCHAR program[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    std::wstring folder = program;
    folder.resize(folder.rfind(L'\\') + 1);
    WCHAR temp[MAX_PATH] = {};
    GetTempPathW(MAX_PATH, temp);
    std::wstring copy = std::wstring(temp) + L"bench-" + name;
    Require(CopyFileW((folder + name).c_str(), copy.c_str(), FALSE) != FALSE, "copying the DLL");
    return copy;
}

std::uint64_t SizeOf(const std::wstring& path)
{
    WIN32_FILE_ATTRIBUTE_DATA data = {};
    Require(GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data) != FALSE, "asking for the DLL's size");
    return static_cast<std::uint64_t>(data.nFileSizeHigh) << 32 | data.nFileSizeLow;
}

template <class T>
const T* At(const std::uint8_t* base, DWORD offset)
{
    return reinterpret_cast<const T*>(base + offset);
}

Json ImportsOf(HMODULE module)
{
    const auto* const base = reinterpret_cast<const std::uint8_t*>(module);
    const auto* const headers =
        At<IMAGE_NT_HEADERS64>(base, static_cast<DWORD>(At<IMAGE_DOS_HEADER>(base, 0)->e_lfanew));
    const IMAGE_DATA_DIRECTORY& directory = headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    Json imports = Json::object();
    for (const auto* entry = At<IMAGE_IMPORT_DESCRIPTOR>(base, directory.VirtualAddress); entry->Name != 0; ++entry) {
        int functions = 0;
        for (const auto* thunk = At<IMAGE_THUNK_DATA64>(base, entry->OriginalFirstThunk); thunk->u1.AddressOfData != 0;
             ++thunk)
            ++functions;
        imports[At<char>(base, entry->Name)] = functions;
    }
    return imports;
}

} // namespace

void MeasureLoad(Json& results, bool quick)
{
    const int runs = quick ? 3 : 50;
    const std::wstring library = CopyOf(L"VTFltMgr.dll");
    const std::wstring empty = CopyOf(L"bench_empty.dll");
    SideBySide loads;
    SideBySide unloads;
    for (int run = 0; run < runs; ++run) {
        HMODULE modules[2] = {};
        const auto load = [&modules](const std::wstring& path, int index) {
            return [&modules, &path, index] {
                const double time = TimeOf([&] { modules[index] = LoadLibraryW(path.c_str()); });
                Require(modules[index] != nullptr, "loading a DLL");
                return time;
            };
        };
        const auto unload = [&modules](int index) {
            return [&modules, index] { return TimeOf([&] { FreeLibrary(modules[index]); }); };
        };
        loads.Add(load(library, 0), load(empty, 1));
        unloads.Add(unload(0), unload(1));
    }
    const HMODULE module = LoadLibraryW(library.c_str());
    results["load"] = {{"load_ms", Rounded(Median(loads.library))},
                       {"unload_ms", Rounded(Median(unloads.library))},
                       {"load_empty_ms", Rounded(Median(loads.bare))},
                       {"unload_empty_ms", Rounded(Median(unloads.bare))},
                       {"runs", runs},
                       {"dll_bytes", SizeOf(library)},
                       {"limit_bytes", 1048576},
                       {"imports", ImportsOf(module)}};
    FreeLibrary(module);
    DeleteFileW(library.c_str());
    DeleteFileW(empty.c_str());
    std::printf("load %s ms, unload %s ms, %s bytes\n", results["load"]["load_ms"].dump().c_str(),
                results["load"]["unload_ms"].dump().c_str(), results["load"]["dll_bytes"].dump().c_str());
}

} // namespace bench
