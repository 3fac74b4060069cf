// Files of the repository: buffered streams over system handles, and the few steps that make them durable.
// Every function throws Failure(Exit::Repository) with the path and the system's reason.
#pragma once

#include "handle.h"

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

namespace vtbackup {

// Absolute, with the \\?\ prefix, so that deep repositories do not end at 260 characters.
std::wstring AbsolutePath(const std::wstring& path);
std::wstring Join(const std::wstring& folder, const std::wstring& name);

// False only when the system says that there is none; any other answer throws.
bool FileExists(const std::wstring& path);
bool FolderExists(const std::wstring& path);
// Whether anything is there, file or folder.
bool AnythingExists(const std::wstring& path);
// Makes the folder and its missing parents.
void MakeFolders(const std::wstring& path);
// Makes a folder that must not be there yet; its parents are.
void MakeNewFolder(const std::wstring& path);
// Deletes these files, and the folder when nothing else is in it.
void RemoveFolderWithFiles(const std::wstring& path, std::initializer_list<const wchar_t*> files);
// Whether the path is there and leads to another folder.
bool IsFolderLink(const std::wstring& path);
void RemoveFileIfThere(const std::wstring& path);
struct FolderEntry {
    std::wstring name;
    bool folder = false;
    bool link = false; // a folder that leads elsewhere; what is in it is not ours
};
std::vector<FolderEntry> ListFolder(const std::wstring& path);

// The whole file, or nothing when it does not exist. Files longer than the limit throw Failure(Damaged).
std::optional<std::string> ReadSmallFile(const std::wstring& path, std::uint64_t limit);

// What is done with a file that has the name already. Refusing throws Failure(Usage), and leaves the file as it is.
enum class Existing { Replace, Refuse };
[[noreturn]] void RefuseExisting(const std::wstring& path);
// Gives a file its name. Throws Failure with the path and the system's reason.
void MoveIntoPlace(const std::wstring& from, const std::wstring& to, Existing existing);

// Replaces a small file so that after a crash either the old or the new content is there, whole. What comes to be in its
// place while the new one is written is refused, too. The new one is PATH.tmp until it has its name; a failure takes away
// what was begun, and nothing else.
void WriteSmallFileDurably(const std::wstring& path, const std::string& content, Existing existing = Existing::Replace);

// Writes a new file from its beginning to its end.
class FileWriter {
public:
    explicit FileWriter(const std::wstring& path, Existing existing = Existing::Replace);

    void Write(const void* bytes, std::size_t length);
    // Everything written is on the disk when this returns.
    void Flush();
    [[nodiscard]] std::uint64_t Length() const noexcept { return m_length; }

private:
    void WriteBuffer();

    std::wstring m_path;
    Handle m_handle;
    std::vector<unsigned char> m_buffer;
    std::uint64_t m_length = 0;
};

// Reads an existing file at any place.
class FileReader {
public:
    explicit FileReader(const std::wstring& path);

    [[nodiscard]] std::uint64_t Length() const noexcept { return m_length; }
    [[nodiscard]] const std::wstring& Path() const noexcept { return m_path; }
    // Reads exactly length bytes; false when the file is shorter.
    bool ReadAt(std::uint64_t offset, void* out, std::size_t length);

private:
    std::wstring m_path;
    Handle m_handle;
    std::uint64_t m_length = 0;
};

} // namespace vtbackup
