#include "oracle.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace vtdemo {
namespace {

constexpr std::uint64_t CHUNK = VTFLTSIM_CHUNK;

void Check(const char* what, DWORD error)
{
    if (error != 0)
        throw std::runtime_error(std::string(what) + " failed with error " + std::to_string(error));
}

DWORD BytesOf(std::uint64_t length, std::uint64_t chunk)
{
    return static_cast<DWORD>(std::min(CHUNK, length - chunk * CHUNK));
}

bool IsZero(const unsigned char* bytes, std::size_t length)
{
    return std::all_of(bytes, bytes + length, [](unsigned char byte) { return byte == 0; });
}

// The chunks of a volume that were ever written; everything else of it is zero.
std::vector<std::uint64_t> AllocatedChunks(VTFLTSIM_MACHINE machine, const wchar_t* volume)
{
    DWORD needed = 0;
    DWORD error = VTFltSimGetBits(machine, volume, VTFLTSIM_BITS_ALLOCATED, nullptr, 0, &needed);
    std::vector<unsigned char> bits(needed);
    if (error == ERROR_MORE_DATA)
        error = VTFltSimGetBits(machine, volume, VTFLTSIM_BITS_ALLOCATED, bits.data(), needed, &needed);
    Check("VTFltSimGetBits", error);
    std::vector<std::uint64_t> chunks;
    for (std::uint64_t byte = 0; byte < bits.size(); ++byte) {
        for (std::uint64_t bit = 0; bits[byte] != 0 && bit < 8; ++bit) {
            if ((bits[byte] & (0x80U >> bit)) != 0)
                chunks.push_back(byte * 8 + bit);
        }
    }
    return chunks;
}

std::string Difference(const unsigned char* expected, const unsigned char* found, std::size_t length,
                       std::uint64_t offset)
{
    if (std::memcmp(expected, found, length) == 0)
        return {};
    std::size_t i = 0;
    while (expected[i] == found[i])
        ++i;
    return "first difference at byte " + std::to_string(offset + i);
}

} // namespace

Contents CopySnapshot(VTFLTSIM_MACHINE machine, DWORD snapshot, const Contents* earlier)
{
    VTFLTSIM_SNAPSHOT_INFO info = {};
    info.size = sizeof(info);
    Check("VTFltSimGetSnapshotInfo", VTFltSimGetSnapshotInfo(machine, snapshot, &info));
    Contents contents;
    contents.length = info.length;
    std::vector<unsigned char> buffer(CHUNK);
    for (const std::uint64_t chunk : AllocatedChunks(machine, info.volumeGuid)) {
        if (chunk * CHUNK >= info.length)
            break;
        const DWORD bytes = BytesOf(info.length, chunk);
        Check("VTFltSimReadSnapshot", VTFltSimReadSnapshot(machine, snapshot, chunk * CHUNK, buffer.data(), bytes));
        if (IsZero(buffer.data(), bytes))
            continue;
        Chunk known;
        if (earlier != nullptr) {
            const auto found = earlier->chunks.find(chunk);
            if (found != earlier->chunks.end() && found->second->size() == bytes &&
                std::memcmp(found->second->data(), buffer.data(), bytes) == 0)
                known = found->second;
        }
        if (!known)
            known = std::make_shared<std::vector<unsigned char>>(buffer.begin(), buffer.begin() + bytes);
        contents.chunks.emplace(chunk, std::move(known));
    }
    return contents;
}

std::string CompareFile(const std::wstring& path, const Contents& expected)
{
    const HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return "the restored file cannot be opened";
    LARGE_INTEGER size = {};
    GetFileSizeEx(file, &size);
    std::string difference;
    if (static_cast<std::uint64_t>(size.QuadPart) != expected.length)
        difference = "the restored file has another length";
    const std::vector<unsigned char> zeros(CHUNK);
    std::vector<unsigned char> buffer(CHUNK);
    for (std::uint64_t chunk = 0; difference.empty() && chunk * CHUNK < expected.length; ++chunk) {
        const DWORD bytes = BytesOf(expected.length, chunk);
        DWORD got = 0;
        if (!ReadFile(file, buffer.data(), bytes, &got, nullptr) || got != bytes)
            difference = "the restored file cannot be read";
        const auto found = expected.chunks.find(chunk);
        const unsigned char* should = found == expected.chunks.end() ? zeros.data() : found->second->data();
        if (difference.empty())
            difference = Difference(should, buffer.data(), bytes, chunk * CHUNK);
    }
    CloseHandle(file);
    return difference;
}

std::string CompareVolume(VTFLTSIM_MACHINE machine, const std::wstring& volume, const Contents& expected)
{
    VTFLTSIM_VOLUME_INFO info = {};
    info.size = sizeof(info);
    Check("VTFltSimGetVolumeInfo", VTFltSimGetVolumeInfo(machine, volume.c_str(), &info));
    if (info.length != expected.length)
        return "the restored volume has another length";
    // What neither side ever wrote is zero on both.
    std::vector<std::uint64_t> chunks = AllocatedChunks(machine, volume.c_str());
    for (const auto& [chunk, bytes] : expected.chunks)
        chunks.push_back(chunk);
    std::sort(chunks.begin(), chunks.end());
    chunks.erase(std::unique(chunks.begin(), chunks.end()), chunks.end());
    const std::vector<unsigned char> zeros(CHUNK);
    std::vector<unsigned char> buffer(CHUNK);
    for (const std::uint64_t chunk : chunks) {
        const DWORD bytes = BytesOf(expected.length, chunk);
        Check("VTFltSimReadVolume", VTFltSimReadVolume(machine, volume.c_str(), chunk * CHUNK, buffer.data(), bytes));
        const auto found = expected.chunks.find(chunk);
        const unsigned char* should = found == expected.chunks.end() ? zeros.data() : found->second->data();
        if (std::string difference = Difference(should, buffer.data(), bytes, chunk * CHUNK); !difference.empty())
            return difference;
    }
    return {};
}

} // namespace vtdemo
