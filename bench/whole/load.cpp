// Loading and unloading the DLL, beside loading one that does nothing when it is loaded.
#include "measure.h"

namespace bench {

namespace {

// Each load is of a copy under another name, so that the process's own one does not answer.
std::wstring CopyOfLibrary()
{
    WCHAR program[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    std::wstring folder = program;
    folder.resize(folder.rfind(L'\\') + 1);
    WCHAR temp[MAX_PATH] = {};
    GetTempPathW(MAX_PATH, temp);
    std::wstring copy = std::wstring(temp) + L"VTFltMgr-bench.dll";
    Require(CopyFileW((folder + L"VTFltMgr.dll").c_str(), copy.c_str(), FALSE) != FALSE, "copying the DLL");
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

void MeasureLoad(Json& results)
{
    constexpr int RUNS = 50;
    const std::wstring library = CopyOfLibrary();
    std::vector<double> loads;
    std::vector<double> unloads;
    for (int run = 0; run < RUNS; ++run) {
        HMODULE module = nullptr;
        loads.push_back(TimeOf([&] { module = LoadLibraryW(library.c_str()); }));
        Require(module != nullptr, "loading the DLL");
        unloads.push_back(TimeOf([&] { FreeLibrary(module); }));
    }
    const HMODULE module = LoadLibraryW(library.c_str());
    results["load"] = {{"load_ms", Rounded(Median(loads))},
                       {"unload_ms", Rounded(Median(unloads))},
                       {"runs", RUNS},
                       {"dll_bytes", SizeOf(library)},
                       {"limit_bytes", 1048576},
                       {"imports", ImportsOf(module)}};
    FreeLibrary(module);
    DeleteFileW(library.c_str());
    std::printf("load %s ms, unload %s ms, %s bytes\n", results["load"]["load_ms"].dump().c_str(),
                results["load"]["unload_ms"].dump().c_str(), results["load"]["dll_bytes"].dump().c_str());
}

} // namespace bench
