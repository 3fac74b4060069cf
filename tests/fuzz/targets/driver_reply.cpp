// A whole fetch with a driver that answers anything, over bitmap files and lists that hold anything, and perhaps up to
// four calls of the system in a row that fail. Whatever they say, no change is lost: the driver is told to forget only
// what the bitmap files then hold, or the application has to verify.
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
constexpr wchar_t VOLUME_NAME[] = L"Volume{11111111-2222-3333-4444-555555555555}";
// Another volume, as the verify lists name it.
constexpr wchar_t OTHER_VOLUME[] = L"{22222222-2222-3333-4444-555555555555}";
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

std::wstring VerifyList(const wchar_t* application)
{
    return L"DeviceListForReSync" + std::wstring(application) + L".Last";
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

void PutValue(Input& input, const std::wstring& name)
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

// The entries of the application's list; none of them when there is no list, nothing when it cannot be read.
std::optional<std::vector<std::wstring>> VerifyListEntries(const wchar_t* application)
{
    std::vector<std::wstring> entries;
    const auto found = TheSystem().values.find(VerifyList(application));
    if (found == TheSystem().values.end())
        return entries;
    const FileBytes& bytes = found->second.bytes;
    std::wstring text;
    for (std::size_t i = 0; i + 1 < bytes.size(); i += 2)
        text.push_back(static_cast<wchar_t>(bytes[i] | bytes[i + 1] << 8));
    const bool isEnded = text.size() >= 2 && text.back() == 0 && text[text.size() - 2] == 0;
    if (found->second.type != REG_MULTI_SZ || bytes.size() % 2 != 0 || !isEnded)
        return std::nullopt;
    for (std::size_t at = 0; text[at] != 0; at += entries.back().size() + 1)
        entries.emplace_back(text.c_str() + at);
    return entries;
}

// What the application is told of its list: an entry that is a part of the volume's name marks it, and so does a list that
// cannot be read, for doubt means verify.
bool IsOnVerifyList(const wchar_t* application)
{
    const auto entries = VerifyListEntries(application);
    return !entries || std::any_of(entries->begin(), entries->end(), [](const std::wstring& entry) {
        return std::wstring_view(VOLUME_NAME).find(entry) != std::wstring_view::npos;
    });
}

// How the other volume stands on a list that is well-formed.
struct OtherMark {
    bool isThere = false;
    bool isAlone = false; // no other entry has its name in it, which would say the same
};

OtherMark FindOtherMark(const wchar_t* application)
{
    const auto entries = VerifyListEntries(application);
    if (!entries)
        return {};
    const auto holding = std::count_if(entries->begin(), entries->end(), [](const std::wstring& entry) {
        return entry.find(OTHER_VOLUME) != std::wstring::npos;
    });
    return {std::find(entries->begin(), entries->end(), OTHER_VOLUME) != entries->end(), holding == 1};
}

bool HasAll(const FileBytes& kept, const FileBytes& owed)
{
    for (std::size_t i = 0; i < owed.size(); ++i) {
        if ((owed[i] & ~(i < kept.size() ? kept[i] : 0)) != 0)
            return false;
    }
    return true;
}

FileBytes Both(FileBytes a, const FileBytes& b)
{
    a.resize(std::max(a.size(), b.size()));
    std::transform(b.begin(), b.end(), a.begin(), a.begin(),
                   [](std::uint8_t left, std::uint8_t right) { return static_cast<std::uint8_t>(left | right); });
    return a;
}

// What an application has of the volume: bits, as many bytes of them as matter, and whether it is told to verify, or gets
// no bitmap.
struct Kept {
    Kept(const wchar_t* application, std::size_t bytes)
        : base(Path(L"base", application)), child(Path(L"child", application)), baseBits(BitsOf(base, bytes)),
          childBits(BitsOf(child, bytes)), isBaseUsable(RecordIn(base) != nullptr),
          isChildUsable(RecordIn(child) != nullptr), isMarked(IsOnVerifyList(application)),
          mustVerify(isMarked || !isBaseUsable || !isChildUsable)
    {
    }
    [[nodiscard]] FileBytes Owed() const { return Both(baseBits, childBits); }

    std::wstring base;
    std::wstring child;
    FileBytes baseBits;
    FileBytes childBits;
    bool isBaseUsable;
    bool isChildUsable;
    bool isMarked;
    bool mustVerify;
};

bool IsAsBefore(const System& before)
{
    return TheSystem().files == before.files && TheSystem().values == before.values;
}

bool IsFileAsBefore(const System& before, const std::wstring& path)
{
    const auto was = before.files.find(path);
    const auto is = TheSystem().files.find(path);
    return was == before.files.end() ? is == TheSystem().files.end()
                                     : is != TheSystem().files.end() && is->second == was->second;
}

bool IsOthersListAsBefore(const System& before)
{
    const auto list = [](const System& system) {
        const auto found = system.values.find(VerifyList(L"Other"));
        return found != system.values.end() ? std::optional(found->second) : std::nullopt;
    };
    return list(TheSystem()) == list(before);
}

// What works for one application touches nothing of the other one.
bool IsOtherAsBefore(const System& before)
{
    return IsOthersListAsBefore(before) && IsFileAsBefore(before, Path(L"base", L"Other")) &&
           IsFileAsBefore(before, Path(L"child", L"Other"));
}

// What an application was owed is in its files, or it verifies; and once it has to verify, it has to until it reports
// success, for nobody knows what an unusable file held.
void CheckKept(const Kept& before, const Kept& after)
{
    FUZZ_HOLDS(after.mustVerify || (!before.mustVerify && HasAll(after.Owed(), before.Owed())));
}

// What must be true of the one that fetched and of the other one, once the driver has forgotten.
void CheckForgotten(const Machine& machine, const Kept& before, const Kept& otherBefore, DWORD result)
{
    const std::size_t length = machine.handed.size();
    const Kept after(L"App", length);
    FUZZ_HOLDS(machine.delivered);
    FUZZ_HOLDS(result == ERROR_SUCCESS || result == vtflt::BM_ERR_VERIFY_REQUIRED);
    if (result == ERROR_SUCCESS)
        FUZZ_HOLDS(after.isBaseUsable && HasAll(after.baseBits, Both(before.Owed(), machine.handed)));
    else
        FUZZ_HOLDS(after.isMarked);

    // The other one's child takes the changes, too, if it can be read.
    if (otherBefore.isChildUsable)
        FUZZ_HOLDS(HasAll(Kept(L"Other", length).childBits, Both(otherBefore.childBits, machine.handed)));
}

void Fetch(Input& input, Machine& machine, HANDLE volume)
{
    const std::size_t length = input.Take<std::uint16_t>() % LONGEST_BITMAP;
    // Exactly so large, so that a byte more is seen.
    const std::unique_ptr<std::uint8_t[]> buffer(new std::uint8_t[length]());
    const DWORD direct = input.Byte() == 0xFF ? 1 : 0;
    std::uint8_t query = 0;
    DWORD size = 0;
    const System systemBefore = TheSystem();
    const Kept before(L"App", length); // what lies behind belongs to no block
    const Kept otherBefore(L"Other", length);
    const DWORD result = VTFltGetBitmap(volume, &query, 1, buffer.get(), static_cast<DWORD>(length), &size, direct);
    if (direct != 0) {
        FUZZ_HOLDS(result == machine.errors[0] && !machine.forgotten && IsAsBefore(systemBefore));
        return;
    }
    CheckKept(before, Kept(L"App", length));
    CheckKept(otherBefore, Kept(L"Other", length));
    FUZZ_HOLDS(IsFileAsBefore(systemBefore, otherBefore.base) && IsOthersListAsBefore(systemBefore));
    if (machine.forgotten)
        CheckForgotten(machine, before, otherBefore, result);
    else // the driver still has what is new
        FUZZ_HOLDS(result != ERROR_SUCCESS && result != vtflt::BM_ERR_VERIFY_REQUIRED);
    if (!machine.delivered)
        FUZZ_HOLDS(IsAsBefore(systemBefore));
    if (result == vtflt::BM_ERR_VERIFY_REQUIRED)
        FUZZ_HOLDS(size <= length);
    if (result != ERROR_SUCCESS)
        return;
    FUZZ_HOLDS(size == length && before.isBaseUsable && before.isChildUsable);
    // The bitmap that was handed out has every change in it, but for the header.
    const FileBytes owed = Both(before.Owed(), machine.handed);
    for (std::size_t i = vtflt::BITMAP_HEADER_BYTES; i < owed.size(); ++i)
        FUZZ_HOLDS((owed[i] & ~buffer[i]) == 0);
}

void HandBack(Input& input, HANDLE volume)
{
    FileBytes changes = input.Bytes(input.Byte());
    changes.reserve(1); // a null pointer is refused
    const System systemBefore = TheSystem();
    const Kept before(L"App", LONGEST_BITMAP);
    const auto child = RecordIn(before.child);
    const DWORD result =
        VTFltSynSnapshotChangeBitmapToVolume(volume, changes.data(), static_cast<DWORD>(changes.size()));
    const Kept after(L"App", LONGEST_BITMAP);
    CheckKept(before, after);
    FUZZ_HOLDS(after.isMarked || !before.isMarked);
    FUZZ_HOLDS(IsOtherAsBefore(systemBefore));
    if (result == ERROR_SUCCESS) {
        FUZZ_HOLDS(child != nullptr);
        // What is shorter than the child is ignored, and what lies behind the child belongs to no block.
        changes.resize(changes.size() < child->BitmapLength() ? 0 : child->BitmapLength());
        FUZZ_HOLDS(HasAll(after.childBits, Both(before.childBits, changes)));
        return;
    }
    // What was not taken has the volume on the verify list, for as long as the list could be written. It was put there
    // before anything was tried, so one failure alone does not change that; only without the volume's mutex nothing was
    // tried.
    if (result == vtflt::BM_ERR_VERIFY_REQUIRED)
        FUZZ_HOLDS(after.isMarked);
    if (TheSystem().failures - systemBefore.failures <= 1)
        FUZZ_HOLDS(after.mustVerify || (result == vtflt::BM_ERR_MUTEX_ACCESS && IsAsBefore(systemBefore)));
}

void ReportSuccess(HANDLE volume)
{
    const System systemBefore = TheSystem();
    const std::wstring path = Path(L"base", L"App");
    const DWORD result = VTFltReplicationSuccess(volume);
    const auto base = RecordIn(path);
    const bool isCleared = base != nullptr && std::all_of(base->Bitmap(), base->Bitmap() + base->HeldBitmapBytes(),
                                                          [](std::uint8_t byte) { return byte == 0; });
    if (result == ERROR_SUCCESS)
        FUZZ_HOLDS(isCleared);
    else
        FUZZ_HOLDS(isCleared || base == nullptr || IsFileAsBefore(systemBefore, path));
    // The child is of the next backup.
    FUZZ_HOLDS(IsFileAsBefore(systemBefore, Path(L"child", L"App")) && IsOtherAsBefore(systemBefore));
}

void AskForBlockSize(const Machine& machine, HANDLE volume)
{
    const System systemBefore = TheSystem();
    DWORD blockSize = 0;
    FUZZ_HOLDS(VTFltGetBlockSize(volume, &blockSize, 0) != ERROR_SUCCESS || blockSize == machine.blockSize);
    FUZZ_HOLDS(IsAsBefore(systemBefore));
}

void Operate(Input& input, Machine& machine, HANDLE volume)
{
    machine.forgotten = false;
    machine.delivered = false;
    const OtherMark markBefore = FindOtherMark(L"App");
    const std::uint8_t operation = input.Byte() % 5;
    if (operation < 2)
        Fetch(input, machine, volume);
    else if (operation == 2)
        HandBack(input, volume);
    else if (operation == 3)
        ReportSuccess(volume);
    else
        AskForBlockSize(machine, volume);
    // Only a fetch has anything that the driver may forget.
    FUZZ_HOLDS(operation < 2 || !machine.forgotten);
    // Other volumes stay on the list.
    FUZZ_HOLDS(FindOtherMark(L"App").isThere || !(markBefore.isThere && markBefore.isAlone));
    // The next fetch brings other changes.
    for (std::uint8_t& bits : machine.bitmap)
        bits = static_cast<std::uint8_t>(bits << 1 | bits >> 7);
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
    system.failingCalls = 1 + (failing >> 6);
    machine.returned = input.Flag() ? input.Take<std::uint32_t>() : 64;
    machine.bitmap = input.ShortBytes();

    for (const wchar_t* application : {L"App", L"Other"}) {
        PutFile(input, Path(L"base", application));
        PutFile(input, Path(L"child", application));
        PutValue(input, VerifyList(application));
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
