// A ring of live records whose numbers and slots any program may have written.
#include "fuzz/fuzz.h"
#include "fuzz/system.h"
#include "log/bounded_text.h"
#include "log/ring_block.h"
#include "log/share_memory.h"

#include <algorithm>
#include <memory>

namespace fuzz {

namespace {

using vtflt::LogRecordBlock;
using vtflt::LogRingBlock;

// Reading thousands of records in every input would leave time for little else.
constexpr std::uint64_t MOST_READ = 40;

void CheckBacklog(std::int64_t read, std::int64_t write)
{
    const vtflt::LogRingBacklog backlog = vtflt::ReadBacklog(read, write);
    FUZZ_HOLDS(backlog.count <= vtflt::LOG_RING_READ_LIMIT);
    FUZZ_HOLDS(static_cast<std::int64_t>(static_cast<std::uint64_t>(backlog.read) + backlog.count) == write);
    const auto unread = static_cast<Number128>(write) - read;
    const bool isNothing = write == -1 || unread <= 0;
    FUZZ_HOLDS((backlog.count == 0) == isNothing);
    if (isNothing)
        return;
    FUZZ_HOLDS(backlog.count == std::min<Number128>(unread, 4096));
    FUZZ_HOLDS(backlog.overwritten == (unread > 1024 ? static_cast<std::uint64_t>(unread - 1024) : 0));
    FUZZ_HOLDS(vtflt::RingSlot(read) < vtflt::LOG_RING_SLOTS && vtflt::RingSlot(write) < vtflt::LOG_RING_SLOTS);
}

template <std::size_t N>
std::wstring Text(const wchar_t (&field)[N])
{
    const std::wstring whole(field, N);
    return whole.substr(0, whole.find(L'\0'));
}

void CheckMessage(const vtflt::CLogMessage& message, const LogRecordBlock& slot)
{
    FUZZ_HOLDS(message.GetText() == Text(slot.text) && message.GetExecutableName() == Text(slot.executableName));
    FUZZ_HOLDS(message.GetModuleName() == Text(slot.moduleName) && message.GetLevel() == slot.level);
    FUZZ_HOLDS(message.GetProcessId() == slot.processId && message.GetErrorCode() == slot.errorCode);
    const std::wstring header = message.GetHeaderText();
    FUZZ_HOLDS(header.size() > 30 && header.front() == L'[' && header.ends_with(L"] "));
}

void Read(vtflt::CLogShareMemory& reader, LogRingBlock& ring)
{
    const vtflt::LogRingBacklog backlog = vtflt::ReadBacklog(ring.readSequence, ring.writeSequence);
    if (backlog.count > MOST_READ)
        return;
    const std::int64_t readBefore = ring.readSequence;
    std::vector<vtflt::LogMessagePtr> messages;
    FUZZ_HOLDS(reader.ReadMessages(messages) && messages.size() == backlog.count);
    FUZZ_HOLDS(reader.Overwritten() == backlog.overwritten);
    FUZZ_HOLDS(ring.readSequence == (ring.writeSequence == -1 ? readBefore : ring.writeSequence));
    std::int64_t sequence = backlog.read;
    for (const vtflt::LogMessagePtr& message : messages) {
        sequence = vtflt::NextSequence(sequence);
        CheckMessage(*message, ring.slots[vtflt::RingSlot(sequence)]);
    }
}

void Write(vtflt::CLogShareMemory& writer, LogRingBlock& ring, Input& input)
{
    const int level = input.Take<std::int32_t>();
    const auto code = input.Take<std::uint32_t>();
    std::wstring module = input.Text(input.Byte() % 150);
    std::wstring text = input.Text(input.Byte() * 5);
    module = module.substr(0, module.find(L'\0'));
    text = text.substr(0, text.find(L'\0'));
    const std::int64_t before = ring.writeSequence;
    const std::int64_t next = vtflt::NextSequence(before);
    // The neighbours of the slot must stay as they are.
    const auto left = ring.slots[vtflt::RingSlot(before)];
    const auto right = ring.slots[vtflt::RingSlot(vtflt::NextSequence(next))];
    FUZZ_HOLDS(writer.WriteMessage(level, code, module, text) == !text.empty());
    if (text.empty()) {
        FUZZ_HOLDS(ring.writeSequence == before);
        return;
    }
    FUZZ_HOLDS(ring.writeSequence == next);
    FUZZ_HOLDS(std::memcmp(&left, &ring.slots[vtflt::RingSlot(before)], sizeof(left)) == 0);
    FUZZ_HOLDS(std::memcmp(&right, &ring.slots[vtflt::RingSlot(vtflt::NextSequence(next))], sizeof(right)) == 0);
    const LogRecordBlock& slot = ring.slots[vtflt::RingSlot(next)];
    FUZZ_HOLDS(Text(slot.text) == text.substr(0, 1023) && Text(slot.moduleName) == module.substr(0, 127));
    FUZZ_HOLDS(slot.level == level && slot.errorCode == code && slot.text[1023] == 0);
}

} // namespace

void Ring(const std::uint8_t* bytes, std::size_t count)
{
    static const auto owner = std::make_unique<LogRingBlock>();
    LogRingBlock& ring = *owner;
    Input input(bytes, count);
    TheSystem() = {};
    ring.writeSequence = input.Take<std::int64_t>();
    ring.readSequence = input.Flag()
                            ? input.Take<std::int64_t>()
                            : static_cast<std::int64_t>(static_cast<std::uint64_t>(ring.writeSequence) - input.Byte());
    CheckBacklog(ring.readSequence, ring.writeSequence);
    SetSharedBlock(&ring);
    {
        vtflt::CLogShareMemory memory(L"writer.exe");
        FUZZ_HOLDS(memory.OpenAsWriter());
        // Records that somebody else wrote, ends or none. What earlier inputs left in other slots is never looked at.
        const std::int64_t first = vtflt::ReadBacklog(ring.readSequence, ring.writeSequence).read;
        LogRecordBlock& slot = ring.slots[vtflt::RingSlot(vtflt::NextSequence(first))];
        const std::vector<std::uint8_t> raw = input.ShortBytes();
        std::memset(&slot, input.Byte(), sizeof(slot));
        std::copy(raw.begin(), raw.end(), reinterpret_cast<std::uint8_t*>(&slot));
        for (int operation = 0; operation < 5; ++operation) {
            if (input.Left() > 0 && input.Flag())
                Write(memory, ring, input);
            Read(memory, ring);
        }
    }
    FUZZ_HOLDS(TheSystem().openHandles == 0 && TheSystem().heldMutexes == 0);
    SetSharedBlock(nullptr);
}

} // namespace fuzz
