#include "restore.h"

#include "chain_reader.h"
#include "common/volume_name.h"
#include "failure.h"
#include "file.h"
#include "interrupt.h"
#include "progress.h"
#include "text.h"

#include <fmt/format.h>

#include <algorithm>
#include <vector>

namespace vtbackup {
namespace {

constexpr std::uint64_t WRITE_BYTES = 1024 * 1024;

// Collects neighbouring blocks into one write.
template <class Target>
class Gathered {
public:
    Gathered(Target& target, RestoreResult& result) : m_target(target), m_result(result) {}

    void Add(std::uint64_t offset, const unsigned char* bytes, std::size_t length)
    {
        if (offset != m_offset + m_buffer.size() || m_buffer.size() + length > WRITE_BYTES)
            Write();
        if (m_buffer.empty())
            m_offset = offset;
        m_buffer.insert(m_buffer.end(), bytes, bytes + length);
    }
    void Write()
    {
        if (!m_buffer.empty())
            m_target.WriteAt(m_offset, m_buffer.data(), static_cast<std::uint32_t>(m_buffer.size()));
        m_result.bytesWritten += m_buffer.size();
        m_buffer.clear();
    }

private:
    Target& m_target;
    RestoreResult& m_result;
    std::uint64_t m_offset = 0;
    std::vector<unsigned char> m_buffer;
};

// A file of the volume's length in which only what is not zero takes room, where the file system can do that.
class SparseFile {
public:
    SparseFile(std::wstring path, std::uint64_t length, Existing existing)
        : m_path(std::move(path)), m_existing(existing),
          m_handle(CreateFileW(m_path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                               existing == Existing::Replace ? CREATE_ALWAYS : CREATE_NEW, FILE_ATTRIBUTE_NORMAL,
                               nullptr))
    {
        const DWORD error = m_handle ? 0 : GetLastError();
        if (error == ERROR_FILE_EXISTS)
            throw Failure(Exit::Usage, fmt::format("{} exists already: a restore that was killed left it, unless it is "
                                                   "another file of yours; delete it, or add --overwrite",
                                                   ToUtf8(m_path)));
        if (!m_handle)
            Fail(error);
        DWORD returned = 0;
        DeviceIoControl(m_handle.Get(), FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0, &returned, nullptr);
        try {
            Seek(length);
            if (!SetEndOfFile(m_handle.Get()))
                Fail(GetLastError());
        } catch (...) {
            Discard();
            throw;
        }
    }

    void WriteAt(std::uint64_t offset, const void* bytes, std::uint32_t length)
    {
        Seek(offset);
        DWORD written = 0;
        if (!WriteFile(m_handle.Get(), bytes, length, &written, nullptr))
            Fail(GetLastError());
        if (written != length)
            Fail(ERROR_DISK_FULL);
    }

    void Finish(const std::wstring& name)
    {
        if (!FlushFileBuffers(m_handle.Get()))
            Fail(GetLastError());
        m_handle.Close();
        // What came to be there meanwhile is somebody else's.
        MoveIntoPlace(m_path, name, m_existing);
    }

    void Discard() noexcept
    {
        m_handle.Close();
        DeleteFileW(m_path.c_str());
    }

private:
    void Seek(std::uint64_t offset)
    {
        LARGE_INTEGER place = {};
        place.QuadPart = static_cast<LONGLONG>(offset);
        if (!SetFilePointerEx(m_handle.Get(), place, nullptr, FILE_BEGIN))
            Fail(GetLastError());
    }
    [[noreturn]] void Fail(DWORD error) const
    {
        throw Failure(Exit::Repository, fmt::format("cannot write {}: {}", ToUtf8(m_path), ErrorText(error)));
    }

    std::wstring m_path;
    Existing m_existing;
    Handle m_handle;
};

std::uint64_t StoredBytes(const std::vector<Manifest>& path)
{
    std::uint64_t bytes = 0;
    for (const Manifest& manifest : path)
        bytes += manifest.dataLength;
    return std::min(bytes, path.back().geometry.length);
}

// Walks the chain and hands every block that holds something to visit(block, bytes).
template <class Visit>
void ForEachBlock(const Chain& chain, std::vector<Manifest> path, Visit visit)
{
    Progress progress("restore", StoredBytes(path));
    ChainReader reader(chain, std::move(path));
    const Geometry geometry = reader.Last().geometry;
    std::vector<unsigned char> buffer(geometry.blockSize);
    while (const std::optional<ChainBlock> block = reader.Next()) {
        StopIfInterrupted();
        if (block->zero)
            continue;
        reader.RequireLength(*block);
        reader.Read(*block, buffer.data());
        visit(*block, buffer.data());
        progress.Add(block->length);
    }
}

void RestoreToFile(const Chain& chain, const std::vector<Manifest>& path, const RestoreRequest& request,
                   RestoreResult& result)
{
    const std::wstring name = AbsolutePath(request.target);
    const Existing existing = request.overwrite ? Existing::Replace : Existing::Refuse;
    if (existing == Existing::Refuse && AnythingExists(name))
        RefuseExisting(request.target);
    const Geometry geometry = path.back().geometry;
    SparseFile file(name + L".partial", geometry.length, existing);
    try {
        Gathered<SparseFile> writes(file, result);
        ForEachBlock(chain, path, [&](const ChainBlock& block, const unsigned char* bytes) {
            writes.Add(block.block * geometry.blockSize, bytes, block.length);
        });
        writes.Write();
        file.Finish(name);
    } catch (...) {
        file.Discard();
        throw;
    }
}

// Fills what the backup has no block for with zeros, where the volume may hold something else.
class ZeroFill {
public:
    ZeroFill(const Volume& volume, Geometry geometry, Gathered<const Volume>& writes)
        : m_geometry(geometry), m_writes(writes), m_walk(volume, geometry), m_zeros(geometry.blockSize)
    {
        m_run = m_walk.Next();
    }

