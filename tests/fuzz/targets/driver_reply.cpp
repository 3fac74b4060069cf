// A whole fetch with a driver that answers anything, over bitmap files and lists that hold anything, and perhaps one
// call of the system that fails. Whatever they say, no change is lost: the driver is told to forget only what the
// bitmap files then hold.
#include "apps/volume_name.h"
#include "bitmap/manager.h"
#include "driver/protocol.h"
#include "fuzz/fuzz.h"
#include "fuzz/system.h"
#include "vtfltmgr/VTFltMgr.h"

#include <algorithm>
#include <optional>

namespace fuzz {

namespace {

using vtflt::BitmapRecord;

constexpr wchar_t VOLUME[] = L"\\\\?\\Volume{11111111-2222-3333-4444-555555555555}\\";
constexpr wchar_t GUID_TEXT[] = L"{11111111-2222-3333-4444-555555555555}";
constexpr wchar_t FOLDER[] = L"\\\\?\\Volume{11111111-2222-3333-4444-555555555555}\\VelVolTrc\\VelVolTrc_";
constexpr std::size_t LONGEST_BITMAP = 600;

struct Machine {
    std::int64_t length = 0;
    std::uint32_t blockSize = 0;
    DWORD errors[4] = {}; // of the bitmap, the forgetting, the length, the block size
    FileBytes bitmap;     // what the driver writes into the buffer
    DWORD returned = 0;
    bool forgotten = false;
    bool delivered = false;
    FileBytes handed; // the buffer as the driver left it
};

DWORD Answer(Request& request, void* context)
{
    Machine& machine = *static_cast<Machine*>(context);
    switch (request.code) {
    case vtflt::VTFLTCTL_GET_BITMAP:
        std::copy_n(machine.bitmap.begin(), std::min<std::size_t>(machine.bitmap.size(), request.outputLength),
                    request.output);
        request.returned = machine.returned;
        machine.delivered = machine.errors[0] == ERROR_SUCCESS;
        machine.handed.assign(request.output, request.output + request.outputLength);
        return machine.errors[0];
    case vtflt::VTFLTCTL_REPLICATION_SUCCESS:
        machine.forgotten = machine.errors[1] == ERROR_SUCCESS;
        return machine.errors[1];
    case IOCTL_DISK_GET_LENGTH_INFO:
        if (machine.errors[2] == ERROR_SUCCESS)
            std::memcpy(request.output, &machine.length, sizeof(machine.length));
        return machine.errors[2];
    case vtflt::VTFLTCTL_GET_BLOCK_SIZE:
        std::memcpy(request.output, &machine.blockSize, sizeof(machine.blockSize));
        return machine.errors[3];
    default:
        return ERROR_SUCCESS;
    }
}

std::wstring Path(const wchar_t* kind, const wchar_t* application)
{
    return std::wstring(FOLDER) + kind + L"_" + application + L".dat";
}

// A file as readers take it: its record, or nothing when it is unusable.
std::unique_ptr<BitmapRecord> RecordIn(const std::wstring& path)
{
    const auto found = TheSystem().files.find(path);
    if (found == TheSystem().files.end() || found->second.size() < vtflt::MINIMUM_RECORD_BYTES)
        return nullptr;
    const FileBytes& bytes = found->second;
    std::uint32_t size = 0;
    std::memcpy(&size, bytes.data() + 16, 4);
    if (size > bytes.size())
        return nullptr;
    auto record = BitmapRecord::Allocate(size);
    std::copy_n(bytes.begin(), size, record->Bytes());
    return record->IsValid() ? std::move(record) : nullptr;
}

bool Holds(const std::wstring& path, const FileBytes& bits)
{
    const auto record = RecordIn(path);
    if (record == nullptr)
        return false;
    for (std::size_t i = 0; i < bits.size(); ++i) {
        // What lies behind the bitmap belongs to no block.
        if (i >= record->BitmapLength())
            break;
        if (i < record->HeldBitmapBytes() && (bits[i] & ~record->Bitmap()[i]) != 0)
            return false;
    }
    return true;
}

FileBytes BitsOf(const std::wstring& path, std::size_t most)
{
    const auto record = RecordIn(path);
    if (record == nullptr || most == 0)
        return {};
    FileBytes bits(most);
    bits.resize(record->CopyBitmap(bits.data(), static_cast<std::uint32_t>(most)));
    return bits;
}

void PutFile(Input& input, const std::wstring& path)
{
    const std::uint8_t kind = input.Byte() % 4;
    if (kind == 0)
        return;
    FileBytes& file = TheSystem().files[path];
    if (kind == 1) {
        file = input.ShortBytes();
        return;
    }
    const FileBytes bits = input.ShortBytes();
    const auto record = BitmapRecord::Make(4096, static_cast<std::uint32_t>(bits.size()));
    record->Or(bits.data(), bits.size());
    file.assign(record->Bytes(), record->Bytes() + record->Size());
    if (kind == 2)
        return;
    // A field that says something else.
    const std::size_t at = input.Byte() % 84;
    const auto number = input.Take<std::uint32_t>();
    std::memcpy(file.data() + at, &number, 4);
}

void PutValue(Input& input, const wchar_t* name)
{
    const std::uint8_t kind = input.Byte() % 3;
    if (kind == 0)
        return;
    System::Value& value = TheSystem().values[name];
    value.type = kind == 1 ? REG_MULTI_SZ : input.Byte();
    value.bytes = input.ShortBytes();
    if (kind == 1 && value.bytes.size() % 2 == 0)
        value.bytes.insert(value.bytes.end(), 4, 0);
}

bool IsOnVerifyList(const wchar_t* application)
{
    const auto found = TheSystem().values.find(L"DeviceListForReSync" + std::wstring(application) + L".Last");
    if (found == TheSystem().values.end())
        return false;
    const FileBytes& bytes = found->second.bytes;
    std::wstring text;
    for (std::size_t i = 0; i + 1 < bytes.size(); i += 2)
        text.push_back(static_cast<wchar_t>(bytes[i] | bytes[i + 1] << 8));
    return text.find(GUID_TEXT) != std::wstring::npos;
}

bool HasAll(const FileBytes& kept, const FileBytes& owed)
{
    for (std::size_t i = 0; i < owed.size(); ++i) {
        if ((owed[i] & ~(i < kept.size() ? kept[i] : 0)) != 0)
            return false;
    }
    return true;
}

// What base and child hold, as many bytes as there is room for.
FileBytes OwedTo(const wchar_t* application, std::size_t most)
{
    FileBytes owed = BitsOf(Path(L"base", application), most);
    const FileBytes child = BitsOf(Path(L"child", application), most);
    owed.resize(std::max(owed.size(), child.size()));
    std::transform(child.begin(), child.end(), owed.begin(), owed.begin(),
                   [](std::uint8_t a, std::uint8_t b) { return static_cast<std::uint8_t>(a | b); });
    return owed;
}

// The driver still has what is new; what was in the files before is there, or the application is told.
void CheckNothingForgotten(const FileBytes& owed, const FileBytes& otherOwed, DWORD result)
{
    FUZZ_HOLDS(result != ERROR_SUCCESS);
    for (const wchar_t* application : {L"App", L"Other"}) {
        const bool isOther = application[0] == L'O';
        const FileBytes& before = isOther ? otherOwed : owed;
        const bool isTold = IsOnVerifyList(application) || RecordIn(Path(L"base", application)) == nullptr ||
                            RecordIn(Path(L"child", application)) == nullptr;
        FUZZ_HOLDS(isTold || HasAll(OwedTo(application, before.size()), before));
    }
}

// What must be true once the driver has forgotten.
void CheckNothingLost(const Machine& machine, const FileBytes& owed, bool otherWasUsable, DWORD result)
{
    FUZZ_HOLDS(machine.delivered);
    if (result == ERROR_SUCCESS) {
        FUZZ_HOLDS(Holds(Path(L"base", L"App"), machine.handed));
        FUZZ_HOLDS(Holds(Path(L"base", L"App"), owed));
    } else if (!Holds(Path(L"base", L"App"), machine.handed)) {
        FUZZ_HOLDS(result == vtflt::BM_ERR_VERIFY_REQUIRED);
        FUZZ_HOLDS(IsOnVerifyList(L"App") || RecordIn(Path(L"base", L"App")) == nullptr ||
                   RecordIn(Path(L"child", L"App")) == nullptr);
    }
    if (otherWasUsable)
        FUZZ_HOLDS(Holds(Path(L"child", L"Other"), machine.handed));
}

void Fetch(Input& input, Machine& machine, HANDLE volume)
{
    const std::size_t length = input.Take<std::uint16_t>() % LONGEST_BITMAP;
    // Exactly so large, so that a byte more is seen.
    const std::unique_ptr<std::uint8_t[]> buffer(new std::uint8_t[length]());
    const DWORD direct = input.Byte() == 0xFF ? 1 : 0;
    std::uint8_t query = 0;
    DWORD size = 0;
    machine.forgotten = false;
    machine.delivered = false;
    const FileBytes owed = OwedTo(L"App", length);
    const FileBytes otherOwed = OwedTo(L"Other", length); // what lies behind belongs to no block
    const bool otherIsUsable = RecordIn(Path(L"child", L"Other")) != nullptr;
    const DWORD result = VTFltGetBitmap(volume, &query, 1, buffer.get(), static_cast<DWORD>(length), &size, direct);
    if (direct != 0) {
        FUZZ_HOLDS(result == machine.errors[0] && !machine.forgotten);
        return;
    }
    if (machine.forgotten)
        CheckNothingLost(machine, owed, otherIsUsable, result);
    else
        CheckNothingForgotten(owed, otherOwed, result);
    if (result == ERROR_SUCCESS)
        FUZZ_HOLDS(machine.forgotten && size <= length);
    // The bitmap that was handed out has every change in it, but for the header.
    if (result == ERROR_SUCCESS) {
        for (std::size_t i = vtflt::BITMAP_HEADER_BYTES; i < size; ++i)
            FUZZ_HOLDS((machine.handed[i] & ~buffer[i]) == 0);
    }
}

void Operate(Input& input, Machine& machine, HANDLE volume)
{
    switch (input.Byte() % 5) {
    case 0:
    case 1:
        Fetch(input, machine, volume);
        break;
    case 2: {
        FileBytes changes = input.Bytes(input.Byte());
        changes.reserve(1); // a null pointer is refused
        const FileBytes before = BitsOf(Path(L"child", L"App"), LONGEST_BITMAP);
        const DWORD result =
            VTFltSynSnapshotChangeBitmapToVolume(volume, changes.data(), static_cast<DWORD>(changes.size()));
        if (result == ERROR_SUCCESS)
            FUZZ_HOLDS(Holds(Path(L"child", L"App"), before));
        if (result == ERROR_SUCCESS && changes.size() >= before.size())
            FUZZ_HOLDS(Holds(Path(L"child", L"App"), changes));
        break;
    }
    case 3: {
        const DWORD result = VTFltReplicationSuccess(volume);
        const auto base = RecordIn(Path(L"base", L"App"));
        if (result == ERROR_SUCCESS)
            FUZZ_HOLDS(base != nullptr && std::all_of(base->Bitmap(), base->Bitmap() + base->HeldBitmapBytes(),
                                                      [](std::uint8_t byte) { return byte == 0; }));
        break;
    }
    default: {
        DWORD blockSize = 0;
        FUZZ_HOLDS(VTFltGetBlockSize(volume, &blockSize, 0) != ERROR_SUCCESS || blockSize == machine.blockSize);
        break;
    }
    }
}

} // namespace

void DriverReply(const std::uint8_t* bytes, std::size_t count)
{
    Input input(bytes, count);
    System& system = TheSystem();
    system = {};
    Machine machine;
    system.driver = Answer;
    system.context = &machine;

    static constexpr std::uint32_t SIZES[] = {0, 1, 512, 4096, 65536, 1u << 20, 0x80000000, 0xFFFFFFFF};
    machine.blockSize = SIZES[input.Byte() % 8];
    machine.length = input.Take<std::int64_t>();
    // No larger bitmaps than a moment can fill.
    if (machine.blockSize != 0 && machine.length / machine.blockSize > 20000)
        machine.length = std::int64_t{machine.blockSize} * (machine.length % 20000);
    const std::uint8_t failing = input.Byte();
    for (std::size_t i = 0; i < 4; ++i) {
        static constexpr DWORD ERRORS[] = {ERROR_MORE_DATA, ERROR_INSUFFICIENT_BUFFER, ERROR_ACCESS_DENIED, 0xFFFFFFFF};
        machine.errors[i] = (failing >> i & 1) != 0 ? ERRORS[failing >> 4 & 3] : ERROR_SUCCESS;
    }
    machine.returned = input.Flag() ? input.Take<std::uint32_t>() : 64;
    machine.bitmap = input.ShortBytes();

    for (const wchar_t* application : {L"App", L"Other"}) {
        PutFile(input, Path(L"base", application));
        PutFile(input, Path(L"child", application));
        PutValue(input, (L"DeviceListForReSync" + std::wstring(application) + L".Last").c_str());
    }
    static constexpr wchar_t APPLICATIONS[] = L"App\0Other\0";
    const auto* const stored = reinterpret_cast<const std::uint8_t*>(APPLICATIONS);
    system.values[L"RegisteredAppIDs"].bytes.assign(stored, stored + sizeof(APPLICATIONS));

    const HANDLE volume = &machine;
    FUZZ_HOLDS(VTFltInitBitmapManager(volume, VOLUME, L"App") == ERROR_SUCCESS);
    system.failingCall = input.Byte();
    system.calls = 0;
    for (int operation = 0; operation < 6 && input.Left() > 0; ++operation)
        Operate(input, machine, volume);
    FUZZ_HOLDS(VTFltDeinitBitmapManager(volume) == ERROR_SUCCESS);
    FUZZ_HOLDS(system.openHandles == 0 && system.heldMutexes == 0);
}

} // namespace fuzz
