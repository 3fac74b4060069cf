#include "library.h"

#include "common/registry_value.h"
#include "failure.h"
#include "handle.h"
#include "text.h"

#include <vtfltmgr/VTFltMgr.h>

#include <fcntl.h>
#include <fmt/format.h>
#include <io.h>

#include <cstdio>

namespace vtbackup {
namespace {

constexpr int NEGOTIATIONS = 8;
constexpr int MORE_QUESTIONS = 3;

[[noreturn]] void Fail(const char* what, std::uint32_t result)
{
    throw Failure(result == VTFLT_APP_NOT_REGISTERED || result == VTFLT_NO_APPLICATION ? Exit::Refused : Exit::Device,
                  fmt::format("{} failed: {}", what, ErrorText(result)));
}

// The library asks for the length of the list of applications and then for the list, and holds nothing over both: where
// another program registers an application in between, it says that the list does not fit (234), or could not be read
// (0x10008). The next question finds the longer one. Who never gets an answer learns the last error.
template <class Question>
std::uint32_t AskWhileTheListGrows(const Question& question)
{
    std::uint32_t result = question();
    for (int i = 0; i < MORE_QUESTIONS && (result == ERROR_MORE_DATA || result == VTFLT_APP_LIST_FAILED); ++i)
        result = question();
    return result;
}

// The library prints a line of its own while changes are handed back; standard output belongs to this
// program's data, so the line goes nowhere.
class QuietOutput {
public:
    QuietOutput() : m_saved(_dup(1))
    {
        std::fflush(stdout);
        const int nowhere = _open("NUL", _O_WRONLY);
        if (m_saved >= 0 && nowhere >= 0)
            _dup2(nowhere, 1);
        if (nowhere >= 0)
            _close(nowhere);
    }
    ~QuietOutput()
    {
        std::fflush(stdout);
        if (m_saved >= 0) {
            _dup2(m_saved, 1);
            _close(m_saved);
        }
    }
    QuietOutput(const QuietOutput&) = delete;
    QuietOutput& operator=(const QuietOutput&) = delete;

private:
    int m_saved;
};

} // namespace

std::vector<std::wstring> RegisteredApplications()
{
    std::vector<std::wstring> list;
    const std::uint32_t result = AskWhileTheListGrows([&list] { return VTGetRegisteredAppList(&list); });
    if (result != 0)
        Fail("reading the registered applications", result);
    return list;
}

std::uint32_t ReplicatedVerifyList(const std::wstring& application)
{
    return AskWhileTheListGrows([&] { return VTReplicateVerifyList(application.c_str()); });
}

std::vector<std::uint8_t> StoredMonitoringCount()
{
    return toolkit::ReadRegistryValue(L"SOFTWARE\\Veltrix\\Lumen Protect\\Engine\\VTFltMgr\\"
                                      L"{533C5B84-EC70-11D2-9505-00C04F79DEAF}",
                                      L"SnapshotMonitorCount")
        .bytes;
}

BitmapManager::BitmapManager(const Volume& volume, const VolumeName& name, const std::wstring& application)
    : m_volume(volume)
{
    const std::uint32_t result = AskWhileTheListGrows(
        [&] { return VTFltInitBitmapManager(volume.Get(), name.Path().c_str(), application.c_str()); });
    if (result != 0)
        Fail("VTFltInitBitmapManager", result);
}

BitmapManager::~BitmapManager()
{
    VTFltDeinitBitmapManager(m_volume.Get());
}

std::uint32_t BitmapManager::BlockSize() const
{
    DWORD size = 0;
    if (const DWORD result = VTFltGetBlockSize(m_volume.Get(), &size, 0); result != 0)
        Fail("VTFltGetBlockSize", result);
    if (size == 0 || size > MAX_BLOCK_SIZE)
        Fail("VTFltGetBlockSize", ERROR_INVALID_DATA);
    return size;
}

void BitmapManager::PrepareForSnapshot() const
{
    if (const DWORD result = VTFltPrepareForSnapshot(m_volume.Get()); result != 0)
        Fail("VTFltPrepareForSnapshot", result);
}

std::uint32_t BitmapManager::HandBack(ChangeMap& changes) const
{
    const QuietOutput quiet;
    return VTFltSynSnapshotChangeBitmapToVolume(m_volume.Get(), changes.Data(), changes.Length());
}

std::uint32_t BitmapManager::ReportSuccess() const
{
    return VTFltReplicationSuccess(m_volume.Get());
}

FetchedMap FetchMap(const Volume& device, bool direct)
{
    FetchedMap fetched;
    // The first question is asked with a header's room only: the answer names the exact length. The library
    // merges the whole buffer, so its length is the map's length, and every byte of it starts as zero.
    fetched.map = ChangeMap(ChangeMap::HEADER_BYTES);
    unsigned char input = 0;
    for (int i = 0; i < NEGOTIATIONS; ++i) {
        DWORD size = 0;
        fetched.result =
            VTFltGetBitmap(device.Get(), &input, 0, fetched.map.Data(), fetched.map.Length(), &size, direct ? 1 : 0);
        if (fetched.result != ERROR_MORE_DATA && fetched.result != ERROR_INSUFFICIENT_BUFFER) {
            fetched.whole = size == fetched.map.Length();
            fetched.map.ClearHeader();
            return fetched;
        }
        // The length may change between two questions, when the volume is being resized.
        if (size <= ChangeMap::HEADER_BYTES || size == fetched.map.Length() || size > 0x7FFFFFFFU)
            break;
        fetched.map = ChangeMap(size);
    }
    fetched.whole = false;
    return fetched;
}

std::uint32_t DirectBlockSize(const Volume& device)
{
    DWORD size = 0;
    return VTFltGetBlockSize(device.Get(), &size, 1) == 0 ? size : 0;
}

bool IsTracked(const Volume& device)
{
    DWORD size = 0;
    const DWORD result = VTFltGetBlockSize(device.Get(), &size, 1);
    return result != ERROR_INVALID_FUNCTION && result != ERROR_NOT_SUPPORTED;
}

} // namespace vtbackup
