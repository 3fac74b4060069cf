// vtlog's command line. Behind it no command is run: what would be run with which options is looked at instead.
#include "vtlog/command_line.h"
#include "vtlog/config_change.h"
#include "vtlog/show_filter.h"

#include "fuzz/arguments.h"

#include <fmt/format.h>

#include <algorithm>

namespace {

fuzz::Understood g_understood;

// What is wrong with the value of an option is found by the command itself: it is a usage error, too, and has a message.
template <class Function>
void CheckValues(Function function)
{
    try {
        function();
    } catch (const vtlog::Failure& failure) {
        FUZZ_HOLDS(failure.Code() == vtlog::Exit::Usage && *failure.what() != '\0');
    }
}

void Add(const char* name, const std::vector<std::string>& values)
{
    for (const std::string& value : values)
        g_understood.Value(name, value);
}

void Add(const char* name, const std::vector<std::uint32_t>& numbers)
{
    for (const std::uint32_t number : numbers)
        g_understood.Number(name, number);
}

void Add(const char* name, const std::optional<std::uint64_t>& number)
{
    if (number)
        g_understood.Number(name, *number);
}

void Add(const char* name, const std::optional<std::string>& value)
{
    if (!value)
        return;
    FUZZ_HOLDS(!value->empty());
    g_understood.Value(name, *value);
}

void AddSeconds(const char* name, const std::optional<double>& seconds)
{
    if (!seconds)
        return;
    FUZZ_HOLDS(*seconds >= 0 && *seconds <= 1e9);
    g_understood.Value(name, fmt::format("{}", *seconds));
}

void CheckFilter(const vtlog::ShowOptions& options, const vtlog::EntryFilter& filter)
{
    FUZZ_HOLDS(filter.level.has_value() == !options.level.empty());
    FUZZ_HOLDS(filter.processes == options.processes && filter.threads == options.threads);
    FUZZ_HOLDS(filter.codes.size() == options.codes.size() && filter.texts.size() == options.texts.size());
    FUZZ_HOLDS(filter.since.has_value() == !options.since.empty());
    FUZZ_HOLDS(filter.until.has_value() == !options.until.empty());
}

void CheckChange(const vtlog::ConfigOptions& options, const vtlog::ConfigChange& change)
{
    FUZZ_HOLDS(change.module.has_value() == options.module.has_value());
    FUZZ_HOLDS(change.level.has_value() == options.level.has_value() && change.automatic == options.automatic);
    FUZZ_HOLDS(change.path.has_value() == options.path.has_value());
    FUZZ_HOLDS(change.globalLevel.has_value() == options.globalLevel.has_value());
    FUZZ_HOLDS(change.globalPath.has_value() == (options.globalPath || options.noGlobalPath));
    FUZZ_HOLDS(!change.module || change.level || change.path || change.automatic);
    FUZZ_HOLDS(change.module || !(change.level || change.path || change.automatic));
}

} // namespace

