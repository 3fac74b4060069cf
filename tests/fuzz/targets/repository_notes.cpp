// The small files of vtbackup: what a repository and its chains say of themselves, the evidence of a loss of tracking, and
// this machine's note of the last success.
#include "vtbackup/failure.h"
#include "vtbackup/file.h"
#include "vtbackup/lost_tracking.h"
#include "vtbackup/machine_state.h"
#include "vtbackup/repository.h"

#include "fuzz/fuzz.h"
#include "fuzz/system.h"

#include <algorithm>

namespace {

// What setting marks comes to.
vtbackup::Marking g_marking;
unsigned g_marked = 0; // how often it was asked for
std::vector<std::string> g_strangers;

} // namespace

// What stands around the notes: the marks on the verify lists, the machine, its locks.
namespace vtbackup {

std::string Joined(const std::string& first, const std::string& second)
{
    return first.empty() || second.empty() ? first + second : first + "; " + second;
}

std::string FixedOnlyText(const std::vector<std::string>& applications)
{
    return applications.empty() ? "" : "fixed only: " + applications.front();
}

Marking MarkApplications(const Machine&, const Chain&, const Marking&)
{
    ++g_marked;
    return g_marking;
}

std::vector<std::string> Strangers(const Machine&, const Chain&, const Marking& marking)
{
    return marking.marked.empty() ? std::vector<std::string>() : g_strangers;
}

std::vector<std::string> WithoutMark(const Chain&, const std::vector<std::string>& applications)
{
    return applications;
}

struct Simulation::Calls {};
Simulation::~Simulation() = default;

Machine::Machine(const std::wstring& simulate, const std::wstring&, const std::wstring&)
    : m_locks(simulate), m_state(L"state")
{
}

Lock::Lock(const std::wstring&, const LockPurpose&, const std::string&)
{
    ++fuzz::TheSystem().heldMutexes;
}

Lock::~Lock()
{
    --fuzz::TheSystem().heldMutexes;
}

} // namespace vtbackup

