// Makes calls on behalf of a program that runs elsewhere: takes them from the standard input, writes their results to the
// standard output. A sample that cannot run on Windows here calls the real library so.
//
// A request: the name's length and the name; the number of arguments; for each a kind, 0: a value of 8 bytes, 1: a buffer, its
// length and its bytes. Lengths and numbers have 4 bytes. An answer: the result, 8 bytes; then all buffers as they are now.
// It ends with its input.
#include <io.h>
#include <windows.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace {

constexpr unsigned MOST_ARGUMENTS = 8;
HANDLE g_input = nullptr;
HANDLE g_output = nullptr;

bool Read(void* target, DWORD bytes)
{
    auto* at = static_cast<char*>(target);
    DWORD read = 0;
    for (; bytes != 0; at += read, bytes -= read) {
        if (!ReadFile(g_input, at, bytes, &read, nullptr) || read == 0)
            return false;
    }
    return true;
}

bool Write(const void* source, DWORD bytes)
{
    const auto* at = static_cast<const char*>(source);
    DWORD written = 0;
    for (; bytes != 0; at += written, bytes -= written) {
        if (!WriteFile(g_output, at, bytes, &written, nullptr))
            return false;
    }
    return true;
}

bool ReadBytes(std::vector<char>& bytes)
{
    std::uint32_t length = 0;
    if (!Read(&length, sizeof(length)))
        return false;
    bytes.resize(length);
    return Read(bytes.data(), length);
}

FARPROC Find(const char* name)
{
    for (const wchar_t* module : {L"VTFltMgr.dll", L"kernel32.dll", L"advapi32.dll"}) {
        if (const FARPROC function = GetProcAddress(GetModuleHandleW(module), name))
            return function;
    }
    std::fprintf(stderr, "call_server: no function %s\n", name);
    ExitProcess(2);
}

// All arguments are passed as 64-bit words: so are they on x86-64, whatever their types.
bool Serve()
{
    std::vector<char> name;
    std::uint32_t count = 0;
    if (!ReadBytes(name))
        return false;
    name.push_back('\0');
    if (!Read(&count, sizeof(count)) || count > MOST_ARGUMENTS)
        return false;
    std::uint64_t words[MOST_ARGUMENTS] = {};
    std::vector<char> buffers[MOST_ARGUMENTS];
    bool isBuffer[MOST_ARGUMENTS] = {};
    for (std::uint32_t i = 0; i < count; ++i) {
        unsigned char kind = 0;
        if (!Read(&kind, 1))
            return false;
        isBuffer[i] = kind == 1;
        if (kind == 1 ? !ReadBytes(buffers[i]) : !Read(&words[i], sizeof(words[i])))
            return false;
        if (kind == 1)
            words[i] = reinterpret_cast<std::uint64_t>(buffers[i].data());
    }
    using Function = std::uint64_t (*)(std::uint64_t, std::uint64_t, std::uint64_t, std::uint64_t, std::uint64_t,
                                       std::uint64_t, std::uint64_t, std::uint64_t);
    const auto function = reinterpret_cast<Function>(reinterpret_cast<void*>(Find(name.data())));
    const std::uint64_t result =
        function(words[0], words[1], words[2], words[3], words[4], words[5], words[6], words[7]);
    if (!Write(&result, sizeof(result)))
        return false;
    for (std::uint32_t i = 0; i < count; ++i) {
        if (isBuffer[i] && !Write(buffers[i].data(), static_cast<DWORD>(buffers[i].size())))
            return false;
    }
    return true;
}

} // namespace

int main()
{
    g_input = GetStdHandle(STD_INPUT_HANDLE);
    // The library prints a line of its own to the standard output, which must not come between the answers.
    if (!DuplicateHandle(GetCurrentProcess(), GetStdHandle(STD_OUTPUT_HANDLE), GetCurrentProcess(), &g_output, 0, FALSE,
                         DUPLICATE_SAME_ACCESS) ||
        _dup2(_fileno(stderr), _fileno(stdout)) != 0)
        return 2;
    if (LoadLibraryW(L"VTFltMgr.dll") == nullptr)
        return 2;
    while (Serve()) {
    }
    return 0;
}
