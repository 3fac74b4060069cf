#include "support/machine_test.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

namespace vttest {

namespace {

constexpr std::size_t BITMAP_AT = 84;

void RequireTrue(bool held, const char* what)
{
    if (!held)
        throw vtfltsim::SimError(what, GetLastError());
}

bool IsCallOfTheLog(const std::wstring& call)
{
    static constexpr std::wstring_view CALLS[] = {
        L"WaitForSingleObject |5000", // the configuration's mutex, the file's mutex
        L"ReleaseMutex",
        L"GetFileSizeEx",
        L"SetFilePointerEx",
        L"GetLocalTime",
        L"OpenEventW Global\\EVENT_9CF42DA4-ACD1-4F3F-8D6F-31023974A079", // is a viewer there?
    };
    return std::find(std::begin(CALLS), std::end(CALLS), call) != std::end(CALLS) || call.starts_with(L"ReadFile |") ||
           call.starts_with(L"WriteFile |");
}

#if defined(VT_TEST_DLL)
// The shipped DLL logs into a real file, which its first record opens and which then stays open: opened here, it is
// neither a call nor an open file of any case.
void OpenLogFile()
{
    static const DWORD logged = VTFltPrepareForSnapshot(reinterpret_cast<HANDLE>(1));
    RequireTrue(logged == ERROR_INVALID_PARAMETER, "logging a first record");
}
#endif

} // namespace

Bytes TextBytes(const std::wstring& text)
{
    Bytes bytes((text.size() + 1) * sizeof(wchar_t));
    std::memcpy(bytes.data(), text.c_str(), bytes.size());
    return bytes;
}

Bytes MultiStringBytes(const std::vector<std::wstring>& entries)
{
    std::wstring text;
    for (const std::wstring& entry : entries)
        text.append(entry).push_back(L'\0');
    return TextBytes(text);
}

std::uint32_t BitmapFile::Field(std::size_t offset) const
{
    std::uint32_t value = 0;
    if (offset + sizeof(value) <= image.size())
        std::memcpy(&value, image.data() + offset, sizeof(value));
    return value;
}

Bytes BitmapFile::Bitmap() const
{
    const std::size_t end = BITMAP_AT + BitmapLength();
    if (end > image.size())
        return {};
    return Bytes(image.begin() + BITMAP_AT, image.begin() + static_cast<std::ptrdiff_t>(end));
}

std::vector<std::uint64_t> BitmapFile::Blocks() const
{
    return BlocksInBuffer(Bitmap());
}

Bytes MakeBitmapImage(std::uint32_t blockSize, const Bytes& bitmap)
{
    const std::uint32_t length = static_cast<std::uint32_t>(bitmap.size());
    const std::uint32_t size = (length + 4187) & ~0xFFFu;
    Bytes image(size);
    std::memcpy(image.data(), "STCA", 4);
    std::memcpy(image.data() + 8, &blockSize, 4);
    std::memcpy(image.data() + 12, &length, 4);
    std::memcpy(image.data() + 16, &size, 4);
    if (length > 0)
        std::memcpy(image.data() + BITMAP_AT, bitmap.data(), length);
    std::memcpy(image.data() + size - 4, "ACDE", 4);
    return image;
}

std::vector<std::uint64_t> BlocksInBuffer(const Bytes& buffer)
{
    std::vector<std::uint64_t> blocks;
    for (std::size_t byte = VTFLT_BITMAP_HEADER_BYTES; byte < buffer.size(); ++byte) {
        for (unsigned bit = 0; bit < 8; ++bit) {
            if ((buffer[byte] & (0x80u >> bit)) != 0)
                blocks.push_back((byte - VTFLT_BITMAP_HEADER_BYTES) * 8 + bit);
        }
    }
    return blocks;
}

std::vector<std::wstring> LibraryCalls()
{
    std::vector<std::wstring> calls = vtfltsim::Trace();
    std::erase_if(calls, IsCallOfTheLog);
    return calls;
}

MachineTest::MachineTest()
{
#if defined(VT_TEST_DLL)
    OpenLogFile();
    machine.Attach(L"VTFltMgr.dll");
#endif
    // The program itself too: linked tests have the library in it, and all open simulated volumes.
    machine.AttachProgram();
    log.Clear();
}

void MachineTest::TearDown()
{
    VTFltSimClearCallFaults();
    ExpectNothingLeftOpen();
    machine.Detach();
}

void MachineTest::ExpectNothingLeftOpen() const
{
    std::string lines;
    for (const std::wstring& line : vtfltsim::LeftOpen())
        lines += "  " + Narrow(line) + "\n";
    EXPECT_TRUE(lines.empty()) << "left open:\n" << lines;
}

vtflt::UniqueHandle MachineTest::OpenVolume(const Volume& volume) const
{
    vtflt::UniqueHandle handle(CreateFileW(volume.Path().c_str(), GENERIC_READ | GENERIC_WRITE,
                                           FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr));
    RequireTrue(handle.valid(), "opening a simulated volume");
    return handle;
}

vtflt::UniqueHandle MachineTest::OpenPath(const std::wstring& path) const
{
    vtflt::UniqueHandle handle(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                           OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    RequireTrue(handle.valid(), "opening a path");
    return handle;
}

std::wstring MachineTest::RealPath(const Volume& volume, const std::wstring& relative) const
{
    return std::wstring(machine.Info(volume).filesDirectory) + L"\\" + relative;
}

DWORD MachineTest::FileAttributes(const Volume& volume, const std::wstring& relative) const
{
    return GetFileAttributesW(RealPath(volume, relative).c_str());
}

bool MachineTest::FileExists(const Volume& volume, const std::wstring& relative) const
{
    return FileAttributes(volume, relative) != INVALID_FILE_ATTRIBUTES;
}

Bytes MachineTest::ReadFileBytes(const Volume& volume, const std::wstring& relative) const
{
    const vtflt::UniqueHandle file(CreateFileW(RealPath(volume, relative).c_str(), GENERIC_READ,
                                               FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr));
    RequireTrue(file.valid(), "opening a file");
    LARGE_INTEGER size = {};
    RequireTrue(GetFileSizeEx(file.get(), &size) != FALSE, "asking for a file's size");
    Bytes bytes(static_cast<std::size_t>(size.QuadPart));
    DWORD read = 0;
    if (!bytes.empty())
        RequireTrue(ReadFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &read, nullptr) != FALSE &&
                        read == bytes.size(),
                    "reading a file");
    return bytes;
}

void MachineTest::WriteFileBytes(const Volume& volume, const std::wstring& relative, const Bytes& bytes) const
{
    const vtflt::UniqueHandle file(CreateFileW(RealPath(volume, relative).c_str(), GENERIC_WRITE, 0, nullptr,
                                               CREATE_ALWAYS, FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM, nullptr));
    RequireTrue(file.valid(), "creating a file");
    DWORD written = 0;
    if (!bytes.empty())
        RequireTrue(WriteFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) != FALSE &&
                        written == bytes.size(),
                    "writing a file");
}

