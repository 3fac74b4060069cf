// whole_load_bench [--quick] FILE: loading and unloading the DLL, beside a DLL that has nothing in it but the C run-time's own
// start; the results go into FILE as JSON. A program of its own, which imports neither: in one that has the DLL already,
// what the DLL needs of other DLLs and of the process would be there before the first load.
#include "measure.h"

#include <fstream>

namespace {

using namespace bench;

// In the program's folder.
std::wstring PathOf(const std::wstring& name)
{
    WCHAR program[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    std::wstring folder = program;
    folder.resize(folder.rfind(L'\\') + 1);
    return folder + name;
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

std::string NameOf(const std::uint8_t* base, const IMAGE_THUNK_DATA64& thunk)
{
    if (IMAGE_SNAP_BY_ORDINAL64(thunk.u1.Ordinal))
        return "#" + std::to_string(IMAGE_ORDINAL64(thunk.u1.Ordinal));
    return At<IMAGE_IMPORT_BY_NAME>(base, static_cast<DWORD>(thunk.u1.AddressOfData))->Name;
}

// By DLL, the names of the functions.
Json ImportsOf(HMODULE module)
{
    const auto* const base = reinterpret_cast<const std::uint8_t*>(module);
    const auto* const headers =
        At<IMAGE_NT_HEADERS64>(base, static_cast<DWORD>(At<IMAGE_DOS_HEADER>(base, 0)->e_lfanew));
    const IMAGE_DATA_DIRECTORY& directory = headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    Json imports = Json::object();
    for (const auto* entry = At<IMAGE_IMPORT_DESCRIPTOR>(base, directory.VirtualAddress); entry->Name != 0; ++entry) {
        std::vector<std::string> functions;
        for (const auto* thunk = At<IMAGE_THUNK_DATA64>(base, entry->OriginalFirstThunk); thunk->u1.AddressOfData != 0;
             ++thunk)
            functions.push_back(NameOf(base, *thunk));
        std::sort(functions.begin(), functions.end());
        imports[At<char>(base, entry->Name)] = functions;
    }
    return imports;
}

struct LoadTimes {
    SideBySide loads;
    SideBySide unloads;
};

LoadTimes TimesOfLoads(const std::wstring& library, const std::wstring& empty, int runs)
{
    LoadTimes times;
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
        times.loads.Add(load(library, 0), load(empty, 1));
        times.unloads.Add(unload(0), unload(1));
    }
    return times;
}

// From here on the system's DLLs that this one imports stay loaded, as they are in most programs.
Json HoldImportsOf(const std::wstring& library)
{
    const HMODULE module = LoadLibraryW(library.c_str());
    Require(module != nullptr, "loading the DLL");
    Json imports = ImportsOf(module);
    for (const auto& [name, functions] : imports.items())
        Require(LoadLibraryA(name.c_str()) != nullptr, "loading what the DLL imports");
    FreeLibrary(module);
    return imports;
}

int Run(bool quick, const std::string& file)
{
    Require(GetModuleHandleW(L"VTFltMgr.dll") == nullptr, "a process without the DLL");
    const int runs = quick ? 3 : 50;
    const std::wstring library = PathOf(L"VTFltMgr.dll");
    const std::wstring empty = PathOf(L"bench_empty.dll");
    const LoadTimes alone = TimesOfLoads(library, empty, runs);
    const Json imports = HoldImportsOf(library);
    const LoadTimes times = TimesOfLoads(library, empty, runs);
    const Json load = {{"load_ms", Rounded(Median(times.loads.library))},
                       {"unload_ms", Rounded(Median(times.unloads.library))},
                       {"load_with_imports_ms", Rounded(Median(alone.loads.library))},
                       {"unload_with_imports_ms", Rounded(Median(alone.unloads.library))},
                       {"load_empty_ms", Rounded(Median(times.loads.bare))},
                       {"unload_empty_ms", Rounded(Median(times.unloads.bare))},
                       {"runs", runs},
                       {"load_runs_ms", Rounded(times.loads.library)},
                       {"unload_runs_ms", Rounded(times.unloads.library)},
                       {"load_with_imports_runs_ms", Rounded(alone.loads.library)},
                       {"unload_with_imports_runs_ms", Rounded(alone.unloads.library)},
                       {"load_empty_runs_ms", Rounded(times.loads.bare)},
                       {"unload_empty_runs_ms", Rounded(times.unloads.bare)},
                       {"dll_bytes", SizeOf(library)},
                       {"limit_bytes", 1048576},
                       {"imports", imports}};
    std::printf("load %s ms, with what it imports %s ms, unload %s ms, %s bytes\n", load["load_ms"].dump().c_str(),
                load["load_with_imports_ms"].dump().c_str(), load["unload_ms"].dump().c_str(),
                load["dll_bytes"].dump().c_str());

    std::ofstream out(file);
    out << Json{{"load", load}}.dump(2) << '\n';
    Require(out.good(), "writing the results");
    return 0;
}

} // namespace

int wmain(int count, wchar_t** values)
{
    try {
        const bool quick = count > 1 && Narrow(values[1]) == "--quick";
        Require(count == (quick ? 3 : 2), "one argument: the file for the results");
        return Run(quick, Narrow(values[count - 1]));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "whole_load_bench: %s\n", error.what());
        return 1;
    }
}
