// A process's log configuration, which any program may have edited.
#include "log/config_block.h"
#include "fuzz/fuzz.h"
#include "fuzz/system.h"
#include "log/bounded_text.h"
#include "log/log_config.h"
#include "log/log_path.h"
#include "log/text_compare.h"

#include <algorithm>
#include <memory>

namespace fuzz {

namespace {

using vtflt::LogCfgBlock;
using vtflt::LogCfgModuleEntry;

// Entries that inputs change: the first ones and the last ones.
constexpr std::size_t TOUCHED = 6;
constexpr std::size_t ENTRIES[TOUCHED] = {0, 1, 2, 3, 1022, 1023};

// A block between two inputs: empty, or with an entry for each of 1024 modules. Restoring what an input touched is a
// hundred times as fast as making it anew.
class Block {
public:
    explicit Block(bool isFull) : m_block(std::make_unique<LogCfgBlock>()), m_isFull(isFull)
    {
        *m_block = {};
        for (std::size_t i = 0; i < vtflt::LOG_CFG_MODULE_COUNT; ++i)
            Restore(i);
        Restore();
    }
    LogCfgBlock& Get() { return *m_block; }
    void Restore()
    {
        for (const std::size_t index : ENTRIES)
            Restore(index);
        m_block->headMagic = m_block->tailMagic = vtflt::LOG_CFG_MAGIC;
        m_block->level = vtflt::LOG_LEVEL_NOT_SET;
        std::memset(m_block->path, 0, sizeof(m_block->path));
    }

private:
    void Restore(std::size_t index)
    {
        LogCfgModuleEntry& entry = m_block->modules[index];
        entry = {};
        entry.flags = vtflt::LOG_CFG_FLAGS_FREE;
        if (!m_isFull)
            return;
        entry.name[0] = L'#';
        entry.name[1] = static_cast<wchar_t>(L'!' + index);
        entry.level = static_cast<std::uint32_t>(index);
    }

    std::unique_ptr<LogCfgBlock> m_block;
    bool m_isFull;
};

template <std::size_t N>
void PutField(Input& input, wchar_t (&field)[N])
{
    const std::wstring text = input.Text(input.Byte() % 9);
    // Whole fields without an end are what readers must survive.
    if (input.Byte() == 0)
        std::fill(std::begin(field), std::end(field), text.empty() ? L'x' : text[0]);
    else
        std::copy_n(text.begin(), std::min(N, text.size()), field);
}

void Edit(Input& input, LogCfgBlock& block)
{
    for (std::size_t edits = input.Byte() % 6; edits > 0; --edits) {
        LogCfgModuleEntry& entry = block.modules[ENTRIES[input.Byte() % TOUCHED]];
        PutField(input, entry.name);
        PutField(input, entry.path);
        entry.level = input.Take<std::uint32_t>();
        entry.flags = input.Take<std::uint32_t>();
    }
    const std::uint8_t marks = input.Byte();
    if (marks == 1)
        block.headMagic = input.Take<std::uint32_t>();
    if (marks == 2)
        block.tailMagic = input.Take<std::uint32_t>();
    if ((marks & 4) != 0)
        block.level = input.Byte();
    if ((marks & 8) != 0)
        PutField(input, block.path);
}

// The entry that a name has, found as the format says it: the first of its name, and an empty name ends the list; the
// one that was found last is looked at first.
class Finder {
public:
    LogCfgModuleEntry* Find(LogCfgBlock& block, std::wstring_view name)
    {
        if (name.empty())
            return nullptr;
        const auto fits = [name](const LogCfgModuleEntry& entry) {
            return vtflt::EqualIgnoringCase(vtflt::FieldText(entry.name), name.substr(0, 63));
        };
        if (m_last != nullptr && fits(*m_last))
            return m_last;
        for (LogCfgModuleEntry& entry : block.modules) {
            if (entry.name[0] == L'\0')
                return nullptr;
            if (fits(entry))
                return m_last = &entry;
        }
        return nullptr;
    }
    void Taken(LogCfgModuleEntry* entry) { m_last = entry; }

private:
    LogCfgModuleEntry* m_last = nullptr;
};

void CheckAnswers(vtflt::CLogCfgShareMemory& configuration, LogCfgBlock& block, Finder& finder,
                  const std::wstring& name, bool isDisabled)
{
    const bool isIntact = block.headMagic == 0xE6E6 && block.tailMagic == 0xE6E6;
    const LogCfgModuleEntry* const entry = isIntact ? finder.Find(block, name) : nullptr;

    std::uint32_t level = block.level;
    if (entry != nullptr && ((entry->flags & 2) == 0 || level == vtflt::LOG_LEVEL_NOT_SET))
        level = entry->level;
    FUZZ_HOLDS(configuration.QueryLevel(name) == (isIntact ? level : vtflt::LOG_LEVEL_NOT_SET));

    wchar_t path[vtflt::LOG_PATH_CAPACITY] = L"before";
    configuration.QueryPath(name, isDisabled, path);
    const std::wstring_view answer = vtflt::FieldText(path);
    FUZZ_HOLDS(answer.size() < vtflt::LOG_PATH_CAPACITY);
    std::wstring_view expected = L"before";
    const std::wstring_view own = entry != nullptr ? vtflt::FieldText(entry->path) : L"before";
    const std::wstring_view common = vtflt::FieldText(block.path);
    if (isIntact && name.empty())
        expected = common;
    else if (isIntact)
        expected = (entry == nullptr || (entry->flags & 1) != 0) && !common.empty() && !isDisabled ? common : own;
    FUZZ_HOLDS(answer == expected.substr(0, vtflt::LOG_PATH_CAPACITY - 1));
}

} // namespace

void ConfigBlock(const std::uint8_t* bytes, std::size_t count)
{
    static Block empty(false);
    static Block full(true);
    Input input(bytes, count);
    TheSystem() = {};
    Block& owner = input.Byte() == 0xFF ? full : empty;
    LogCfgBlock& block = owner.Get();
    Edit(input, block);
    SetSharedBlock(&block);
    const std::uint32_t head = block.headMagic;
    const std::uint32_t tail = block.tailMagic;
    {
        vtflt::CLogCfgShareMemory configuration;
        Finder finder;
        for (int operation = 0; operation < 4 && input.Left() > 0; ++operation) {
            const std::uint8_t kind = input.Byte();
            std::wstring name = input.Text(input.Byte() % 70);
            name = name.substr(0, name.find(L'\0'));
            const std::wstring before(vtflt::FieldText(block.path));
            if (kind % 4 == 0) {
                configuration.RegisterModule(name);
            } else if (kind % 4 == 1) {
                std::wstring path = input.Text(input.Byte());
                path = path.substr(0, path.find(L'\0'));
                configuration.StorePath(name, path);
            }
            CheckAnswers(configuration, block, finder, name, (kind & 4) != 0);
        }
        FUZZ_HOLDS(block.headMagic == head && block.tailMagic == tail);
        FUZZ_HOLDS(TheSystem().heldMutexes == 0);
    }
    FUZZ_HOLDS(TheSystem().openHandles == 0);
    SetSharedBlock(nullptr);
    owner.Restore();
}

} // namespace fuzz
