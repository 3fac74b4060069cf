// vtlog show: the way from the files to the screen.
#include "commands.h"
#include "common/text.h"
#include "console.h"
#include "entry_text.h"
#include "merge.h"
#include "show_filter.h"
#include "why.h"

#include "win/windows.h"

#include <fmt/format.h>

#include <algorithm>
#include <memory>

namespace vtlog {
namespace {

RecordTime Now()
{
    SYSTEMTIME now = {};
    GetLocalTime(&now);
    return {now.wYear, now.wMonth, now.wDay, now.wHour, now.wMinute, now.wSecond, now.wMilliseconds};
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

} // namespace

Exit RunShow(const ShowOptions& options)
{
    const EntryFilter filter = FilterOf(options, Now());
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

} // namespace vtlog
