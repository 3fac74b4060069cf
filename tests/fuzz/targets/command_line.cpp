// vtbackup's command line, and times as vtlog takes them.
#include "vtbackup/command_line.h"
#include "vtbackup/console.h"
#include "vtlog/time_text.h"

#include "fuzz/arguments.h"

#include <algorithm>
#include <chrono>
#include <iostream>
#include <sstream>

namespace vtbackup {

// The console's part.
void PrintJson(const nlohmann::json& object)
{
    fuzz::TheSaid().printed += object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

void Diagnose(const std::string& message)
{
    fuzz::TheSaid().diagnosed.push_back(message);
}

} // namespace vtbackup

namespace fuzz {

namespace {

using vtbackup::Options;

// What the parser prints by itself.
class Listener {
public:
    Listener() : m_out(std::cout.rdbuf(m_printed.rdbuf())), m_error(std::cerr.rdbuf(m_hints.rdbuf())) {}
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;
    ~Listener()
    {
        std::cout.rdbuf(m_out);
        std::cerr.rdbuf(m_error);
    }
    [[nodiscard]] std::string Printed() const { return m_printed.str(); }

private:
    std::ostringstream m_printed;
    std::ostringstream m_hints;
    std::streambuf* m_out;
    std::streambuf* m_error;
};

Understood UnderstoodOf(const Options& options)
{
    Understood understood;
    understood.command = {options.command};
    understood.Value("--app", options.application);
    understood.Value("--repo", options.repository);
    understood.Value("--simulate", options.simulate);
    understood.Value("--volume", options.volume);
    understood.Value("--snapshot-create", options.snapshotCreate);
    understood.Value("--snapshot-delete", options.snapshotDelete);
    understood.Value("--to", options.to);
    understood.Value("--html", options.html);
    if (options.backup != 0)
        understood.Number("--backup", options.backup);
    if (options.audit != 0)
        understood.Number("--audit", options.audit);
    understood.Flag("--json", options.json);
    understood.Flag("--reset", options.reset);
    understood.Flag("--undo", options.undo);
    understood.Flag("--no-monitor", options.noMonitor);
    understood.Flag("--full", options.full);
    understood.Flag("--verify", options.verify);
    understood.Flag("--register", options.registerFirst);
    understood.Flag("--keep-snapshot", options.keepSnapshot);
    understood.Flag("--overwrite", options.overwrite);
    return understood;
}

void CheckOptions(const Options& options)
{
    static constexpr std::string_view COMMANDS[] = {"init", "backup", "restore", "verify", "list", "report"};
    FUZZ_HOLDS(std::find(std::begin(COMMANDS), std::end(COMMANDS), options.command) != std::end(COMMANDS));
    FUZZ_HOLDS(!(options.reset && options.undo) && !(options.full && options.verify));
    const bool isRestore = options.command == "restore";
    const bool needsVolume = isRestore || options.command == "backup";
    FUZZ_HOLDS(!options.repository.empty());
    FUZZ_HOLDS(!options.volume.empty() || !needsVolume);
    FUZZ_HOLDS(!options.application.empty() || !(needsVolume || options.command == "init"));
    FUZZ_HOLDS(options.to.empty() == !isRestore);
    FUZZ_HOLDS(options.html.empty() == (options.command != "report"));
}

Answered ParseVtbackup(const Arguments& arguments)
{
    TheSaid() = {};
    const Listener listener;
    const vtbackup::ParsedCommandLine parsed = vtbackup::ParseCommandLine(arguments);
    Answered answered = {parsed.exitCode, {}, TheSaid()};
    answered.said.printed += listener.Printed();
    if (!parsed.exitCode) {
        CheckOptions(parsed.options);
        answered.understood = UnderstoodOf(parsed.options);
    } else if (*parsed.exitCode == 2) {
        const bool json = std::find(arguments.begin(), arguments.end(), "--json") != arguments.end();
        FUZZ_HOLDS(answered.said.printed.empty() == !json);
    }
    return answered;
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
    "report",
    "--html",
    "--html=H",
    "--audit",
    "--audit=010",
    "--backup=00000010",
    "--repo=",
    "--simulate=S",
    "--version",
};

// A day that the calendar has.
bool IsDate(const vtlog::RecordTime& time)
{
    // The calendar's month and day hold a byte each.
    if (time.month < 1 || time.month > 12 || time.day < 1 || time.day > 31)
        return false;
    return (std::chrono::year(time.year) / time.month / time.day).ok();
}

} // namespace

void CommandLine(const std::uint8_t* bytes, std::size_t count)
{
    Input input(bytes, count);
    CheckCommandLine(ParseVtbackup, TakeArguments(input, WORDS));
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
        FUZZ_HOLDS(time.year >= 1000 && time.year <= 9999 && IsDate(time));
        FUZZ_HOLDS(time.hour >= 0 && time.hour <= 23);
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
