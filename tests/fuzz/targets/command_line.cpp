// vtbackup's command line, and times as vtlog takes them.
#include "vtbackup/command_line.h"
#include "vtbackup/console.h"
#include "vtlog/time_text.h"

#include "fuzz/fuzz.h"

#include <algorithm>
#include <iostream>
#include <sstream>

namespace vtbackup {

// The console's part; what is printed does not matter here.
void PrintJson(const nlohmann::json&) {}
void Diagnose(const std::string&) {}

} // namespace vtbackup

namespace fuzz {

namespace {

using vtbackup::Options;

// What the parser prints goes nowhere.
class Silence {
public:
    Silence() : m_out(std::cout.rdbuf(m_sink.rdbuf())), m_error(std::cerr.rdbuf(m_sink.rdbuf())) {}
    Silence(const Silence&) = delete;
    Silence& operator=(const Silence&) = delete;
    ~Silence()
    {
        std::cout.rdbuf(m_out);
        std::cerr.rdbuf(m_error);
    }

private:
    std::ostringstream m_sink;
    std::streambuf* m_out;
    std::streambuf* m_error;
};

void AddValue(std::vector<std::string>& arguments, const char* name, const std::string& value)
{
    if (!value.empty())
        arguments.push_back(std::string(name) + "=" + value);
}

void AddFlag(std::vector<std::string>& arguments, const char* name, bool isSet)
{
    if (isSet)
        arguments.push_back(name);
}

// The command line that says these options, each once.
std::vector<std::string> ArgumentsOf(const Options& options)
{
    std::vector<std::string> arguments = {options.command};
    AddValue(arguments, "--app", options.application);
    AddValue(arguments, "--repo", options.repository);
    AddValue(arguments, "--simulate", options.simulate);
    AddValue(arguments, "--volume", options.volume);
    AddValue(arguments, "--snapshot-create", options.snapshotCreate);
    AddValue(arguments, "--snapshot-delete", options.snapshotDelete);
    AddValue(arguments, "--to", options.to);
    if (options.backup != 0)
        AddValue(arguments, "--backup", std::to_string(options.backup));
    if (options.audit != 0)
        AddValue(arguments, "--audit", std::to_string(options.audit));
    AddFlag(arguments, "--json", options.json);
    AddFlag(arguments, "--reset", options.reset);
    AddFlag(arguments, "--undo", options.undo);
    AddFlag(arguments, "--no-monitor", options.noMonitor);
    AddFlag(arguments, "--full", options.full);
    AddFlag(arguments, "--verify", options.verify);
    AddFlag(arguments, "--register", options.registerFirst);
    AddFlag(arguments, "--keep-snapshot", options.keepSnapshot);
    AddFlag(arguments, "--overwrite", options.overwrite);
    return arguments;
}

bool IsSame(const Options& a, const Options& b)
{
    return ArgumentsOf(a) == ArgumentsOf(b);
}

void CheckOptions(const Options& options)
{
    static constexpr std::string_view COMMANDS[] = {"init", "backup", "restore", "verify", "list"};
    FUZZ_HOLDS(std::find(std::begin(COMMANDS), std::end(COMMANDS), options.command) != std::end(COMMANDS));
    FUZZ_HOLDS(!(options.reset && options.undo) && !(options.full && options.verify));
    // An empty value cannot be said in this form.
    const bool isRestore = options.command == "restore";
    const bool needsVolume = isRestore || options.command == "backup";
    const bool needsApplication = needsVolume || options.command == "init";
    if (options.repository.empty() || (needsVolume && options.volume.empty()) || (isRestore && options.to.empty()) ||
        (needsApplication && options.application.empty()))
        return;
    const vtbackup::ParsedCommandLine again = vtbackup::ParseCommandLine(ArgumentsOf(options));
    FUZZ_HOLDS(!again.exitCode && IsSame(again.options, options));
}

// Words of the command line, so that inputs are more often ones that mean something.
constexpr const char* WORDS[] = {
    "init",
    "backup",
    "restore",
    "verify",
    "list",
    "--app",
    "--repo",
    "--volume",
    "--simulate",
    "--json",
    "--reset",
    "--undo",
    "--full",
    "--verify",
    "--backup",
    "--to",
    "--register",
    "--overwrite",
    "--help",
    "--app=A",
    "--repo=R",
    "--volume=V",
    "--to=T",
    "--backup=7",
    "--",
    "-1",
    "--no-monitor",
    "--keep-snapshot",
    "--snapshot-create=c",
    "--snapshot-delete=d",
};

} // namespace

void CommandLine(const std::uint8_t* bytes, std::size_t count)
{
    const Silence silence;
    Input input(bytes, count);
    std::vector<std::string> arguments;
    while (input.Left() > 0 && arguments.size() < 24) {
        const std::uint8_t word = input.Byte();
        if (word < std::size(WORDS)) {
            arguments.push_back(WORDS[word]);
            continue;
        }
        const std::vector<std::uint8_t> text = input.Bytes(word % 16);
        std::string argument = word % 32 < 16 && !arguments.empty() ? arguments.back() + "=" : std::string();
        if (!argument.empty())
            arguments.pop_back();
        argument.append(text.begin(), text.end());
        // As arguments of a process are.
        std::erase(argument, '\0');
        arguments.push_back(argument);
    }
    const vtbackup::ParsedCommandLine parsed = vtbackup::ParseCommandLine(arguments);
    if (parsed.exitCode)
        FUZZ_HOLDS(*parsed.exitCode == 0 || *parsed.exitCode == 2);
    else
        CheckOptions(parsed.options);
}

void TimeText(const std::uint8_t* bytes, std::size_t count)
{
    using vtlog::RecordTime;
    Input input(bytes, count);
    const RecordTime now = {2000 + input.Byte(), 1 + input.Byte() % 12, 1 + input.Byte() % 28, input.Byte() % 24,
                            input.Byte() % 60,   input.Byte() % 60,     input.Byte() * 3};
    const std::vector<std::uint8_t> raw = input.Bytes(60);
    const std::string text(raw.begin(), raw.end());
    const auto earliest = vtlog::ParseTimeText(text, now, vtlog::Rounding::Earliest);
    const auto latest = vtlog::ParseTimeText(text, now, vtlog::Rounding::Latest);
    FUZZ_HOLDS(earliest.has_value() == latest.has_value());
    if (!earliest)
        return;
    FUZZ_HOLDS(*earliest <= *latest);
    for (const RecordTime& time : {*earliest, *latest}) {
        FUZZ_HOLDS(time.year >= 1000 && time.year <= 9999 && time.month >= 1 && time.month <= 12);
        FUZZ_HOLDS(time.day >= 1 && time.day <= 31 && time.hour >= 0 && time.hour <= 23);
        FUZZ_HOLDS(time.minute >= 0 && time.minute <= 59 && time.second >= 0 && time.second <= 59);
        FUZZ_HOLDS(time.millisecond >= 0 && time.millisecond <= 999);
        // What is printed can be given back.
        for (const std::string& printed : {vtlog::IsoTime(time), vtlog::PlainTime(time)}) {
            FUZZ_HOLDS(printed.size() == 23);
            FUZZ_HOLDS(vtlog::ParseTimeText(printed, now, vtlog::Rounding::Earliest) == time);
        }
    }
}

} // namespace fuzz
