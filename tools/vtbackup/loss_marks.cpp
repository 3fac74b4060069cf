#include "loss_marks.h"

#include "failure.h"
#include "library.h"
#include "text.h"

#include <vtfltmgr/VTFltMgr.h>

#include <fmt/format.h>

#include <algorithm>
#include <optional>

namespace vtbackup {
namespace {

// One application's mark.
struct Mark {
    std::string problem;    // not empty: the mark is not there, or may not stay, and another try may help; why
    bool fixedOnly = false; // the mark never can be there
};

// Puts every fixed volume on one application's verify list and looks whether this volume is there.
Mark MarkOne(const Machine& machine, const std::wstring& id, const std::wstring& own, const VolumeName& volume)
{
    // A backup of that application, of another volume, writes its verify list back when it ends, and a mark set
    // meanwhile may get lost. It is set all the same; but it is not relied on.
    std::optional<Lock> lock;
    std::string busy;
    if (id != own) {
        try {
            lock.emplace(machine.Locks().Application(id), LockPurpose{id, volume.guid, L"mark"},
                         fmt::format("application \"{}\"", ToUtf8(id)));
        } catch (const Failure& failure) {
            busy = fmt::format("the mark is set, but may be taken off again: {}", failure.what());
        }
    }
    if (const DWORD result = VTAddVolumesToAppVerifyList(id.c_str()); result != 0)
        return {fmt::format("VTAddVolumesToAppVerifyList failed: {}", ErrorText(result))};
    // 0 is the answer of a driver that is down as well.
    if (VTCanBLIDriverWork() == 0)
        return {"the driver went down"};
    if (VTIsVerifyRequired(id.c_str(), volume.Path().c_str()) != 0)
        return {busy};
    if (IsKnownNotToBeFixed(volume))
        return {{}, true};
    return {"the volume is not on its verify list"};
}

bool Contains(const std::vector<std::string>& list, const std::string& name)
{
    return std::find(list.begin(), list.end(), name) != list.end();
}

} // namespace

std::string Joined(const std::string& first, const std::string& second)
{
    return first.empty() || second.empty() ? first + second : first + "; " + second;
}

std::string FixedOnlyText(const std::vector<std::string>& applications)
{
    std::string text;
    for (const std::string& name : applications)
        text = Joined(text, fmt::format("application \"{}\": its fixed volumes are marked, but no verify list can name "
                                        "this one, which is not fixed",
                                        name));
    return text;
}

// The driver keeps one bitmap for all applications: what it missed is missing in each one's. The library's export
// marks all fixed volumes or none, which suits the case: a driver that missed a write on one volume is not to be
// believed on the others.
Marking MarkApplications(const Machine& machine, const Chain& chain, const Marking& before)
{
    const std::wstring own = ToWide(chain.Application());
    Marking marking{before.marked, before.fixedOnly, {}};
    std::vector<std::wstring> ids = {own};
    try {
        for (std::wstring& id : RegisteredApplications()) {
            if (id != own)
                ids.push_back(std::move(id));
        }
    } catch (const Failure& failure) {
        marking.problem = fmt::format("which applications there are is not known: {}", failure.what());
    }
    for (const std::wstring& id : ids) {
        const std::string name = ToUtf8(id);
        if (Contains(marking.marked, name) || Contains(marking.fixedOnly, name))
            continue;
        const Mark mark = MarkOne(machine, id, own, chain.Volume());
        if (!mark.problem.empty())
            marking.problem = Joined(marking.problem, fmt::format("application \"{}\": {}", name, mark.problem));
        else
            (mark.fixedOnly ? marking.fixedOnly : marking.marked).push_back(name);
    }
    return marking;
}

std::vector<std::string> Strangers(const Machine& machine, const Chain& chain, const Marking& marking)
{
    std::vector<std::string> strangers = marking.marked;
    std::erase_if(strangers, [&](const std::string& name) {
        return name == chain.Application() || machine.State().Read(name, chain.Volume()).has_value();
    });
    return strangers;
}

std::vector<std::string> WithoutMark(const Chain& chain, const std::vector<std::string>& applications)
{
    std::optional<std::vector<std::wstring>> registered;
    try {
        registered = RegisteredApplications();
    } catch (const Failure&) {
        // Then nobody is known to be gone.
    }
    std::vector<std::string> without = applications;
    std::erase_if(without, [&](const std::string& name) {
        const std::wstring id = ToWide(name);
        // One that is no longer registered has nothing to lose; a driver that is down has every application verify.
        if (registered && std::find(registered->begin(), registered->end(), id) == registered->end())
            return true;
        return VTIsVerifyRequired(id.c_str(), chain.Volume().Path().c_str()) != 0;
    });
    return without;
}

} // namespace vtbackup
