// vtfltctl's command line. Behind it no command is run: what would be run with which options is looked at instead.
#include "vtfltctl/bitmap_numbers.h"
#include "vtfltctl/command_model.h"
#include "vtfltctl/commands.h"
#include "vtfltctl/output.h"

#include "fuzz/arguments.h"

#include <algorithm>
#include <sstream>

namespace {

fuzz::Understood g_understood;

// Notes which command was called, with what every command has.
void Called(const vtfltctl::Context& context, const char* name)
{
    FUZZ_HOLDS(context.command == name);
    std::istringstream words(name);
    for (std::string word; words >> word;)
        g_understood.command.push_back(word);
    g_understood.Flag("--json", context.json);
    g_understood.Flag("--yes", context.yes);
    g_understood.Value("--simulate", context.simulate);
}

void Add(const std::string& value)
{
    FUZZ_HOLDS(!value.empty());
    g_understood.values.push_back(value);
}

void Add(const std::wstring& value)
{
    Add(toolkit::ToUtf8(value));
}

void AddLimit(std::uint64_t limit, const std::string& start)
{
    if (limit != UINT64_MAX)
        g_understood.Number("--limit", limit);
    if (start != "0")
        g_understood.Value("--start", start);
    // As the command will read it.
    FUZZ_HOLDS(!start.empty());
    static_cast<void>(vtfltctl::bitmap::ParseSize(start));
}

void AddReading(const vtfltctl::bitmap::SelectionOptions& options)
{
    g_understood.Flag("--dump", options.dump);
    g_understood.Value("--block-size", options.blockSize);
    g_understood.Value("--volume-size", options.volumeSize);
    FUZZ_HOLDS(options.leadBytes == 0 || options.leadBytes == vtfltctl::bitmap::LEAD_BYTES);
    if (options.leadBytes == 0)
        g_understood.Value("--buffer-header", "0");
}

void AddSelection(const vtfltctl::bitmap::SelectionOptions& options)
{
    if (!options.file.empty())
        Add(options.file);
    g_understood.Value("--volume", options.volume);
    g_understood.Value("--app", options.application);
    FUZZ_HOLDS(options.which == "base" || options.which == "child" || options.which == "both");
    if (options.which != "both")
        g_understood.Value("--which", options.which);
    FUZZ_HOLDS(options.volume.empty() == options.application.empty());
    FUZZ_HOLDS(options.file.empty() || options.volume.empty());
    AddReading(options);
}

} // namespace

namespace vtfltctl {

Exit ShowStatus(const Context& context)
{
    Called(context, "status");
    return Exit::Ok;
}

Exit RunDoctor(const Context& context, bool reinstall)
{
    Called(context, "doctor");
    g_understood.Flag("--reinstall", reinstall);
    return Exit::Ok;
}

Exit ListApplications(const Context& context)
{
    Called(context, "apps list");
    return Exit::Ok;
}

Exit RegisterApplication(const Context& context, const std::wstring& application)
{
    Called(context, "apps register");
    Add(application);
    return Exit::Ok;
}

Exit UnregisterApplication(const Context& context, const std::wstring& application)
{
    Called(context, "apps unregister");
    Add(application);
    return Exit::Ok;
}

Exit CleanApplication(const Context& context, const CleanOptions& options)
{
    Called(context, "apps clean");
    Add(options.application);
    g_understood.Value("--volume", options.volume);
    return Exit::Ok;
}

Exit ListVerify(const Context& context, const VerifyOptions& options)
{
    Called(context, "verify list");
    if (!options.application.empty())
        Add(options.application);
    FUZZ_HOLDS(options.volumes.empty() && !options.all && !options.exact && !options.pending);
    return Exit::Ok;
}

Exit AddVerify(const Context& context, const VerifyOptions& options)
{
    Called(context, "verify add");
    Add(options.application);
    for (const std::string& volume : options.volumes)
        Add(volume);
    g_understood.Flag("--all", options.all);
    FUZZ_HOLDS(!options.exact && !options.pending);
    return Exit::Ok;
}

Exit RemoveVerify(const Context& context, const VerifyOptions& options)
{
    Called(context, "verify remove");
    Add(options.application);
    FUZZ_HOLDS(!options.volumes.empty() && !options.all);
    for (const std::string& volume : options.volumes)
        Add(volume);
    g_understood.Flag("--exact", options.exact);
    g_understood.Flag("--pending", options.pending);
    return Exit::Ok;
}

Exit ReplicateVerify(const Context& context, const VerifyOptions& options)
{
    Called(context, "verify replicate");
    Add(options.application);
    FUZZ_HOLDS(options.volumes.empty() && !options.all && !options.exact && !options.pending);
    return Exit::Ok;
}

Exit RebuildLists(const Context& context)
{
    Called(context, "verify rebuild");
    return Exit::Ok;
}

Exit CountRequests(const Context& context, const std::wstring& classKey)
{
    Called(context, "monitor count");
    if (!classKey.empty())
        Add(classKey);
    return Exit::Ok;
}

Exit SwitchOn(const Context& context, const std::wstring& classKey)
{
    Called(context, "monitor on");
    if (!classKey.empty())
        Add(classKey);
    return Exit::Ok;
}

Exit SwitchOff(const Context& context, const std::wstring& classKey)
{
    Called(context, "monitor off");
    if (!classKey.empty())
        Add(classKey);
    return Exit::Ok;
}

Exit StopTracking(const Context& context, const StopOptions& options)
{
    Called(context, "stop");
    if (!options.volume.empty())
        Add(options.volume);
    g_understood.Flag("--all", options.all);
    return Exit::Ok;
}

Exit AskAboutDevice(const Context& context, const std::wstring& name)
{
    Called(context, "device");
    Add(name);
    return Exit::Ok;
}

Exit ShowBitmap(const Context& context, const bitmap::SelectionOptions& options)
{
    Called(context, "bitmap info");
    AddSelection(options);
    return Exit::Ok;
}

Exit ListExtents(const Context& context, const ExtentOptions& options)
{
    Called(context, "bitmap extents");
    AddSelection(options.selection);
    AddLimit(options.limit, options.start);
    return Exit::Ok;
}

Exit ShowDifference(const Context& context, const DiffOptions& options)
{
    Called(context, "bitmap diff");
    Add(options.first);
    Add(options.second);
    g_understood.Flag("--list", options.list);
    AddLimit(options.limit, options.start);
    AddReading(options.reading);
    return Exit::Ok;
}

Exit DrawMap(const Context& context, const MapOptions& options)
{
    Called(context, "bitmap map");
    AddSelection(options.selection);
    g_understood.Value("--png", options.png);
    g_understood.Flag("--ansi", options.ansi);
    FUZZ_HOLDS(options.columns == 32 || options.columns == 64 || options.columns == 128 || options.columns == 256);
    if (options.columns != 64)
        g_understood.Number("--columns", options.columns);
    FUZZ_HOLDS(options.png.empty() || !options.ansi);
    return Exit::Ok;
}

Exit PrintCompletion(const Context& context, const std::string& shell)
{
    Called(context, "completion");
    FUZZ_HOLDS(shell == "bash" || shell == "powershell");
    Add(shell);
    return Exit::Ok;
}

Exit PrintManual(const Context& context)
{
    Called(context, "man");
    return Exit::Ok;
}

} // namespace vtfltctl

