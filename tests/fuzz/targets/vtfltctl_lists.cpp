// The lists of volumes as vtfltctl reads and changes them, whatever stands in the registry, and what doctor makes of
// them, held against the library's own reading.
#include "apps/resync_lists.h"
#include "apps/resync_text.h"
#include "apps/volume_name.h"
#include "common/text.h"
#include "common/volume_name.h"
#include "vtfltctl/findings.h"
#include "vtfltctl/library.h"
#include "vtfltctl/list_entry.h"
#include "vtfltctl/volume_lists.h"

#include "fuzz/arguments.h"
#include "fuzz/system.h"

#include <algorithm>
#include <array>

// What stands around the lists.
namespace vtfltctl {

void Require(DWORD result, const std::string& what)
{
    if (result != ERROR_SUCCESS)
        throw Failure(Exit::Device, "cannot " + what);
}

LibraryLock::Held::Held(const std::wstring&, const std::wstring&, ULONGLONG)
{
    ++fuzz::TheSystem().heldMutexes;
}

LibraryLock::Held::~Held()
{
    --fuzz::TheSystem().heldMutexes;
}

LibraryLock::LibraryLock(const std::wstring& name) : m_deadline(0), m_ours({}, name, 0), m_services({}, name, 0) {}

} // namespace vtfltctl