void MachineTest::RemoveFile(const Volume& volume, const std::wstring& relative) const
{
    RequireTrue(DeleteFileW(RealPath(volume, relative).c_str()) != FALSE, "deleting a file");
}

void MachineTest::MakeFolder(const Volume& volume, const std::wstring& relative) const
{
    RequireTrue(CreateDirectoryW(RealPath(volume, relative).c_str(), nullptr) != FALSE, "making a folder");
}

BitmapFile MachineTest::Base(const Volume& volume, const std::wstring& appId) const
{
    if (!FileExists(volume, BaseName(appId)))
        return {};
    return {true, ReadFileBytes(volume, BaseName(appId))};
}

BitmapFile MachineTest::Child(const Volume& volume, const std::wstring& appId) const
{
    if (!FileExists(volume, ChildName(appId)))
        return {};
    return {true, ReadFileBytes(volume, ChildName(appId))};
}

std::vector<std::wstring> MachineTest::List(const std::wstring& key, const std::wstring& value) const
{
    const Bytes bytes = machine.ReadValue(key, value);
    std::vector<std::wstring> entries;
    std::wstring entry;
    for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) {
        const wchar_t character = static_cast<wchar_t>(bytes[i] | (bytes[i + 1] << 8));
        if (character != L'\0') {
            entry.push_back(character);
            continue;
        }
        if (entry.empty())
            break;
        entries.push_back(std::move(entry));
        entry.clear();
    }
    return entries;
}

