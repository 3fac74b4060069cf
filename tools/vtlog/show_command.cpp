// vtlog show: the command line, and the way from the files to the screen.
#include "command_line.h"
#include "common/text.h"
#include "console.h"
#include "entry_filter.h"
#include "entry_text.h"
#include "merge.h"
#include "time_text.h"
#include "why.h"

#include "win/windows.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <memory>

namespace vtlog {
namespace {

struct ShowOptions {
    std::vector<std::string> files;
    std::string level;
    std::vector<std::uint32_t> processes;
    std::vector<std::uint32_t> threads;
    std::vector<std::string> codes;
    std::vector<std::string> texts;
    bool ignoreCase = false;
    std::string since;
    std::string until;
    bool json = false;
    bool plain = false;
    bool only = false;
    unsigned codePage = 0;
    WhyOptions why;
};

RecordTime Now()
{
    SYSTEMTIME now = {};
    GetLocalTime(&now);
    return {now.wYear, now.wMonth, now.wDay, now.wHour, now.wMinute, now.wSecond, now.wMilliseconds};
}

std::optional<RecordTime> TimeOption(const char* name, const std::string& text, Rounding rounding)
{
    if (text.empty())
        return std::nullopt;
    const auto time = ParseTimeText(text, Now(), rounding);
    if (!time)
        throw Failure(
            Exit::Usage,
            fmt::format("{}: \"{}\" is no time; write 2026/11/21, \"2026/11/21 10:00:01\", 10:00 or 2h", name, text));
    return time;
}

EntryFilter FilterOf(const ShowOptions& options)
{
    EntryFilter filter;
    if (!options.level.empty()) {
        filter.level = ParseLevel(options.level);
        if (!filter.level)
            throw Failure(Exit::Usage,
                          fmt::format("--level: \"{}\" is no level; write error, warning, information, detail, or a "
                                      "number",
                                      options.level));
    }
    for (const std::string& text : options.codes) {
        const auto code = ParseCode(text);
        if (!code)
            throw Failure(Exit::Usage,
                          fmt::format("--code: \"{}\" is no error code; write 5, 0x10001 or a name", text));
        filter.codes.push_back(*code);
    }
    filter.processes = options.processes;
    filter.threads = options.threads;
    for (const std::string& text : options.texts)
        filter.texts.push_back(toolkit::ToWide(text));
    filter.ignoreCase = options.ignoreCase;
    filter.since = TimeOption("--since", options.since, Rounding::Earliest);
    filter.until = TimeOption("--until", options.until, Rounding::Latest);
    return filter;
}

// Every file once, each with its successors, in the order of the command line.
std::vector<LogReader> OpenLogs(const ShowOptions& options, const ReadOptions& read)
{
    std::vector<LogReader> logs;
    std::vector<std::wstring> known;
    const auto isNew = [&known](const std::wstring& path) {
        const std::wstring full = FullPath(path);
        for (const std::wstring& other : known) {
            if (toolkit::EqualIgnoringCase(other, full))
                return false;
        }
        known.push_back(full);
        return true;
    };
    std::vector<std::wstring> named;
    for (const std::string& file : options.files)
        named.push_back(toolkit::ToWide(file));
    // A successor that is named itself is read with the log that it belongs to.
    std::stable_sort(named.begin(), named.end(), [](const std::wstring& a, const std::wstring& b) {
        return SuccessorNumber(a) < SuccessorNumber(b);
    });
    for (const std::wstring& path : named) {
        LogChain chain = FindChain(path, read);
        std::erase_if(chain.paths, [&isNew](const std::wstring& one) { return !isNew(one); });
        for (const std::string& note : chain.notes)
            Diagnose(note);
        if (OrderByTime(chain.paths, read))
            Diagnose(fmt::format("the files of {} are read by their times, which are not in the order of their numbers",
                                 toolkit::ToUtf8(path)));
        if (!chain.paths.empty())
            logs.emplace_back(std::move(chain.paths), read);
    }
    return logs;
}

std::string TextOf(const MergedEntry& merged, const ShowOptions& options)
{
    if (options.json)
        return JsonText(EntryObject(merged.entry, merged.path));
    return options.plain ? PlainText(merged.entry) : ReadableText(merged.entry);
}

Exit Show(const ShowOptions& options)
{
    const EntryFilter filter = FilterOf(options);
    Exit worst = Exit::Ok;
    ReadOptions read;
    read.codePage = options.codePage;
    read.followSuccessors = !options.only;
    read.failed = [&worst](const Failure& failure) {
        Diagnose(failure.what());
        worst = std::max(worst, failure.Code());
    };
    MergeReader logs(OpenLogs(options, read));
    if (!options.why.volume.empty()) {
        const Exit answer = Why(options.why, logs);
        return worst == Exit::Ok ? answer : worst;
    }
    std::size_t left = 0; // out, not being records
    MergedEntry merged;
    while (logs.Next(merged)) {
        const bool record = merged.entry.kind == EntryKind::Record;
        if (!filter.Empty() && !(record && filter.Passes(merged.entry))) {
            left += record ? 0 : 1;
            continue;
        }
        if (!Print(TextOf(merged, options)))
            return worst; // whoever reads has seen enough
    }
    if (!Flush())
        return worst;
    if (left != 0)
        Diagnose(fmt::format("{} line{} that {} no record left out: filters choose among records", left,
                             left == 1 ? "" : "s", left == 1 ? "is" : "are"));
    if (worst == Exit::Ok && !logs.AnyLog()) {
        Diagnose("no record found: not a log of VTFltMgr, or an empty one");
        return Exit::NoLog;
    }
    return worst;
}

} // namespace

void AddShow(CLI::App& app, Action& action)
{
    CLI::App& command = *app.add_subcommand("show", "Read log files, with their successors, in the order of time");
    const auto options = std::make_shared<ShowOptions>();
    command.add_option("file", options->files, "log files, such as Logs\\VTFltMgr.dll.Log")->required();
    auto* level = command.add_option("--level", options->level,
                                     "this level and more important ones: error, warning, information, "
                                     "detail, or a number");
    auto* processes = command.add_option("--pid", options->processes, "records of these processes");
    auto* threads = command.add_option("--tid", options->threads, "records of these threads");
    auto* codes = command.add_option("--code", options->codes, "records with these error codes: 5, 0x10001 or a name");
    auto* texts = command.add_option("--grep", options->texts, "records that hold this text; repeated: all of them");
    command.add_flag("--ignore-case", options->ignoreCase, "--grep takes capital and small letters as the same");
    auto* since = command.add_option("--since", options->since,
                                     "records from this time on: 2026/11/21, \"2026/11/21 10:00:01\", "
                                     "10:00 of today, or 2h ago (s, m, h, d)");
    auto* until = command.add_option("--until", options->until,
                                     "records up to this time, with all of the day, minute or second "
                                     "that it names");
    auto* json = command.add_flag("--json", options->json, "one JSON object a line");
    auto* plain = command.add_flag("--plain", options->plain, "the records as the files have them, in UTF-8");
    plain->excludes(json);
    command.add_flag("--only", options->only, "read the files named, not their successors");
    command.add_option("--code-page", options->codePage, "code page of narrow files; the system's without it");
    auto* why = command.add_option("--why", options->why.volume,
                                   "instead of records: why the next backup of this volume must verify; {GUID}, "
                                   "\\\\?\\Volume{GUID}\\ or a mount path such as E:");
    // Empty, as a variable of a script that is not set, it would mean this machine.
    command.add_option("--simulate", options->why.simulate, "--why looks at the simulated machine in this folder")
        ->check([](const std::string& folder) { return folder.empty() ? "may not be empty" : ""; })
        ->needs(why);
    command
        .add_flag("--other-machine", options->why.otherMachine,
                  "--why looks at the log alone, not at the lists of this machine")
        ->needs(why);
    for (CLI::Option* filter : {level, processes, threads, codes, texts, since, until, plain})
        why->excludes(filter);
    command.callback([options, &action] {
        options->why.json = options->json;
        action = [options] { return Show(*options); };
    });
}

} // namespace vtlog
