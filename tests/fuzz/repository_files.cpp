// vtbackup's files (vtbackup/file.h) in the memory of system.h. A folder is there while a file is in it.
#include "vtbackup/failure.h"
#include "vtbackup/file.h"
#include "vtbackup/volume.h"

#include "common/volume_name.h"
#include "fuzz/system.h"

#include <algorithm>
#include <set>

namespace vtbackup {

namespace {

bool HasFileBelow(const std::wstring& folder)
{
    const std::wstring start = Join(folder, {});
    const auto found = fuzz::TheSystem().files.lower_bound(start);
    return found != fuzz::TheSystem().files.end() && found->first.starts_with(start);
}

} // namespace

std::wstring AbsolutePath(const std::wstring& path)
{
    return path;
}

std::wstring Join(const std::wstring& folder, const std::wstring& name)
{
    return folder.ends_with(L'\\') ? folder + name : folder + L"\\" + name;
}

bool FileExists(const std::wstring& path)
{
    return fuzz::TheSystem().files.count(path) != 0;
}

bool FolderExists(const std::wstring& path)
{
    return HasFileBelow(path);
}

void MakeFolders(const std::wstring&) {}

void RemoveFolderWithFiles(const std::wstring& path, std::initializer_list<const wchar_t*> files)
{
    for (const wchar_t* const file : files)
        fuzz::TheSystem().files.erase(Join(path, file));
}

bool IsFolderLink(const std::wstring&)
{
    return false;
}

void RemoveFileIfThere(const std::wstring& path)
{
    fuzz::TheSystem().files.erase(path);
}

std::vector<FolderEntry> ListFolder(const std::wstring& path)
{
    const std::wstring start = Join(path, {});
    std::set<std::wstring> folders;
    std::vector<FolderEntry> entries;
    for (const auto& [file, bytes] : fuzz::TheSystem().files) {
        if (!file.starts_with(start))
            continue;
        const std::size_t end = file.find(L'\\', start.size());
        if (end == std::wstring::npos)
            entries.push_back({file.substr(start.size()), false, false});
        else if (folders.insert(file.substr(start.size(), end - start.size())).second)
            entries.push_back({file.substr(start.size(), end - start.size()), true, false});
    }
    return entries;
}

std::optional<std::string> ReadSmallFile(const std::wstring& path, std::uint64_t limit)
{
    const auto found = fuzz::TheSystem().files.find(path);
    if (found == fuzz::TheSystem().files.end())
        return std::nullopt;
    if (found->second.size() > limit)
        throw Failure(Exit::Damaged, "a file is too long");
    return std::string(found->second.begin(), found->second.end());
}

void WriteSmallFileDurably(const std::wstring& path, const std::string& content, Existing)
{
    fuzz::TheSystem().files[path] = fuzz::FileBytes(content.begin(), content.end());
}

FileReader::FileReader(const std::wstring& path) : m_path(path), m_length(fuzz::TheSystem().files[path].size()) {}

bool FileReader::ReadAt(std::uint64_t offset, void* out, std::size_t length)
{
    const fuzz::FileBytes& bytes = fuzz::TheSystem().files[m_path];
    if (offset > bytes.size() || length > bytes.size() - offset)
        return false;
    std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(offset), length, static_cast<unsigned char*>(out));
    return true;
}

std::optional<VolumeName> ParseVolumeName(std::wstring_view text)
{
    std::optional<std::wstring> guid = toolkit::ParseVolumeGuid(text);
    if (!guid)
        return std::nullopt;
    return VolumeName{std::move(*guid)};
}

} // namespace vtbackup