namespace vtlog {

Exit RunShow(const ShowOptions& options)
{
    g_understood.command = {"show"};
    FUZZ_HOLDS(!options.files.empty());
    g_understood.values = options.files;
    g_understood.Value("--level", options.level);
    Add("--pid", options.processes);
    Add("--tid", options.threads);
    Add("--code", options.codes);
    Add("--grep", options.texts);
    g_understood.Flag("--ignore-case", options.ignoreCase);
    g_understood.Value("--since", options.since);
    g_understood.Value("--until", options.until);
    g_understood.Flag("--json", options.json);
    g_understood.Flag("--plain", options.plain);
    g_understood.Flag("--only", options.only);
    if (options.codePage != 0)
        g_understood.Number("--code-page", options.codePage);
    g_understood.Value("--why", options.why.volume);
    g_understood.Value("--simulate", options.why.simulate);
    g_understood.Flag("--other-machine", options.why.otherMachine);
    FUZZ_HOLDS(!(options.plain && options.json) && options.why.json == options.json);
    const bool hasFilter = !options.level.empty() || !options.processes.empty() || !options.threads.empty() ||
                           !options.codes.empty() || !options.texts.empty() || !options.since.empty() ||
                           !options.until.empty();
    FUZZ_HOLDS(options.why.volume.empty() || !(hasFilter || options.plain));
    FUZZ_HOLDS(!options.why.volume.empty() || options.why.simulate.empty());
    CheckValues([&] { CheckFilter(options, FilterOf(options, {2026, 11, 21, 4, 3, 47, 123})); });
    return Exit::Ok;
}

Exit RunTail(const TailOptions& options)
{
    g_understood.command = {"tail"};
    Add("--exe", options.programs);
    g_understood.Value("--level", options.level);
    Add("--pid", options.processes);
    Add("--grep", options.texts);
    g_understood.Flag("--ignore-case", options.ignoreCase);
    g_understood.Flag("--json", options.json);
    FUZZ_HOLDS(options.count.value_or(1) != 0);
    Add("--count", options.count);
    AddSeconds("--for", options.seconds);
    g_understood.Value("--stop-event", options.stopEvent);
    return Exit::Ok;
}

Exit RunBreak(const BreakOptions& options)
{
    g_understood.command = {"break"};
    FUZZ_HOLDS(!options.program.empty() && !options.texts.empty());
    g_understood.Value("--exe", options.program);
    Add("--text", options.texts);
    if (options.processId != 0)
        g_understood.Number("--pid", options.processId);
    if (options.threadId != 0)
        g_understood.Number("--tid", options.threadId);
    AddSeconds("--hold", options.hold);
    g_understood.Flag("--json", options.json);
    FUZZ_HOLDS(options.count.value_or(1) != 0);
    Add("--count", options.count);
    AddSeconds("--for", options.seconds);
    g_understood.Value("--stop-event", options.stopEvent);
    return Exit::Ok;
}

Exit RunConfig(const ConfigOptions& options)
{
    g_understood.command = {"config"};
    if (options.processId)
        g_understood.values = {std::to_string(*options.processId)};
    Add("--module", options.module);
    Add("--level", options.level);
    Add("--path", options.path);
    g_understood.Flag("--auto", options.automatic);
    Add("--global-level", options.globalLevel);
    Add("--global-path", options.globalPath);
    g_understood.Flag("--no-global-path", options.noGlobalPath);
    g_understood.Flag("--json", options.json);
    FUZZ_HOLDS(!(options.automatic && (options.level || options.path)));
    FUZZ_HOLDS(!(options.noGlobalPath && options.globalPath));
    CheckValues([&] { CheckChange(options, ChangeOf(options)); });
    return Exit::Ok;
}

} // namespace vtlog

namespace fuzz {

namespace {

Answered ParseVtlog(const Arguments& arguments)
{
    TheSaid() = {};
    g_understood = {};
    const vtlog::ParsedCommandLine parsed = vtlog::ParseCommandLine(arguments);
    Answered answered = {parsed.exitCode, {}, TheSaid()};
    if (parsed.exitCode)
        return answered;
    FUZZ_HOLDS(parsed.action != nullptr && answered.said == Said());
    parsed.action();
    answered.understood = g_understood;
    return answered;
}

constexpr const char* WORDS[] = {
    "show",
    "tail",
    "break",
    "config",
    "a.Log",
    "1234",
    "--level",
    "--level=error",
    "--pid",
    "--pid=00100",
    "--tid=7",
    "--code=0x10001",
    "--code=error_access_denied",
    "--grep",
    "--grep=[a,b]",
    "--ignore-case",
    "--since=2h",
    "--until=2026/11/21",
    "--json",
    "--plain",
    "--only",
    "--code-page=1252",
    "--why={11111111-2222-3333-4444-555555555555}",
    "--simulate",
    "--simulate=S",
    "--other-machine",
    "--exe=a.exe",
    "--text=t",
    "--hold=1.5",
    "--hold=nan",
    "--count=08",
    "--for=1e9",
    "--stop-event=e",
    "--module=VTFltMgr.dll",
    "--path=C:\\a.Log",
    "--auto",
    "--global-level=none",
    "--global-path=b.Log",
    "--no-global-path",
    "--",
    "--help",
    "--version",
    "--level=",
    "-1",
    "4",
};

} // namespace

void VtlogCommandLine(const std::uint8_t* bytes, std::size_t count)
{
    Input input(bytes, count);
    CheckCommandLine(ParseVtlog, TakeArguments(input, WORDS));
}

} // namespace fuzz
