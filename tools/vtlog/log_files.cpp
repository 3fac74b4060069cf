#include "log_files.h"

#include "common/text.h"
#include "log/log_path.h"
#include "win/owners.h"

#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <optional>

namespace vtlog {
namespace {

using toolkit::ErrorText;
using toolkit::ToUtf8;

std::wstring FolderOf(const std::wstring& path)
{
    const std::size_t end = path.find_last_of(L"\\/:");
    return end == std::wstring::npos ? std::wstring() : path.substr(0, end + 1);
}

struct Successor {
    std::uint32_t number;
    std::wstring path;
};

// The successors with a number beyond that of the parts, in order.
std::vector<Successor> FindSuccessors(const std::wstring& path, const vtflt::LogPathParts& parts)
{
    std::vector<Successor> found;
    const std::wstring folder = FolderOf(path);
    const std::wstring base(parts.base);
    WIN32_FIND_DATAW entry = {};
    const vtflt::UniqueFileSearch search(FindFirstFileW((base + L".*.log").c_str(), &entry));
    if (!search.valid())
        return found;
    do {
        std::wstring candidate = folder + entry.cFileName;
        const vtflt::LogPathParts theirs = vtflt::SplitLogPath(candidate);
        const bool folderEntry = (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
        if (!folderEntry && theirs.number > parts.number && toolkit::EqualIgnoringCase(theirs.base, base))
            found.push_back({theirs.number, std::move(candidate)});
    } while (FindNextFileW(search.get(), &entry));
    std::sort(found.begin(), found.end(), [](const Successor& a, const Successor& b) { return a.number < b.number; });
    return found;
}

std::wstring DecodeNarrow(std::string_view bytes, unsigned codePage)
{
    if (bytes.empty())
        return {};
    const int in = static_cast<int>(bytes.size());
    const int out = MultiByteToWideChar(codePage, 0, bytes.data(), in, nullptr, 0);
    if (out <= 0) {
        // No such conversion: the bytes themselves, so that nothing is lost.
        return std::wstring(reinterpret_cast<const unsigned char*>(bytes.data()),
                            reinterpret_cast<const unsigned char*>(bytes.data()) + bytes.size());
    }
    std::wstring text(static_cast<std::size_t>(out), L'\0');
    MultiByteToWideChar(codePage, 0, bytes.data(), in, text.data(), out);
    return text;
}

} // namespace

std::wstring FullPath(const std::wstring& path)
{
    const DWORD length = GetFullPathNameW(path.c_str(), 0, nullptr, nullptr);
    if (length == 0)
        return path;
    std::wstring full(length, L'\0');
    full.resize(GetFullPathNameW(path.c_str(), length, full.data(), nullptr));
    return full;
}

std::uint32_t SuccessorNumber(const std::wstring& path)
{
    return vtflt::SplitLogPath(path).number;
}

LogChain FindChain(const std::wstring& path, const ReadOptions& options)
{
    LogChain chain;
    chain.paths.push_back(path);
    if (!options.followSuccessors)
        return chain;
    const vtflt::LogPathParts parts = vtflt::SplitLogPath(path);
    std::uint32_t expected = parts.number + 1;
    for (Successor& successor : FindSuccessors(path, parts)) {
        if (successor.number != expected)
            chain.notes.push_back(fmt::format("between {} and {} {} missing", ToUtf8(chain.paths.back()),
                                              ToUtf8(successor.path),
                                              successor.number - expected == 1 ? "a file is" : "files are"));
        expected = successor.number + 1;
        chain.paths.push_back(std::move(successor.path));
    }
    return chain;
}

EntryReader OpenLog(const std::wstring& path, const ReadOptions& options)
{
    const DWORD attributes = GetFileAttributesW(path.c_str());
    if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
        throw Failure(Exit::Unreadable, fmt::format("{} is a folder; name the log files in it", ToUtf8(path)));
    // The writers share it, and must be able to go on as if nobody read.
    auto file = std::make_shared<vtflt::UniqueHandle>(
        CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                    OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
    if (!file->valid()) {
        const DWORD error = GetLastError();
        const bool absent = error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND ||
                            error == ERROR_INVALID_NAME || error == ERROR_BAD_NETPATH;
        throw Failure(absent ? Exit::NotFound : Exit::Unreadable,
                      fmt::format("cannot open {}: {}", ToUtf8(path), ErrorText(error)));
    }
    const ByteSource source = [file, path](std::uint8_t* to, std::size_t room) {
        DWORD got = 0;
        if (!ReadFile(file->get(), to, static_cast<DWORD>(room), &got, nullptr)) {
            const DWORD error = GetLastError();
            if (error == ERROR_BROKEN_PIPE || error == ERROR_HANDLE_EOF)
                return std::size_t{0};
            throw Failure(Exit::Unreadable, fmt::format("cannot read {}: {}", ToUtf8(path), ErrorText(error)));
        }
        return static_cast<std::size_t>(got);
    };
    const unsigned codePage = options.codePage == 0 ? CP_ACP : options.codePage;
    return EntryReader(PieceReader(source, [codePage](std::string_view bytes, bool utf8) {
        return DecodeNarrow(bytes, utf8 ? CP_UTF8 : codePage);
    }));
}

} // namespace vtlog