namespace fuzz {

namespace {

using namespace vtbackup;
using nlohmann::json;

constexpr const wchar_t* GUID = L"{11111111-2222-3333-4444-555555555555}";
constexpr std::uint64_t LOSS = 7;

FileBytes BytesOf(const std::string& text)
{
    return {text.begin(), text.end()};
}

std::string TextOf(const std::vector<std::uint8_t>& bytes)
{
    return {bytes.begin(), bytes.end()};
}

// Runs a reader that may refuse what it finds, with one of these codes and words that can be printed anywhere. True when
// it did not.
template <class Function>
bool Reads(std::initializer_list<Exit> refusals, Function function)
{
    try {
        function();
        return true;
    } catch (const Failure& failure) {
        FUZZ_HOLDS(std::find(refusals.begin(), refusals.end(), failure.Code()) != refusals.end());
        const std::string_view what = failure.what();
        FUZZ_HOLDS(!what.empty());
        FUZZ_HOLDS(std::all_of(what.begin(), what.end(), [](char byte) { return byte >= 0x20 && byte < 0x7F; }));
        return false;
    }
}

std::string Member(const std::string& text, const char* key)
{
    const json object = json::parse(text, nullptr, false);
    const auto found = object.is_object() ? object.find(key) : object.end();
    return object.is_object() && found != object.end() && found->is_string() ? found->get<std::string>() : "";
}

void CheckRepository(const std::string& text)
{
    TheSystem().files[L"R\\repository.json"] = BytesOf(text);
    std::optional<Repository> opened;
    if (Reads({Exit::Damaged}, [&] { opened.emplace(Repository::Open(L"R")); })) {
        FUZZ_HOLDS(!opened->Id().empty() && opened->Id() == Member(text, "id"));
        FUZZ_HOLDS(Member(text, "format") == "vtbackup-repository");
        FUZZ_HOLDS(Repository::Create(L"R").Id() == opened->Id());
    }
    FUZZ_HOLDS(TheSystem().files[L"R\\repository.json"] == BytesOf(text));
}

// A chain that does not say whose it is is a problem, and no chain: nothing is restored from it.
void CheckChain(const std::string& text, bool hasBackup, bool hasFile)
{
    const Repository repository = Repository::Create(L"R");
    const std::wstring folder = std::wstring(L"R\\chains\\App\\") + GUID;
    if (hasFile)
        TheSystem().files[folder + L"\\chain.json"] = BytesOf(text);
    if (hasBackup)
        TheSystem().files[folder + L"\\00000010\\manifest.json"] = BytesOf("x");
    std::vector<std::string> problems;
    const std::vector<Chain> chains = repository.Chains({}, nullptr, problems);
    // It does not say whose it is, or it is another one's than its folder is for.
    FUZZ_HOLDS(problems.size() == (hasFile || hasBackup ? 1U : 0U) && chains.size() <= problems.size());
    if (chains.empty())
        return;
    const Chain& chain = chains.front();
    FUZZ_HOLDS(hasFile && chain.Application() == Member(text, "application"));
    FUZZ_HOLDS(chain.Volume().guid.size() == 38 && chain.Folder() == folder);
    FUZZ_HOLDS(chain.Backups() == (hasBackup ? std::vector<std::uint64_t>{10} : std::vector<std::uint64_t>()));
    FUZZ_HOLDS(chain.NextSequence() == (hasBackup ? 11 : 1));
    FUZZ_HOLDS(!hasBackup || !Reads({Exit::Damaged}, [&] { static_cast<void>(chain.PathTo(10)); }));
}

// What is written of a chain is read again.
void CheckOwnChain(const std::string& application)
{
    const Repository repository = Repository::Create(L"R");
    const std::wstring wide(application.begin(), application.end());
    repository.ChainOf(wide, {GUID}).Create();
    std::vector<std::string> problems;
    const std::vector<Chain> chains = repository.Chains({}, nullptr, problems);
    FUZZ_HOLDS(chains.size() == 1 && problems.empty());
    FUZZ_HOLDS(chains.front().Application() == application && chains.front().Volume().guid == GUID);
    FUZZ_HOLDS(chains.front().Folder() == repository.ChainOf(wide, {GUID}).Folder());
}

bool IsName(const std::string& id)
{
    return id.size() == RANDOM_ID_DIGITS && id.find_first_not_of("0123456789abcdef") == std::string::npos;
}

bool HasAnswered(const Chain& chain, std::uint64_t sequence)
{
    Manifest last;
    last.sequence = sequence;
    last.answered = LossesBehind(chain, sequence);
    return !OpenLoss(chain, last);
}

// Evidence of whatever content: it forces a verify until a backup answers it, and what it owes is paid once.
void CheckEvidence(const Chain& chain, const std::string& text)
{
    const std::wstring path = chain.LossPath(LOSS);
    const Machine machine({}, {}, {});
    TheSystem().files[path] = BytesOf(text);
    const json before = ReadLoss(chain, LOSS);
    FUZZ_HOLDS(before.is_object());
    const bool isDamaged = !json::parse(text, nullptr, false).is_object();
    FUZZ_HOLDS(!isDamaged || before.contains("damaged"));

    Manifest last;
    last.sequence = LOSS - 1;
    FUZZ_HOLDS(OpenLoss(chain, last).has_value() && HasAnswered(chain, LOSS - 1));
    last.sequence = LOSS;
    FUZZ_HOLDS(!OpenLoss(chain, last));

    g_marked = 0;
    const LossNews news = MarkForEarlierLosses(machine, chain);
    const json after = ReadLoss(chain, LOSS);
    FUZZ_HOLDS(after.is_object() && g_marked <= 1);
    if (g_marked == 1) {
        // What was damaged is kept beside it, and what takes its place has a name.
        FUZZ_HOLDS(!isDamaged || TheSystem().files[path + L".kept-1"] == BytesOf(text));
        FUZZ_HOLDS(IsName(Member(after.dump(), "id")) && after["settled"] == g_marking.problem.empty());
        FUZZ_HOLDS(g_marking.problem.empty() || news.text.find(g_marking.problem) != std::string::npos);
    } else {
        FUZZ_HOLDS(before.value("allMarked", json()) == true || before.value("settled", json()) == true);
    }
    FUZZ_HOLDS(HasAnswered(chain, LOSS - 1));

    // Settled is settled; what is owed goes on being owed.
    const bool isSettled = after.value("allMarked", json()) == true || after.value("settled", json()) == true;
    g_marked = 0;
    const LossNews again = MarkForEarlierLosses(machine, chain);
    FUZZ_HOLDS(g_marked == (isSettled ? 0U : 1U));
    NoteSaid(machine, chain, again.once);
    FUZZ_HOLDS(MarkForEarlierLosses(machine, chain).once.empty());
    FUZZ_HOLDS(TheSystem().heldMutexes == 0);
}

bool IsSame(const std::optional<LastSuccess>& a, const LastSuccess& b)
{
    const auto isMark = [](const BackupMark& left, const BackupMark& right) {
        return left.sequence == right.sequence && left.manifestChecksum == right.manifestChecksum;
    };
    return a && a->repository == b.repository && isMark(a->backup, b.backup) &&
           a->before.has_value() == b.before.has_value() && (!a->before || isMark(*a->before, *b.before));
}

std::string AsciiText(Input& input)
{
    std::string text = TextOf(input.Bytes(input.Byte() % 20));
    for (char& byte : text)
        byte = static_cast<char>(byte & 0x7F);
    return text;
}

void CheckOwnNote(Input& input)
{
    const MachineState state(L"state");
    const std::string application = AsciiText(input);
    LastSuccess success{AsciiText(input), {input.Take<std::uint64_t>(), AsciiText(input)}, {}};
    if (input.Flag())
        success.before = BackupMark{input.Take<std::uint64_t>(), AsciiText(input)};
    state.Write(application, {GUID}, success);
    FUZZ_HOLDS(IsSame(state.Read(application, {GUID}), success));
    FUZZ_HOLDS(!state.Read(application + "2", {GUID}) && !state.Read(application, {L"{other}"}));
    state.Forget(application);
    FUZZ_HOLDS(!state.Read(application, {GUID}));
}

bool SaysMark(const json& object, const BackupMark& mark)
{
    return object["sequence"] == mark.sequence && object["sequence"].is_number_unsigned() &&
           object["manifestChecksum"] == mark.manifestChecksum;
}

// A note that says anything else than this program writes is none.
void CheckNote(const std::string& text)
{
    const MachineState state(L"state");
    state.Write("App", {GUID}, {});
    FUZZ_HOLDS(TheSystem().files.size() == 1);
    TheSystem().files.begin()->second = BytesOf(text);
    const std::optional<LastSuccess> read = state.Read("App", {GUID});
    if (!read)
        return;
    json object = json::parse(text);
    FUZZ_HOLDS(object["application"] == "App" && object["repository"] == read->repository);
    FUZZ_HOLDS(SaysMark(object["backup"], read->backup));
    FUZZ_HOLDS(object.contains("before") == read->before.has_value());
    FUZZ_HOLDS(!read->before || SaysMark(object["before"], *read->before));
}

} // namespace

void RepositoryFile(const std::uint8_t* bytes, std::size_t count)
{
    Input input(bytes, count);
    TheSystem() = {};
    const std::uint8_t mode = input.Byte() % 6;
    if (mode == 5)
        return CheckOwnChain(AsciiText(input));
    const std::string text = TextOf(input.Bytes(4000));
    if (mode == 0)
        CheckRepository(text);
    else
        CheckChain(text, (mode & 1) != 0, mode != 3);
}

void LossEvidence(const std::uint8_t* bytes, std::size_t count)
{
    Input input(bytes, count);
    TheSystem() = {};
    g_marking = {};
    g_strangers.clear();
    const std::uint8_t marks = input.Byte();
    if ((marks & 1) != 0)
        g_marking.marked.emplace_back("App");
    if ((marks & 2) != 0)
        g_marking.fixedOnly.emplace_back("Other");
    if ((marks & 4) != 0)
        g_marking.problem = "a problem";
    if ((marks & 8) != 0)
        g_strangers.emplace_back("App");
    const Chain chain(L"chain", "App", {GUID});
    CheckEvidence(chain, TextOf(input.Bytes(4000)));
}

void SuccessNote(const std::uint8_t* bytes, std::size_t count)
{
    Input input(bytes, count);
    TheSystem() = {};
    if (input.Flag())
        return CheckOwnNote(input);
    CheckNote(TextOf(input.Bytes(4000)));
}

} // namespace fuzz
