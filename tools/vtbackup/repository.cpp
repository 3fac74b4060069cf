#include "repository.h"

#include "checksum.h"
#include "failure.h"
#include "file.h"
#include "text.h"

#include <fmt/format.h>
#include <fmt/xchar.h>

#include <algorithm>
#include <random>

namespace vtbackup {
namespace {

using nlohmann::json;

constexpr std::uint64_t SMALL_FILE_LIMIT = 1024 * 1024; // of repository.json and chain.json
constexpr const wchar_t* REPOSITORY_FILE = L"repository.json";
constexpr const wchar_t* CHAIN_FILE = L"chain.json";
constexpr std::wstring_view LOSS_PREFIX = L"lost-tracking-";
constexpr std::wstring_view LOSS_ENDING = L".json";

// Letters, digits, "-" and "_" stand for themselves, every other byte of the UTF-8 text is %XX; the checksum
// keeps IDs apart that differ only in case.
std::wstring FolderNameOf(std::string_view application)
{
    std::string name;
    for (const char c : application.substr(0, 40)) {
        const auto byte = static_cast<unsigned char>(c);
        const bool plain =
            (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
        name += plain ? std::string(1, c) : fmt::format("%{:02X}", byte);
    }
    return ToWide(name + "-" + ToHex(ChecksumOf(application.data(), application.size())).substr(0, 8));
}

constexpr std::size_t MOST_DIGITS = 18; // fits 64 bits
constexpr std::uint64_t LAST_SEQUENCE = 999'999'999'999'999'999;

// 8 to 18 digits, nothing else; 0 when it is no backup's folder.
std::uint64_t SequenceFrom(const std::wstring& name)
{
    if (name.size() < 8 || name.size() > MOST_DIGITS)
        return 0;
    std::uint64_t value = 0;
    for (const wchar_t c : name) {
        if (c < L'0' || c > L'9')
            return 0;
        value = value * 10 + static_cast<std::uint64_t>(c - L'0');
    }
    return fmt::format(L"{:08}", value) == name ? value : 0;
}

json ReadJson(const std::wstring& path)
{
    const std::optional<std::string> text = ReadSmallFile(path, SMALL_FILE_LIMIT);
    if (!text)
        throw Failure(Exit::NotFound, fmt::format("{} does not exist", ToUtf8(path)));
    json parsed = json::parse(*text, nullptr, false);
    if (!parsed.is_object())
        throw Failure(Exit::Damaged, fmt::format("{} is damaged: it is no JSON object", ToUtf8(path)));
    return parsed;
}

std::string TextMember(const json& object, const char* key, const std::wstring& path)
{
    const auto found = object.find(key);
    if (found == object.end() || !found->is_string())
        throw Failure(Exit::Damaged, fmt::format("{} is damaged: \"{}\" is missing", ToUtf8(path), key));
    return found->get<std::string>();
}

std::string LinkProblem(const std::wstring& path)
{
    return fmt::format("{} leads to another folder; links inside of a repository are not followed", ToUtf8(path));
}

// The chain in a folder, or nothing when its first backup never began. Throws Failure(Damaged) when the folder does not
// say whose it is.
std::optional<Chain> ChainIn(const std::wstring& folder)
{
    const std::wstring file = Join(folder, CHAIN_FILE);
    if (!FileExists(file)) {
        const Chain unknown(folder, {}, {});
        if (unknown.Backups().empty() && unknown.WithoutManifest().empty())
            return std::nullopt;
        throw Failure(Exit::Damaged, fmt::format("{} is missing", ToUtf8(file)));
    }
    const json content = ReadJson(file);
    const std::string application = TextMember(content, "application", file);
    const std::optional<VolumeName> volume = ParseVolumeName(ToWide(TextMember(content, "volume", file)));
    if (!volume)
        throw Failure(Exit::Damaged, fmt::format("{} is damaged: it names no volume", ToUtf8(file)));
    return Chain(folder, application, *volume);
}

} // namespace

std::string RandomId()
{
    std::random_device source;
    std::string id;
    for (int i = 0; i < 4; ++i)
        id += fmt::format("{:08x}", source() & 0xFFFFFFFFU);
    return id;
}

Chain::Chain(std::wstring folder, std::string application, VolumeName volume)
    : m_folder(std::move(folder)), m_application(std::move(application)), m_volume(std::move(volume))
{
}

std::wstring Chain::BackupFolder(std::uint64_t sequence) const
{
    return Join(m_folder, fmt::format(L"{:08}", sequence));
}

std::wstring Chain::ManifestPath(std::uint64_t sequence) const
{
    return Join(BackupFolder(sequence), L"manifest.json");
}

std::wstring Chain::IndexPath(std::uint64_t sequence) const
{
    return Join(BackupFolder(sequence), L"index.bin");
}

std::wstring Chain::DataPath(std::uint64_t sequence) const
{
    return Join(BackupFolder(sequence), L"data.bin");
}

std::wstring Chain::ReportedPath(std::uint64_t sequence) const
{
    return Join(BackupFolder(sequence), L"reported");
}

std::wstring Chain::LossPath(std::uint64_t sequence) const
{
    return Join(m_folder, fmt::format(L"{}{:08}{}", LOSS_PREFIX, sequence, LOSS_ENDING));
}

std::vector<std::uint64_t> Chain::Losses() const
{
    std::vector<std::uint64_t> sequences;
    for (const FolderEntry& entry : ListFolder(m_folder)) {
        const std::wstring_view name = entry.name;
        if (entry.folder || !name.starts_with(LOSS_PREFIX) || !name.ends_with(LOSS_ENDING) ||
            name.size() <= LOSS_PREFIX.size() + LOSS_ENDING.size())
            continue;
        const std::uint64_t sequence = SequenceFrom(
            std::wstring(name.substr(LOSS_PREFIX.size(), name.size() - LOSS_PREFIX.size() - LOSS_ENDING.size())));
        if (sequence != 0)
            sequences.push_back(sequence);
    }
    std::sort(sequences.begin(), sequences.end());
    return sequences;
}

std::vector<std::uint64_t> Chain::Folders() const
{
    std::vector<std::uint64_t> sequences;
    for (const FolderEntry& entry : ListFolder(m_folder)) {
        const std::uint64_t sequence = entry.folder && !entry.link ? SequenceFrom(entry.name) : 0;
        if (sequence != 0)
            sequences.push_back(sequence);
    }
    std::sort(sequences.begin(), sequences.end());
    return sequences;
}

std::vector<std::uint64_t> Chain::Backups() const
{
    std::vector<std::uint64_t> sequences = Folders();
    std::erase_if(sequences, [this](std::uint64_t sequence) { return !FileExists(ManifestPath(sequence)); });
    return sequences;
}

std::uint64_t Chain::NextSequence() const
{
    // Whatever has a backup's name, folder or not, stands where one would have to be made.
    std::uint64_t last = 0;
    for (const FolderEntry& entry : ListFolder(m_folder))
        last = std::max(last, SequenceFrom(entry.name));
    // A backup in a folder that no reader takes for one must not be reported.
    if (last == LAST_SEQUENCE)
        throw Failure(Exit::Damaged,
                      fmt::format("{} is damaged: there is no number behind backup {}", ToUtf8(m_folder), last));
    return last + 1;
}

Manifest Chain::ReadManifest(std::uint64_t sequence) const
{
    const std::wstring path = ManifestPath(sequence);
    const bool reported = WasReported(sequence); // asked first: a backup may be at work that is reported in between
    const std::optional<std::string> text = ReadSmallFile(path, MANIFEST_LIMIT);
    if (!text && reported)
        throw Failure(Exit::Damaged, ManifestIsGone(sequence));
    if (!text)
        throw Failure(Exit::NotFound, fmt::format("there is no backup {} of volume {} for application \"{}\"", sequence,
                                                  ToUtf8(m_volume.guid), m_application));
    Manifest manifest = ParseManifest(*text, ToUtf8(path));
    // A folder that was copied or renamed by hand would restore the wrong contents without a word.
    if (manifest.sequence != sequence || manifest.application != m_application ||
        !EqualIgnoringCase(ToWide(manifest.volume), m_volume.guid))
        throw Failure(Exit::Damaged,
                      fmt::format("{} belongs to another place: backup {} of volume {} for \"{}\"", ToUtf8(path),
                                  manifest.sequence, manifest.volume, manifest.application));
    return manifest;
}

std::vector<Manifest> Chain::PathTo(std::uint64_t sequence) const
{
    std::vector<Manifest> path;
    path.push_back(ReadManifest(sequence));
    while (path.back().kind != Kind::Full) {
        const Manifest& child = path.back();
        Manifest parent;
        try {
            parent = ReadManifest(child.parent);
        } catch (const Failure& failure) {
            if (failure.Code() != Exit::NotFound)
                throw;
            throw Failure(Exit::Damaged,
                          fmt::format("backup {} builds on backup {}, which is missing", child.sequence, child.parent));
        }
        if (parent.checksum != child.parentChecksum)
            throw Failure(Exit::Damaged,
                          fmt::format("backup {} was made on another backup {} than the one that is there",
                                      child.sequence, child.parent));
        if (parent.base != child.base || parent.geometry.blockSize != child.geometry.blockSize)
            throw Failure(Exit::Damaged,
                          fmt::format("backups {} and {} do not belong together", parent.sequence, child.sequence));
        path.push_back(std::move(parent)); // sequences fall strictly, so this ends
    }
    std::reverse(path.begin(), path.end());
    return path;
}

bool Chain::WasReported(std::uint64_t sequence) const
{
    return FileExists(ReportedPath(sequence));
}

std::vector<std::uint64_t> Chain::WithoutManifest() const
{
    std::vector<std::uint64_t> sequences = Folders();
    std::erase_if(sequences, [this](std::uint64_t sequence) {
        return !WasReported(sequence) || FileExists(ManifestPath(sequence));
    });
    return sequences;
}

std::string Chain::ManifestIsGone(std::uint64_t sequence) const
{
    return fmt::format("{} is missing, and the success of this backup was reported: put the file back",
                       ToUtf8(ManifestPath(sequence)));
}

// A run that ended leaves its folder behind the last backup, since the next run removes it or takes a higher number. A
// folder before that, or one whose success was reported, was a backup, and may be one again once its manifest is back.
void Chain::RemoveUnfinished() const
{
    const std::vector<std::uint64_t> backups = Backups();
    const std::uint64_t last = backups.empty() ? 0 : backups.back();
    for (const std::uint64_t sequence : Folders()) {
        if (sequence > last && !WasReported(sequence))
            RemoveFolderWithFiles(BackupFolder(sequence), {L"manifest.json.tmp", L"index.bin", L"data.bin"});
    }
}

void Chain::Create() const
{
    MakeFolders(m_folder);
    const std::wstring path = Join(m_folder, CHAIN_FILE);
    if (!FileExists(path))
        WriteSmallFileDurably(path,
                              json{{"application", m_application}, {"volume", ToUtf8(m_volume.guid)}}.dump(2) + "\n");
}

Repository Repository::Open(const std::wstring& folder)
{
    const std::wstring root = AbsolutePath(folder);
    const std::wstring path = Join(root, REPOSITORY_FILE);
    if (!FileExists(path))
        throw Failure(Exit::NotFound,
                      fmt::format("{} holds no repository; make one with \"vtbackup init\"", ToUtf8(folder)));
    const json content = ReadJson(path);
    if (TextMember(content, "format", path) != "vtbackup-repository" || content.value("version", json()) != 1)
        throw Failure(Exit::Damaged, fmt::format("{} is of an unknown format", ToUtf8(path)));
    const std::string id = TextMember(content, "id", path);
    if (id.empty())
        throw Failure(Exit::Damaged, fmt::format("{} is damaged: its id is empty", ToUtf8(path)));
    return Repository(root, id);
}

Repository Repository::Create(const std::wstring& folder)
{
    const std::wstring root = AbsolutePath(folder);
    const std::wstring path = Join(root, REPOSITORY_FILE);
    if (FileExists(path))
        return Open(folder);
    MakeFolders(root);
    for (const FolderEntry& entry : ListFolder(root)) {
        // Our own temporary file is what an interrupted init leaves.
        if (entry.name != std::wstring(REPOSITORY_FILE) + L".tmp")
            throw Failure(Exit::Repository, fmt::format("{} is not empty and holds no repository", ToUtf8(folder)));
    }
    WriteSmallFileDurably(path,
                          json{{"format", "vtbackup-repository"}, {"version", 1}, {"id", RandomId()}}.dump(2) + "\n");
    return Open(folder);
}

Chain Repository::ChainOf(std::wstring_view application, const VolumeName& volume) const
{
    const std::vector<std::wstring> folders = PlaceOf(application, volume);
    // Through a link, what is written and tidied up would be somebody else's.
    for (const std::wstring& folder : folders) {
        if (IsFolderLink(folder))
            throw Failure(Exit::Repository, LinkProblem(folder));
    }
    return Chain(folders.back(), ToUtf8(application), volume);
}

std::vector<std::wstring> Repository::PlaceOf(std::wstring_view application, const VolumeName& volume) const
{
    const std::wstring chains = Join(m_folder, L"chains");
    const std::wstring owner = Join(chains, FolderNameOf(ToUtf8(application)));
    return {chains, owner, Join(owner, volume.guid)};
}

std::vector<Chain> Repository::Chains(std::wstring_view application, const VolumeName* volume,
                                      std::vector<std::string>& problems) const
{
    std::vector<Chain> chains;
    const std::wstring root = Join(m_folder, L"chains");
    if (IsFolderLink(root)) {
        problems.push_back(LinkProblem(root));
        return chains;
    }
    for (const FolderEntry& owner : ListFolder(root)) {
        if (owner.link)
            problems.push_back(LinkProblem(Join(root, owner.name)));
        if (!owner.folder || owner.link)
            continue;
        for (const FolderEntry& entry : ListFolder(Join(root, owner.name))) {
            if (entry.link)
                problems.push_back(LinkProblem(Join(Join(root, owner.name), entry.name)));
            if (!entry.folder || entry.link)
                continue;
            std::optional<Chain> chain;
            try {
                chain = ChainIn(Join(Join(root, owner.name), entry.name));
            } catch (const Failure& failure) {
                if (failure.Code() != Exit::Damaged)
                    throw;
                problems.emplace_back(failure.what());
            }
            const std::wstring here = Join(Join(root, owner.name), entry.name);
            if (chain && !EqualIgnoringCase(here, PlaceOf(ToWide(chain->Application()), chain->Volume()).back()))
                problems.push_back(
                    fmt::format("{} says that it is the chain of volume {} for \"{}\", which belongs into "
                                "another folder: no backup and no restore finds it there",
                                ToUtf8(here), ToUtf8(chain->Volume().guid), chain->Application()));
            if (!chain || (!application.empty() && ToUtf8(application) != chain->Application()) ||
                (volume != nullptr && !EqualIgnoringCase(volume->guid, chain->Volume().guid)))
                continue;
            chains.push_back(std::move(*chain));
        }
    }
    std::sort(chains.begin(), chains.end(), [](const Chain& a, const Chain& b) { return a.Folder() < b.Folder(); });
    return chains;
}

} // namespace vtbackup
