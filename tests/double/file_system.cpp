#include "double/file_system.h"

#include <algorithm>

namespace vtdouble {

namespace {

constexpr std::size_t MAX_NAME = 255;
constexpr std::size_t MAX_FOLDER_PATH = 248; // leaves room for a short file name

std::uint64_t NextSerial()
{
    static std::uint64_t serial = 0x1000;
    return ++serial;
}

bool IsNameValid(TextView name)
{
    constexpr TextView RESERVED = L"<>:\"|?*/";
    return std::none_of(name.begin(), name.end(), [RESERVED](wchar_t character) {
        return character < 0x20 ||
               (character <= L'|' && std::find(RESERVED.begin(), RESERVED.end(), character) != RESERVED.end());
    });
}

// C:, or nothing when the path names another drive or no drive at all.
bool TakeDrive(TextView& path)
{
    if (path.size() < 2 || path[1] != L':' || Upper(path[0]) != L'C')
        return false;
    path.remove_prefix(2);
    return path.empty() || path.front() == L'\\';
}

// Views of the path.
std::vector<TextView> Split(TextView path)
{
    std::vector<TextView> names;
    while (!path.empty()) {
        const std::size_t end = std::min(path.find(L'\\'), path.size());
        if (end != 0)
            names.push_back(path.substr(0, end));
        path.remove_prefix(std::min(end + 1, path.size()));
    }
    return names;
}

Text Join(const std::vector<TextView>& names)
{
    Text path;
    for (const TextView name : names)
        path.append(L"\\").append(name);
    return path;
}

// Windows drops dots and blanks at the end of a name that is not taken literally.
TextView Trimmed(TextView name)
{
    while (!name.empty() && (name.back() == L'.' || name.back() == L' '))
        name.remove_suffix(1);
    return name;
}

} // namespace

Node::Node(Text nodeName, bool folder)
    : name(std::move(nodeName)), attributes(folder ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_ARCHIVE),
      created(FileTimeNow()), written(created), serial(NextSerial())
{
    if (!folder)
        contents = std::make_shared<Contents>();
}

std::shared_ptr<Node> Node::Child(TextView childName) const
{
    const auto found = children.find(childName);
    return found != children.end() ? found->second : nullptr;
}

void Node::Add(const std::shared_ptr<Node>& child)
{
    child->parent = this;
    children[child->name] = child;
    Touched();
}

void Node::Remove()
{
    if (parent == nullptr)
        return;
    Node* const from = parent;
    parent = nullptr;
    from->Touched();
    from->children.erase(Text(name)); // last: this may be the end of the node
}

void Node::Touched()
{
    written = FileTimeNow();
}

Text Node::Path() const
{
    return parent != nullptr ? parent->Path() + L"\\" + name : name;
}

OpenedFile::~OpenedFile()
{
    if (node == nullptr)
        return;
    node->opens.erase(this);
    node->deletePending = node->deletePending || deleteOnClose;
    if (node->deletePending && node->opens.empty())
        node->Remove();
}

std::shared_ptr<Node> RootFolder()
{
    static auto& root = *new std::shared_ptr<Node>(std::make_shared<Node>(L"C:", true));
    return root;
}

Text FullPath(TextView path)
{
    Text text(path);
    for (auto& character : text)
        character = character == L'/' ? L'\\' : character;
    if (text.starts_with(L"\\\\"))
        return text;
    Text drive;
    if (text.size() >= 2 && text[1] == L':') {
        drive = text.substr(0, 2);
        text.erase(0, 2);
        if (text.empty() || text.front() != L'\\')
            text = CurrentProcess().directory.substr(2) + L"\\" + text;
    } else {
        drive = CurrentProcess().directory.substr(0, 2);
        if (text.empty() || text.front() != L'\\')
            text = CurrentProcess().directory.substr(2) + L"\\" + text;
    }
    const bool endsInBackslash = text.size() > 1 && text.back() == L'\\';
    std::vector<TextView> names;
    for (const TextView name : Split(text)) {
        if (name == L"..") {
            if (!names.empty())
                names.pop_back();
        } else if (name != L".") {
            const TextView trimmed = Trimmed(name);
            if (!trimmed.empty())
                names.push_back(trimmed);
        }
    }
    const Text joined = Join(names);
    return drive + joined + (endsInBackslash || joined.empty() ? L"\\" : L"");
}

Place Resolve(const wchar_t* path, bool forFolder)
{
    Place place;
    if (path == nullptr || *path == L'\0') {
        place.error = ERROR_PATH_NOT_FOUND;
        return place;
    }
    TextView rest = path;
    Text full;
    if (rest.starts_with(L"\\\\?\\")) {
        rest.remove_prefix(4);
    } else if (rest.starts_with(L"\\\\.\\") || rest.starts_with(L"\\\\")) {
        place.error = rest.starts_with(L"\\\\.\\") ? ERROR_FILE_NOT_FOUND : ERROR_BAD_NETPATH;
        return place;
    } else {
        full = FullPath(rest);
        if (full.size() >= (forFolder ? MAX_FOLDER_PATH : static_cast<std::size_t>(MAX_PATH))) {
            place.error = forFolder ? ERROR_FILENAME_EXCED_RANGE : ERROR_PATH_NOT_FOUND;
            return place;
        }
        rest = full;
    }
    place.endsInBackslash = rest.ends_with(L"\\");
    if (!TakeDrive(rest)) {
        place.error = ERROR_PATH_NOT_FOUND;
        return place;
    }
    const std::vector<TextView> names = Split(rest);
    std::shared_ptr<Node> node = RootFolder();
    for (std::size_t i = 0; i < names.size(); ++i) {
        const bool last = i + 1 == names.size();
        if (!IsNameValid(names[i]) || names[i].size() > MAX_NAME) {
            place.error = ERROR_INVALID_NAME;
            return place;
        }
        std::shared_ptr<Node> child = node->Child(names[i]);
        if (last) {
            place.folder = node;
            place.name = names[i];
            place.node = std::move(child);
            return place;
        }
        if (child == nullptr || !child->IsFolder()) {
            place.error = ERROR_PATH_NOT_FOUND;
            return place;
        }
        node = std::move(child);
    }
    place.node = std::move(node);
    return place;
}

std::shared_ptr<Node> MakeFolders(TextView path)
{
    TakeDrive(path);
    std::shared_ptr<Node> node = RootFolder();
    for (const TextView name : Split(path)) {
        std::shared_ptr<Node> child = node->Child(name);
        if (child == nullptr) {
            child = std::make_shared<Node>(Text(name), true);
            node->Add(child);
        }
        node = std::move(child);
    }
    return node;
}

void PutFile(TextView path, std::string_view text)
{
    const std::size_t slash = path.rfind(L'\\');
    const auto file = std::make_shared<Node>(Text(path.substr(slash + 1)), false);
    file->contents->Write(0, text.data(), text.size());
    file->contents->Sync();
    MakeFolders(path.substr(0, slash))->Add(file);
}

void DropAllUnsynced(Node& from)
{
    if (from.contents != nullptr)
        from.contents->DropUnsynced();
    for (const auto& [name, child] : from.children)
        DropAllUnsynced(*child);
}

DWORD MapFileAccess(DWORD access)
{
    if ((access & GENERIC_READ) != 0)
        access |= FILE_GENERIC_READ;
    if ((access & GENERIC_WRITE) != 0)
        access |= FILE_GENERIC_WRITE;
    if ((access & (GENERIC_ALL | MAXIMUM_ALLOWED)) != 0)
        access |= FILE_ALL_ACCESS;
    return (access & ~(GENERIC_READ | GENERIC_WRITE | GENERIC_ALL | GENERIC_EXECUTE | MAXIMUM_ALLOWED)) | SYNCHRONIZE |
           FILE_READ_ATTRIBUTES;
}

FILETIME ToFileTime(std::uint64_t time)
{
    return {static_cast<DWORD>(time), static_cast<DWORD>(time >> 32)};
}

} // namespace vtdouble
