// Files and folders: drive C:, the folders that every system has, and whatever is made in them.
//
// Names keep their case and are compared without it. A path is taken as Windows takes it: with or without the long-path
// prefix, relative to the process's directory, with a limit of 260 characters where it has no prefix.
#pragma once

#include "double/mapping.h"

#include <optional>
#include <utility>

namespace vtdouble {

class OpenedFile;

class Node : public std::enable_shared_from_this<Node> {
public:
    Node(Text nodeName, bool folder);
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;

    bool IsFolder() const noexcept { return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0; }
    std::shared_ptr<Node> Child(TextView childName) const;
    void Add(const std::shared_ptr<Node>& child);
    void Remove();
    void Touched();
    Text Path() const;

    Text name;
    DWORD attributes = 0;
    std::uint64_t created = 0;
    std::uint64_t written = 0;
    std::uint64_t serial = 0;
    std::shared_ptr<Contents> contents; // of a file
    std::map<Text, std::shared_ptr<Node>, LessNoCase> children;
    Node* parent = nullptr;
    std::set<OpenedFile*> opens;
    bool deletePending = false;
    Security security;
    std::optional<std::pair<DWORD, DWORD>> version; // of its version resource
};

// A file, a folder or nothing, opened.
class OpenedFile final : public Object {
public:
    ~OpenedFile() override;
    const char* kind() const noexcept override { return "file"; }

    std::shared_ptr<Node> node;
    DWORD access = 0;
    DWORD share = 0;
    std::uint64_t position = 0;
    bool deleteOnClose = false;
};

class FileSearch final : public Object {
public:
    const char* kind() const noexcept override { return "file search"; }
    std::vector<WIN32_FIND_DATAW> found;
    std::size_t next = 0;
};

// Where a path leads.
struct Place {
    DWORD error = 0;              // 0, or why the path is none
    std::shared_ptr<Node> folder; // the folder that has the last name, null for a root
    Text name;                    // the last name
    std::shared_ptr<Node> node;   // what has the name now, or null
    bool endsInBackslash = false;
};
Place Resolve(const wchar_t* path, bool forFolder = false);
// Absolute, with dots taken out; as GetFullPathNameW gives it.
Text FullPath(TextView path);
std::shared_ptr<Node> RootFolder();
// Makes a folder with all that it lies in; for the double itself.
std::shared_ptr<Node> MakeFolders(TextView path);
void PutFile(TextView path, std::string_view text);
// Every file forgets what was not synchronised: the power went.
void DropAllUnsynced(Node& from);

DWORD MapFileAccess(DWORD access);
FILETIME ToFileTime(std::uint64_t time);

} // namespace vtdouble
