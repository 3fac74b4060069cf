#include "proof/sweep_path.h"

#include <algorithm>

namespace vtproof {

namespace {

// A fault for any call lets these be: who holds something has no other way to give it back.
bool GivesBack(const std::wstring& function)
{
    constexpr const wchar_t* GIVE_BACK[] = {L"CloseHandle", L"FindClose",    L"FindVolumeClose", L"CloseServiceHandle",
                                            L"RegCloseKey", L"ReleaseMutex", L"UnmapViewOfFile"};
    return std::find(std::begin(GIVE_BACK), std::end(GIVE_BACK), function) != std::end(GIVE_BACK);
}

} // namespace

SweepPath FollowPath(const History& history, const Fault& fault, std::string& wrong)
{
    SweepPath path;
    World world(history.volumes);
    for (std::size_t i = 0; i + 1 < history.operations.size(); ++i) {
        wrong = world.Run(history.operations[i]);
        if (!wrong.empty())
            return path;
    }
    if (fault.how == Fault::How::Fail)
        vtfltsim::FailCall(L"*", fault.error, nullptr, fault.nth);
    VTFltSimRecord(1);
    const World::Calls calls = world.CountCalls(history.operations.back());
    VTFltSimRecord(0);
    for (const std::wstring& line : vtfltsim::Trace())
        path.calls.push_back(line.substr(0, line.find(L' ')));
    path.calls.resize(
        std::min<std::size_t>(path.calls.size(), calls.all)); // without what the world itself looks at behind
    std::copy_if(path.calls.begin(), path.calls.end(), std::back_inserter(path.refusable),
                 [](const std::wstring& function) { return !GivesBack(function); });
    path.allocations = calls.allocations;
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