    // Everything from the last call's block to just before this one is zero in the backup.
    void UpTo(std::uint64_t block)
    {
        while (m_run && m_next < block) {
            if (m_run->end <= m_next) {
                m_run = m_walk.Next();
                continue;
            }
            m_next = std::max(m_next, m_run->begin);
            if (m_next >= block)
                break;
            StopIfInterrupted();
            m_writes.Add(m_next * m_geometry.blockSize, m_zeros.data(), m_geometry.BytesOf(m_next));
            ++m_next;
        }
        m_next = std::max(m_next, block + 1);
    }

private:
    Geometry m_geometry;
    Gathered<const Volume>& m_writes;
    AllocatedWalk m_walk;
    std::vector<unsigned char> m_zeros;
    std::optional<BlockRun> m_run;
    std::uint64_t m_next = 0; // everything before it is done
};

// Where the system does not say on which volume the folder is, nobody is refused.
bool IsOn(const VolumeName& volume, const std::wstring& folder)
{
    wchar_t root[MAX_PATH + 1] = {};
    if (!GetVolumePathNameW(folder.c_str(), root, MAX_PATH))
        return false;
    std::wstring_view mount = root;
    if (mount.starts_with(L"\\\\?\\"))
        mount.remove_prefix(4);
    return toolkit::IsMountedAt(volume.Path(), mount);
}

void RestoreToVolume(const Machine& machine, const Repository& repository, const Chain& chain,
                     const std::vector<Manifest>& path, const VolumeName& target, RestoreResult& result)
{
    if (IsOn(target, repository.Folder()))
        throw Failure(Exit::Usage, fmt::format("the repository lies on volume {}, which would be written over",
                                               ToUtf8(target.guid)));
    // A backup in the meantime would store a volume that is half one thing and half another.
    const Lock lock(machine.Locks().Volume(target.guid), {ToWide(chain.Application()), target.guid, L"restore"},
                    fmt::format("volume {}", ToUtf8(target.guid)));
    const Volume volume(target.Device(), Volume::Access::ReadWrite, machine.Simulated());
    const Geometry geometry = path.back().geometry;
    if (volume.Length() < geometry.length)
        throw Failure(Exit::Usage, fmt::format("volume {} has {} bytes, the backup needs {}", ToUtf8(target.guid),
                                               volume.Length(), geometry.length));
    // Everything that can be checked without writing is checked before the first write.
    {
        const ChainReader check(chain, path);
    }
    try {
        Gathered<const Volume> writes(volume, result);
        ZeroFill zeros(volume, geometry, writes);
        ForEachBlock(chain, path, [&](const ChainBlock& block, const unsigned char* bytes) {
            zeros.UpTo(block.block);
            writes.Add(block.block * geometry.blockSize, bytes, block.length);
        });
        zeros.UpTo(geometry.Blocks());
        writes.Write();
        volume.Flush();
    } catch (const Failure& failure) {
        throw Failure(failure.Code(),
                      fmt::format("{} (volume {} is now partly restored)", failure.what(), ToUtf8(target.guid)));
    }
}

} // namespace

RestoreResult Restore(const Machine& machine, const Repository& repository, const Chain& chain,
                      const RestoreRequest& request)
{
    RestoreResult result;
    result.sequence = request.sequence;
    if (result.sequence == 0) {
        const std::vector<std::uint64_t> backups = chain.Backups();
        const std::vector<std::uint64_t> gone = chain.WithoutManifest();
        // Whoever asks for the latest must not get an older one without a word.
        if (!gone.empty() && (backups.empty() || gone.back() > backups.back()))
            throw Failure(Exit::Damaged, chain.ManifestIsGone(gone.back()) + ", or choose an older one with --backup");
        if (backups.empty())
            throw Failure(Exit::NotFound, fmt::format("there is no backup of volume {} for application \"{}\"",
                                                      ToUtf8(chain.Volume().guid), chain.Application()));
        result.sequence = backups.back();
    }
    const std::vector<Manifest> path = chain.PathTo(result.sequence);
    result.volumeLength = path.back().geometry.length;
    result.ontoVolume = ParseVolumeName(request.target).has_value();
    if (result.ontoVolume)
        RestoreToVolume(machine, repository, chain, path, ResolveVolumeName(request.target), result);
    else
        RestoreToFile(chain, path, request, result);
    return result;
}

} // namespace vtbackup