void MachineTest::SetList(const std::wstring& key, const std::wstring& value, const std::vector<std::wstring>& entries)
{
    machine.WriteValue(key, value, REG_MULTI_SZ, MultiStringBytes(entries));
}

bool MachineTest::ValueExists(const std::wstring& key, const std::wstring& value) const
{
    DWORD type = 0;
    const Bytes bytes = machine.ReadValue(key, value, &type);
    return type != 0 || !bytes.empty();
}

void MachineTest::DeleteValue(const std::wstring& key, const std::wstring& value)
{
    vtflt::UniqueKey opened;
    vtfltsim::Check("VTFltSimOpenKey",
                    VTFltSimOpenKey(machine.handle(), key.c_str(), KEY_READ | KEY_WRITE, opened.put()));
    vtfltsim::Check("RegDeleteValueW", static_cast<DWORD>(RegDeleteValueW(opened.get(), value.c_str())));
}

void MachineTest::SetDword(const std::wstring& key, const std::wstring& value, DWORD number)
{
    Bytes bytes(sizeof(number));
    std::memcpy(bytes.data(), &number, sizeof(number));
    machine.WriteValue(key, value, REG_DWORD, bytes);
}

std::vector<DWORD> MachineTest::RequestCodes()
{
    std::vector<DWORD> codes;
    for (const VTFLTSIM_REQUEST& request : vtfltsim::Requests())
        codes.push_back(request.code);
    return codes;
}

Session::Session(vtflt::UniqueHandle volume, std::wstring volumeName, std::wstring appId)
    : m_volume(std::move(volume)), m_volumeName(std::move(volumeName)), m_appId(std::move(appId))
{
}

Session::~Session()
{
    if (m_initialised)
        VTFltDeinitBitmapManager(Handle());
}

DWORD Session::Init()
{
    const DWORD result = VTFltInitBitmapManager(Handle(), m_volumeName.c_str(), m_appId.c_str());
    m_initialised = m_initialised || result == 0;
    return result;
}

DWORD Session::Deinit()
{
    const DWORD result = VTFltDeinitBitmapManager(Handle());
    m_initialised = m_initialised && result != 0;
    return result;
}

DWORD Session::GetBitmap()
{
    DWORD result = GetBitmap(VTFLT_BITMAP_HEADER_BYTES);
    if (result == ERROR_MORE_DATA || result == ERROR_INSUFFICIENT_BUFFER)
        result = GetBitmap(m_size);
    return result;
}

DWORD Session::GetBitmap(DWORD length)
{
    m_buffer.assign(length, 0);
    m_size = 0;
    BYTE input = 0;
    BYTE nothing = 0;
    return VTFltGetBitmap(Handle(), &input, 0, length > 0 ? m_buffer.data() : &nothing, length, &m_size, 0);
}

DWORD Session::SyncChanges(Bytes changes)
{
    BYTE nothing = 0;
    return VTFltSynSnapshotChangeBitmapToVolume(Handle(), changes.empty() ? &nothing : changes.data(),
                                                static_cast<DWORD>(changes.size()));
}

} // namespace vttest
