#include "bitmap_selection.h"

#include "library.h"
#include "output.h"

#include <fmt/format.h>

#include <algorithm>

namespace vtfltctl::bitmap {
namespace {

constexpr std::uint64_t LARGEST_VOLUME = std::uint64_t{1} << 62;
// As many bits as a bitmap file can have. Of more blocks, all but a few would be walked through for nothing.
constexpr std::uint64_t MOST_BLOCKS = std::uint64_t{1} << 35;

// 0, which stands for unknown, for a volume that cannot be counted in blocks of this size.
std::uint64_t CountableBytes(const Geometry& geometry) noexcept
{
    return geometry.blockSize != 0 && geometry.VolumeBlocks() <= MOST_BLOCKS ? geometry.volumeBytes : 0;
}

std::uint32_t BlockSizeOption(const std::string& text)
{
    const std::uint64_t size = SizeOption("--block-size", text);
    if (size == 0 || size > UINT32_MAX)
        throw Failure(Exit::Usage, fmt::format("--block-size: {} is no block size", text));
    return static_cast<std::uint32_t>(size);
}

// Whether the file is to be read as a dump: because it was said, or because its name says so and its content does not
// contradict.
Kind KindOf(Opened& opened, const SelectionOptions& options)
{
    if (options.dump)
        return Kind::Dump;
    return IsDump(opened.name.role) && !BeginsLikeRecord(*opened.bytes) ? Kind::Dump : Kind::Record;
}

// A dump does not say its block size; the same application's bitmap files beside it do.
std::uint32_t BlockSizeBeside(const Opened& dump)
{
    const std::size_t folderEnd = dump.path.find_last_of(L"\\/") + 1; // 0 when there is no folder
    for (const wchar_t* start : {L"VelVolTrc_base_", L"VelVolTrc_child_"}) {
        const std::wstring path = dump.path.substr(0, folderEnd) + start + ToWide(dump.name.application) + L".dat";
        const std::unique_ptr<ByteSource> file = OpenFileIfThere(path);
        if (file == nullptr)
            continue;
        const FileFacts facts = Inspect(*file, Kind::Record);
        if (VerdictOf(facts) <= Verdict::Doubtful && !facts.Has(Flaw::BlockSizeInvalid))
            return facts.blockSize;
    }
    return 0;
}

void LookAt(Opened& opened, const SelectionOptions& options)
{
    const Kind kind = KindOf(opened, options);
    opened.facts = Inspect(*opened.bytes, kind, options.leadBytes);
    opened.geometry.blockSize = opened.facts.blockSize;
    if (kind == Kind::Dump)
        opened.geometry.blockSize = !options.blockSize.empty() ? BlockSizeOption(options.blockSize)
                                    : IsDump(opened.name.role) ? BlockSizeBeside(opened)
                                                               : 0;
    else if (!options.blockSize.empty())
        throw Failure(Exit::Usage, fmt::format("--block-size is for dumps: {} has its own", Shown(opened.path)));
    if (!options.volumeSize.empty()) {
        opened.geometry.volumeBytes = SizeOption("--volume-size", options.volumeSize);
        if (opened.geometry.volumeBytes > LARGEST_VOLUME)
            throw Failure(Exit::Usage, fmt::format("--volume-size: {} is no volume's size", options.volumeSize));
        if (opened.geometry.blockSize != 0 && opened.geometry.VolumeBlocks() > MOST_BLOCKS)
            throw Failure(Exit::Usage, fmt::format("--volume-size: no bitmap file has room for {} in blocks of {}",
                                                   options.volumeSize, SizeText(opened.geometry.blockSize)));
    }
    opened.geometry.volumeBytes = CountableBytes(opened.geometry);
}

Selection SelectFile(const SelectionOptions& options)
{
    Selection selection;
    selection.files.push_back(OpenPath(options.file, options));
    const Opened& file = selection.files.front();
    selection.title = file.Title();
    selection.source = options.file;
    selection.geometry = file.geometry;
    selection.application = file.name.application;
    return selection;
}

// A volume's geometry goes to its files; what does not fit is a flaw of theirs.
void HoldAgainstVolume(Selection& selection, const Geometry& volume)
{
    selection.geometry = volume;
    for (Opened& file : selection.files) {
        if (file.bytes == nullptr || file.facts.bitmapLength == 0)
            continue;
        if (volume.blockSize != 0 && volume.volumeBytes != 0) {
            const std::vector<Flaw> misfits = Misfits(file.facts, volume.volumeBytes, volume.blockSize);
            file.facts.flaws.insert(file.facts.flaws.end(), misfits.begin(), misfits.end());
        }
        // Where the two differ, the file's own block size is the one that its bits have.
        selection.geometry.blockSize = file.facts.blockSize;
    }
    selection.geometry.volumeBytes = CountableBytes(selection.geometry);
    for (Opened& file : selection.files) {
        file.geometry = {file.facts.blockSize, volume.volumeBytes};
        file.geometry.volumeBytes = CountableBytes(file.geometry);
    }
}

Selection SelectVolume(const SelectionOptions& options)
{
    const VolumeName volume = FindVolumeByName(ToWide(options.volume));
    const std::wstring application = ToWide(options.application);
    // IDs that differ in case alone would share their files, so a file that is there says nothing yet.
    RequireRegistered(application);
    Selection selection;
    selection.volume = ToUtf8(volume.path);
    selection.application = options.application;
    selection.source = selection.volume;
    for (const bool base : {true, false}) {
        if (options.which != "both" && (options.which == "base") != base)
            continue;
        Opened file;
        file.path = BitmapPath(volume, application, base);
        file.name.role = base ? Role::Base : Role::Child;
        file.name.application = options.application;
        file.bytes = OpenFileIfThere(file.path);
        if (file.bytes != nullptr)
            Reading(ToUtf8(file.path), [&] { file.facts = Inspect(*file.bytes, Kind::Record, options.leadBytes); });
        selection.files.push_back(std::move(file));
    }
    HoldAgainstVolume(selection, QueryGeometry(volume));
    const char* const what = options.which == "both" ? "Base and child" : options.which == "base" ? "Base" : "Child";
    selection.title = fmt::format("{} bitmap of {}", what, Quoted(application));
    return selection;
}

} // namespace

std::string Opened::Title() const
{
    if (name.role == Role::Unknown)
        return facts.kind == Kind::Dump ? "Dump" : "Bitmap";
    std::string title(RoleText(name.role));
    title[0] = static_cast<char>(title[0] - 'a' + 'A');
    title += fmt::format(", application {}", Quoted(ToWide(name.application)));
    return name.taken.empty() ? title : title + ", " + name.taken;
}

std::uint64_t Opened::Blocks() const noexcept
{
    return geometry.volumeBytes != 0 ? geometry.VolumeBlocks() : facts.Blocks();
}

Opened OpenPath(const std::string& path, const SelectionOptions& options)
{
    Opened opened;
    opened.path = ToWide(path);
    opened.name = ParseBitmapName(path);
    opened.bytes = OpenFile(opened.path);
    Reading(path, [&] { LookAt(opened, options); });
    return opened;
}

bool Selection::Missing() const noexcept
{
    return std::any_of(files.begin(), files.end(), [](const Opened& file) { return file.bytes == nullptr; });
}

Verdict Selection::Worst() const noexcept
{
    Verdict worst = Verdict::Sound;
    for (const Opened& file : files) {
        if (file.bytes != nullptr)
            worst = std::max(worst, VerdictOf(file.facts));
    }
    return worst;
}

std::uint64_t Selection::HeldBlocks() const noexcept
{
    std::uint64_t held = UINT64_MAX;
    for (const Opened& file : files) {
        if (file.bytes != nullptr && file.facts.missingBytes != 0)
            held = std::min(held, file.facts.heldBytes * 8);
    }
    return held;
}

Selection Select(const SelectionOptions& options)
{
    if (!options.volume.empty() || !options.application.empty()) {
        if (options.dump || !options.blockSize.empty() || !options.volumeSize.empty())
            throw Failure(Exit::Usage, "--dump, --block-size and --volume-size are for files, not for --volume");
        return SelectVolume(options);
    }
    if (options.file.empty())
        throw Failure(Exit::Usage, "name a FILE, or a volume and an application with --volume and --app");
    return SelectFile(options);
}

SelectedBits::SelectedBits(Selection& selection)
{
    std::uint32_t blockSize = 0;
    for (Opened& file : selection.files) {
        if (file.bytes == nullptr || !file.facts.Readable())
            continue;
        if (!m_sources.empty() && file.facts.blockSize != blockSize)
            throw Failure(Exit::Damaged, "base and child bitmap have different block sizes and cannot be shown as one; "
                                         "choose with --which");
        blockSize = file.facts.blockSize;
        m_sources.push_back(std::make_unique<FileBits>(*file.bytes, file.facts, file.Blocks()));
    }
    if (m_sources.empty() && selection.Missing())
        throw Failure(Exit::VerifyRequired,
                      fmt::format("there is no bitmap of {} on {}: its next backup of the volume must verify",
                                  Quoted(ToWide(selection.application)), selection.volume));
    if (m_sources.empty())
        throw Failure(Exit::Damaged, fmt::format("{} holds no bitmap", Shown(ToWide(selection.source))));
    if (m_sources.size() == 2)
        m_sources.push_back(std::make_unique<CombinedBits>(*m_sources[0], *m_sources[1], CombinedBits::Rule::Either));
}

BitSource& SelectedBits::Bits() noexcept
{
    return *m_sources.back();
}

std::uint64_t SizeOption(const char* name, const std::string& text)
{
    const std::optional<std::uint64_t> size = ParseSize(text);
    if (!size)
        throw Failure(Exit::Usage,
                      fmt::format("{}: {} is no size; write a number of bytes, or one with K, M, G, T or P", name,
                                  Quoted(ToWide(text))));
    return *size;
}

Exit ExitOf(const Selection& selection) noexcept
{
    if (selection.Worst() != Verdict::Sound)
        return Exit::Damaged;
    return selection.Missing() ? Exit::VerifyRequired : Exit::Ok;
}

void WarnOfFlaws(const Selection& selection)
{
    for (const Opened& file : selection.files) {
        if (file.bytes == nullptr) {
            Diagnose(fmt::format("{} is missing: the next backup must verify", Shown(file.path)));
            continue;
        }
        for (const Flaw flaw : file.facts.flaws)
            Diagnose(fmt::format("{}: {}", Shown(file.path), FlawText(flaw, file.facts)));
    }
}

} // namespace vtfltctl::bitmap
