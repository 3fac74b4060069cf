#include "proof/sweep_path.h"

#include "proof/call_counts.h"
#include "proof/current_run.h"
#include "support/text.h"

#include <algorithm>

namespace vtproof {

namespace {

// The number of bytes stands behind the bar.
std::uint32_t BytesOf(const std::wstring& line)
{
    std::uint32_t bytes = 0;
    for (std::size_t i = line.find(L'|') + 1; i != 0 && i < line.size(); ++i)
        bytes = bytes * 10 + static_cast<std::uint32_t>(line[i] - L'0');
    return bytes;
}

// What a file is opened for shows in the call that comes next.
void NoteFiles(const std::vector<std::wstring>& lines, std::uint32_t application, SweepPath& path)
{
    std::uint32_t opened = 0;
    std::uint32_t reads = 0;
    for (std::size_t i = 0; i < path.calls.size(); ++i) {
        if (path.calls[i] == L"CreateFileW") {
            ++opened;
            if (i + 1 < path.calls.size() && path.calls[i + 1] == L"SetFilePointer")
                path.emptying.push_back(opened);
        }
        if (path.calls[i] == L"WriteFile")
            path.writes.push_back({static_cast<std::uint32_t>(path.writes.size() + 1), BytesOf(lines[i])});
        if (path.calls[i] != L"ReadFile")
            continue;
        const SweepTransfer read{++reads, BytesOf(lines[i])};
        // Another application's child whose head cannot be read whole, without an error, is taken for unusable: that
        // application asks, and finds it sound (Limit.AnothersFileWhoseHeader...).
        const bool isChild = lines[i].find(L"_child_") != std::wstring::npos;
        const bool isOwn = lines[i].find(L"_App" + vttest::WideNumber(application) + L".") != std::wstring::npos;
        if (i == 0 || path.calls[i - 1] != L"CreateFileW")
            path.bodies.push_back(read);
        else if (!isChild || isOwn)
            path.heads.push_back(read);
    }
}

} // namespace

SweepPath FollowPath(const History& history, const Fault& fault, std::string& wrong)
{
    SweepPath path;
    History followed = history;
    if (fault.how != Fault::How::None)
        followed.operations.back().faults = {fault};
    const CurrentRun current("./dev sim --replay \"" + ToText(followed) + "\"");
    World world(history.volumes);
    for (std::size_t i = 0; i + 1 < followed.operations.size(); ++i) {
        wrong = world.Run(followed.operations[i]);
        if (!wrong.empty())
            return path;
    }
    VTFltSimRecord(1);
    const World::Calls calls = world.CountCalls(followed.operations.back());
    VTFltSimRecord(0);
    const std::vector<std::wstring> lines = vtfltsim::Trace();
    for (const std::wstring& line : lines)
        path.calls.push_back(line.substr(0, line.find(L' ')));
    path.calls.resize(
        std::min<std::size_t>(path.calls.size(), calls.all)); // without what the world itself looks at behind
    std::copy_if(path.calls.begin(), path.calls.end(), std::back_inserter(path.refusable),
                 [](const std::wstring& function) { return !GivesBack(function); });
    path.allocations = calls.allocations;
    NoteFiles(lines, followed.operations.back().application, path);
    return path;
}

bool SaysWhetherSomethingIsThere(const std::wstring& function)
{
    constexpr const wchar_t* ASKED[] = {L"CreateFile", L"RegOpen", L"RegQuery", L"Find", L"GetFileAttributes"};
    // RegCreateKeyW opens the key of the list of applications, and a key that is absent means that there are none.
    // RegCreateKeyExW makes the keys in which a list or a count that is absent is known by the question for its value.
    return function == L"RegCreateKeyW" || std::any_of(std::begin(ASKED), std::end(ASKED), [&](const wchar_t* prefix) {
               return function.rfind(prefix, 0) == 0;
           });
}

} // namespace vtproof