namespace fuzz {

namespace {

// Asked for in JSON, a refusal is an object that says so.
void CheckRefusal(const Said& said)
{
    const auto object = nlohmann::json::parse(said.printed, nullptr, false);
    FUZZ_HOLDS(object.is_object() && object.value("result", "") == "usage");
    FUZZ_HOLDS(!object.value("message", "").empty());
}

constexpr const char* WORDS[] = {
    "status",
    "doctor",
    "apps",
    "verify",
    "monitor",
    "stop",
    "device",
    "bitmap",
    "completion",
    "man",
    "list",
    "register",
    "unregister",
    "clean",
    "add",
    "remove",
    "replicate",
    "rebuild",
    "count",
    "on",
    "off",
    "info",
    "extents",
    "diff",
    "map",
    "Nightly",
    "E:",
    "a.dat",
    "bash",
    "{11111111-2222-3333-4444-555555555555}",
    "--json",
    "--yes",
    "--simulate",
    "--simulate=S",
    "--all",
    "--exact",
    "--pending",
    "--reinstall",
    "--volume=E:",
    "--app=Nightly",
    "--which=base",
    "--dump",
    "--block-size=64K",
    "--volume-size=1T",
    "--buffer-header=0",
    "--start=512G",
    "--limit=010",
    "--list",
    "--png=a.png",
    "--ansi",
    "--columns=128",
    "--",
    "--help",
    "--version",
    "--volume=",
    "[a,b]",
    "-App",
    "--volume",
    "--yes=false",
};

} // namespace

Answered AskVtfltctl(const Arguments& arguments)
{
    TheSaid() = {};
    g_understood = {};
    vtfltctl::Context context;
    // As the program does it, before the command line is understood.
    const bool json = std::find(arguments.begin(), arguments.end(), "--json") != arguments.end();
    context.json = json;
    Answered answered = {vtfltctl::ParseCommandLine(arguments, context), {}, TheSaid()};
    if (answered.exitCode == 2 && json)
        CheckRefusal(answered.said);
    if (answered.exitCode)
        return answered;
    FUZZ_HOLDS(context.action != nullptr && answered.said == Said() && context.arguments == arguments);
    context.action();
    answered.understood = g_understood;
    return answered;
}

void VtfltctlCommandLine(const std::uint8_t* bytes, std::size_t count)
{
    Input input(bytes, count);
    CheckCommandLine(AskVtfltctl, TakeArguments(input, WORDS));
}

} // namespace fuzz
