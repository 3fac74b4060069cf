// The driver's answer to a question about a device, and the arithmetic of a bitmap's header.
#include "driver/protocol.h"
#include "fuzz/fuzz.h"
#include "fuzz/system.h"
#include "vtfltmgr/VTFltMgr.h"

#include <algorithm>

namespace fuzz {

namespace {

struct Answer {
    DWORD error = 0;
    FileBytes bytes;
    std::wstring name;
};

DWORD AnswerQuery(Request& request, void* context)
{
    const auto& answer = *static_cast<const Answer*>(context);
    FUZZ_HOLDS(request.code == vtflt::VTFLTCTL_UPDATE_DEVICE_CONFIG && request.outputLength == 616);
    vtflt::DeviceQueryHeader header = {};
    FUZZ_HOLDS(request.inputLength == 24 + 2 * answer.name.size());
    std::memcpy(&header, request.input, sizeof(header));
    FUZZ_HOLDS(header.HeaderSize == 24 && header.QueryKind == 8 && header.NameOffset == 24);
    FUZZ_HOLDS(header.NameLength == 2 * answer.name.size());
    FUZZ_HOLDS(answer.name.empty() || std::memcmp(request.input + 24, answer.name.data(), header.NameLength) == 0);
    std::copy_n(answer.bytes.begin(), std::min<std::size_t>(answer.bytes.size(), 616), request.output);
    return answer.error;
}

void CheckHeader(Input& input)
{
    const auto h0 = input.Take<std::int64_t>();
    const auto h1 = input.Take<std::int64_t>();
    const std::uint32_t length = vtflt::RequiredBitmapLength(h0, h1);
    FUZZ_HOLDS(length % 8 == 0);
    const auto distance = static_cast<Number128>(h1) - h0;
    if (distance >= 0 && distance < 0xFFFFFF00)
        FUZZ_HOLDS(length == 16 + 8 * ((distance + 7) / 8));

    FileBytes buffer = input.ShortBytes();
    const auto size = static_cast<std::uint32_t>(buffer.size());
    const vtflt::BitmapHeader header = vtflt::ReadBitmapHeader(buffer.data(), size);
    FUZZ_HOLDS(size < 8 ? header.H0 == 0 : std::memcmp(&header.H0, buffer.data(), 8) == 0);
    FUZZ_HOLDS(size < 16 ? header.H1 == 0 : std::memcmp(&header.H1, buffer.data() + 8, 8) == 0);
    const auto bits = input.Take<std::uint32_t>();
    FileBytes stored = buffer;
    vtflt::StoreBitmapBits(stored.data(), size, bits);
    if (size >= 16) {
        const std::uint64_t word = bits;
        std::memcpy(buffer.data() + 8, &word, 8);
    }
    FUZZ_HOLDS(stored == buffer);
}

} // namespace

void DeviceReply(const std::uint8_t* bytes, std::size_t count)
{
    Input input(bytes, count);
    CheckHeader(input);
    Answer answer;
    answer.error = input.Flag() ? input.Take<std::uint16_t>() : ERROR_SUCCESS;
    answer.name = input.Text(input.Byte() % 32);
    answer.name = answer.name.substr(0, answer.name.find(L'\0'));
    answer.bytes = input.Bytes(616);
    System& system = TheSystem();
    system = {};
    system.driver = AnswerQuery;
    system.context = &answer;
    system.files[vtflt::CONTROL_DEVICE];
    std::uint32_t isFiltered = 0;
    for (std::size_t i = 0; i < 4 && answer.bytes.size() > 612 + i; ++i)
        isFiltered |= std::uint32_t{answer.bytes[612 + i]} << (8 * i);
    const bool monitored = answer.error == ERROR_SUCCESS && isFiltered != 0 && !answer.name.empty();
    FUZZ_HOLDS(VTIsDeviceMonitored(answer.name.c_str()) == (monitored ? 0 : 1));
    FUZZ_HOLDS(system.openHandles == 0);
}

} // namespace fuzz