namespace fuzz {

namespace {

using namespace vtfltctl;
using Strings = std::vector<std::wstring>;

constexpr const wchar_t* VOLUME_A = L"{11111111-2222-3333-4444-555555555555}";
constexpr const wchar_t* VOLUME_B = L"{AAAAAAAA-2222-3333-4444-555555555555}";

std::wstring PathOf(const std::wstring& guid)
{
    return L"\\\\?\\Volume" + guid + L"\\";
}

// An entry as somebody may have written it.
std::wstring TakeEntry(Input& input)
{
    static const Strings WORDS = {
        VOLUME_A,
        VOLUME_B,
        L"{aaaaaaaa-2222-3333-4444-555555555555}",
        L"{99999999-2222-3333-4444-555555555555}",
        L"11111111-2222-3333-4444-555555555555",
        L"\\\\?\\Volume{11111111-2222-3333-4444-555555555555}\\",
        L"{11111111-2222-3333-4444-555555555555}{AAAAAAAA-2222-3333-4444-555555555555}",
        L"{11111111-2222-3333-4444-555555555555} {99999999-2222-3333-4444-555555555555}",
        L"5}",
        L"Volume",
        L"C:",
        L"[a,b]",
        L"--all",
        L"x*y",
        L"*",
        L"my volume & more",
    };
    const std::uint8_t word = input.Byte();
    return word < WORDS.size() ? WORDS[word] : input.Text(word % 40);
}

Strings TakeEntries(Input& input)
{
    Strings entries;
    for (std::size_t i = input.Byte() % 5; i > 0; --i)
        entries.push_back(TakeEntry(input));
    return entries;
}

FileBytes StoredForm(const Strings& entries)
{
    std::wstring text;
    for (const std::wstring& entry : entries)
        text += entry + L'\0';
    text += L'\0';
    const auto* const bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    return {bytes, bytes + text.size() * sizeof(wchar_t)};
}

// Stores a list: none, entries, or any bytes of some type.
void PutList(Input& input, const std::wstring& suffix)
{
    System::Value& value = TheSystem().values[vtflt::MakeListValueName(suffix)];
    switch (input.Byte() % 4) {
    case 0:
        TheSystem().values.erase(vtflt::MakeListValueName(suffix));
        return;
    case 1:
        value.type = input.Flag() ? DWORD{REG_MULTI_SZ} : input.Byte() % 12U;
        value.bytes = input.ShortBytes();
        return;
    default:
        value.type = REG_MULTI_SZ;
        value.bytes = StoredForm(TakeEntries(input));
    }
}

FileBytes StoredBytes(const std::wstring& suffix)
{
    const auto found = TheSystem().values.find(vtflt::MakeListValueName(suffix));
    return found == TheSystem().values.end() ? FileBytes() : found->second.bytes;
}

bool Has(const Strings& list, const std::wstring& entry)
{
    return std::find(list.begin(), list.end(), entry) != list.end();
}

// The library's own reading of a list; nothing when it fails.
std::optional<Strings> LibraryReading(const std::wstring& suffix)
{
    Strings entries;
    vtflt::CVolumeListForResync store;
    if (store.GetDriverVolumeList(entries, suffix) != ERROR_SUCCESS)
        return std::nullopt;
    return entries;
}

// What is called readable the library reads, and as the same entries; what the library fails on is never called so.
ListFacts CheckReading(const std::wstring& suffix)
{
    const ListFacts facts = ReadVolumeList(suffix);
    const std::optional<Strings> read = LibraryReading(suffix);
    FUZZ_HOLDS(facts.error == ERROR_SUCCESS || facts.error == ERROR_INVALID_DATA);
    FUZZ_HOLDS(facts.error != ERROR_SUCCESS || (read && *read == facts.entries));
    FUZZ_HOLDS(!facts.tail || facts.error == ERROR_INVALID_DATA);
    FUZZ_HOLDS(facts.present || facts.entries.empty());
    return facts;
}

void CheckMeaning(const std::wstring& entry)
{
    const Strings machine = {VOLUME_A, VOLUME_B};
    const Meaning meaning = MeaningOf(entry, machine);
    for (const std::wstring& volume : machine) {
        const bool matches = vtflt::ListEntryMatchesVolume(entry, PathOf(volume));
        FUZZ_HOLDS(!matches || Has(meaning.volumes, volume));
        FUZZ_HOLDS(!matches || CanMatchVolume(entry));
    }
    for (const std::wstring& volume : meaning.volumes)
        FUZZ_HOLDS(Has(machine, volume) && std::count(meaning.volumes.begin(), meaning.volumes.end(), volume) == 1);
    for (const std::wstring& guid : GuidsIn(entry)) {
        FUZZ_HOLDS(toolkit::ParseVolumeGuid(guid) == guid);
        FUZZ_HOLDS(entry.find(guid.substr(1, 36)) != std::wstring::npos);
    }
    // A name of a volume is all that it says.
    if (const auto guid = toolkit::ParseVolumeGuid(entry))
        FUZZ_HOLDS(GuidsIn(entry) == Strings{*guid});
}

// Runs a change that may be refused; then nothing has changed. True when it was made.
template <class Function>
bool Changes(const std::wstring& suffix, Function function)
{
    const FileBytes before = StoredBytes(suffix);
    try {
        function();
    } catch (const Failure& failure) {
        FUZZ_HOLDS(*failure.what() != '\0' && failure.Code() != Exit::Ok && failure.Code() != Exit::Internal);
        FUZZ_HOLDS(StoredBytes(suffix) == before && TheSystem().heldMutexes == 0);
        return false;
    }
    FUZZ_HOLDS(TheSystem().heldMutexes == 0 && TheSystem().openHandles == 0);
    return true;
}

// Volumes come onto a list, and everything that stands there stays.
void CheckAdding(const std::wstring& suffix, const Strings& guids, Repair repair)
{
    const Strings before = LibraryReading(suffix).value_or(Strings());
    const bool isDamaged = ReadVolumeList(suffix).error != ERROR_SUCCESS;
    const Strings salvaged = Salvage(ReadStoredList(suffix));
    if (!Changes(suffix, [&] { AddToList(suffix, guids, "the list", repair); })) {
        FUZZ_HOLDS(repair == Repair::Refuse || !isDamaged);
        return;
    }
    const ListFacts after = CheckReading(suffix);
    FUZZ_HOLDS(after.error == ERROR_SUCCESS);
    for (const std::wstring& guid : guids)
        FUZZ_HOLDS(Has(after.entries, guid));
    for (const std::wstring& entry : isDamaged ? salvaged : before)
        FUZZ_HOLDS(Has(after.entries, entry));
    FUZZ_HOLDS(!AnyHidden(after.entries));
}

// What is called mergeable the library merges without a loss.
void CheckMerging(const std::wstring& suffix, const Strings& incoming)
{
    const ListFacts before = ReadVolumeList(suffix);
    if (before.error != ERROR_SUCCESS || !Changes(suffix, [&] { RequireMergeable(incoming, before, "the list"); }))
        return;
    vtflt::CVolumeListForResync store;
    FUZZ_HOLDS(store.UpdateApplicationValue(incoming, suffix, 0) == ERROR_SUCCESS);
    const Strings after = LibraryReading(suffix).value_or(Strings());
    for (const Strings& entries : {incoming, before.entries}) {
        for (const std::wstring& entry : entries)
            FUZZ_HOLDS(Has(after, entry));
    }
}

void CheckTakingOff(const std::wstring& application, const Strings& entries)
{
    const Strings before = ReadVolumeList(application).entries;
    bool isDone = false;
    if (!Changes(application, [&] { isDone = TakeOffPending(application, entries); }))
        return;
    Strings expected = before;
    if (isDone)
        std::erase_if(expected, [&](const std::wstring& entry) { return Has(entries, entry); });
    FUZZ_HOLDS(CheckReading(application).entries == expected);
}

// The arguments of a printed line, one list for each of its commands, as a shell parts them.
std::vector<Arguments> CommandsOf(const std::string& line)
{
    std::vector<Arguments> commands(1);
    std::string argument;
    bool isInside = false;
    bool hasQuotes = false;
    const auto end = [&] {
        if (argument == "&&" && !hasQuotes)
            commands.emplace_back();
        else if (!argument.empty() || hasQuotes)
            commands.back().push_back(argument);
        argument.clear();
        hasQuotes = false;
    };
    for (const char c : line) {
        if (c == '"') {
            isInside = !isInside;
            hasQuotes = true;
        } else if (c == ' ' && !isInside) {
            end();
        } else {
            argument.push_back(c);
        }
    }
    end();
    FUZZ_HOLDS(!isInside);
    return commands;
}

// A command that doctor prints is read back as what it was meant to be.
void CheckMend(const Mend& mend)
{
    const std::string line = WrittenMend(mend, L"S");
    if (line.empty())
        return;
    const std::vector<Arguments> commands = CommandsOf(line);
    FUZZ_HOLDS(commands.size() == mend.size());
    for (std::size_t i = 0; i < mend.size(); ++i) {
        Arguments arguments = commands[i];
        FUZZ_HOLDS(!arguments.empty() && arguments.front() == "vtfltctl");
        arguments.erase(arguments.begin());
        const Answered answered = AskVtfltctl(arguments);
        FUZZ_HOLDS(!answered.exitCode);
        std::string command;
        for (const std::string& word : answered.understood.command)
            command += (command.empty() ? "" : " ") + word;
        FUZZ_HOLDS(command == mend[i].command);
        Arguments meant;
        for (const std::wstring& argument : mend[i].arguments)
            meant.push_back(toolkit::ToUtf8(argument));
        FUZZ_HOLDS(answered.understood.values == meant);
        const Arguments& options = answered.understood.options;
        FUZZ_HOLDS(std::find(options.begin(), options.end(), "--simulate=S") != options.end());
    }
}

MachineFacts MachineOf(const Strings& applications, Input& input)
{
    MachineFacts machine;
    machine.driver.generation = static_cast<Generation>(input.Byte() % 3);
    machine.driver.order = static_cast<FilterOrder>(input.Byte() % 4);
    machine.driver.service = static_cast<ServiceState>(input.Byte() % 3);
    if (input.Flag())
        machine.driver.installLocation = L"C:\\";
    machine.snapshots.listed = input.Flag();
    if (input.Flag())
        machine.snapshots.count = input.Take<std::uint32_t>();
    for (const std::wstring& id : applications)
        machine.applications.push_back({id, ReadVolumeList(id), ReadVolumeList(vtflt::MakeVerifyListName(id))});
    machine.driverList = ReadVolumeList({});
    machine.volumeGuids = {VOLUME_A, VOLUME_B};
    for (const std::wstring& guid : machine.volumeGuids) {
        VolumeFacts volume;
        volume.guid = guid;
        volume.name = {L"Volume" + guid, PathOf(guid)};
        volume.geometry = {4096, 1 << 30};
        volume.monitored = true;
        volume.files = {L"VelVolTrc_base_Gone.dat"};
        for (const std::wstring& id : applications)
            volume.holdings.push_back({id, {}, {}, {}, 0});
        machine.volumes.push_back(std::move(volume));
    }
    return machine;
}

// which: the finding whose commands are read back; a command line takes a hundred times as long as anything else.
void CheckFindings(const MachineFacts& machine, std::size_t which)
{
    const std::vector<Finding> findings = FindFaults(machine);
    for (const Finding& finding : findings) {
        FUZZ_HOLDS(*finding.check != '\0' && !finding.text.empty() && !finding.consequence.empty());
        // Nothing in it is for a terminal to act on.
        for (const std::string* text : {&finding.text, &finding.consequence})
            FUZZ_HOLDS(std::all_of(text->begin(), text->end(), [](char c) { return c >= 0x20 && c < 0x7F; }));
        FUZZ_HOLDS(finding.severity <= Severity::Note || OutcomeOf(findings) != Exit::Ok);
    }
    if (!findings.empty())
        CheckMend(findings[which % findings.size()].mend);
    // A list that the library cannot read, or a volume on one, is never passed over.
    const auto isFound = [&](const char* check) {
        return std::any_of(findings.begin(), findings.end(),
                           [&](const Finding& finding) { return std::string_view(finding.check) == check; });
    };
    FUZZ_HOLDS(machine.driverList.error == ERROR_SUCCESS || isFound("list-damaged"));
    for (const ApplicationFacts& application : machine.applications) {
        if (application.id.empty())
            continue;
        FUZZ_HOLDS(application.verify.error == ERROR_SUCCESS || isFound("list-damaged"));
        for (const VolumeFacts& volume : machine.volumes)
            FUZZ_HOLDS(!Names(application.verify, volume) || isFound("verify-listed"));
    }
}

} // namespace

void VtfltctlLists(const std::uint8_t* bytes, std::size_t count)
{
    Input input(bytes, count);
    TheSystem() = {};
    TheSystem().volumes = {PathOf(VOLUME_A), PathOf(VOLUME_B)};
    Strings applications = {L"Nightly"};
    if (input.Flag())
        applications.push_back(std::array{L"App", L"Nightly.Last", L"ly", L"-x", L"nightly", L""}[input.Byte() % 6]);
    else if (input.Flag())
        applications.push_back(input.Text(input.Byte() % 12));
    const std::uint8_t mode = input.Byte();
    for (const std::wstring& id : applications) {
        PutList(input, id);
        PutList(input, vtflt::MakeVerifyListName(id));
    }
    PutList(input, {});

    for (const std::wstring& suffix : {std::wstring(L"Nightly"), std::wstring(L"Nightly.Last"), std::wstring()}) {
        for (const std::wstring& entry : CheckReading(suffix).entries)
            CheckMeaning(entry);
    }
    CheckMeaning(TakeEntry(input));
    CheckFindings(MachineOf(applications, input), mode / 8);

    const Strings guids = (mode & 1) != 0 ? Strings{VOLUME_A} : Strings{VOLUME_B, VOLUME_A};
    CheckMerging(L"Nightly.Last", guids);
    CheckAdding(L"Nightly.Last", guids, (mode & 2) != 0 ? Repair::Replace : Repair::Refuse);
    CheckMerging(L"Nightly", (mode & 4) != 0 ? ReadVolumeList({}).entries : guids);
    CheckTakingOff(L"Nightly", {TakeEntry(input)});
}

} // namespace fuzz
