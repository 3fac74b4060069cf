#include "held_snapshot.h"

#include "failure.h"
#include "text.h"

#include <fmt/format.h>

namespace vtbackup {
namespace {

void Add(std::string& left, const std::string& what)
{
    left += (left.empty() ? "" : "; ") + what;
}

std::string CouldNotBeDeleted(const std::wstring& name)
{
    return fmt::format("the snapshot {} could not be deleted: delete it by hand", ToUtf8(name));
}

} // namespace

HeldSnapshot::HeldSnapshot(const Machine& machine, const std::string& application, const VolumeName& volume,
                           std::string& left)
    : m_machine(machine), m_application(application), m_volume(volume), m_left(left),
      m_snapshot(machine.Snapshots().Create(volume))
{
    try {
        machine.State().NoteSnapshot(application, volume, m_snapshot.id);
    } catch (...) {
        if (!machine.Snapshots().Delete(m_snapshot.id))
            Add(m_left, CouldNotBeDeleted(m_snapshot.device));
        throw;
    }
}

HeldSnapshot::~HeldSnapshot()
{
    try {
        if (m_keep || m_machine.Snapshots().Delete(m_snapshot.id))
            m_machine.State().ForgetSnapshot(m_application, m_volume, m_snapshot.id);
        else
            Add(m_left, CouldNotBeDeleted(m_snapshot.device));
    } catch (...) { // a destructor that throws ends the program
        // The note stays, and the next backup tries again.
    }
}

std::string DeleteLeftSnapshots(const Machine& machine, const std::string& application, const VolumeName& volume)
{
    std::string left;
    SnapshotProvider& snapshots = machine.Snapshots();
    for (const std::wstring& id : machine.State().LeftSnapshots(application, volume)) {
        if (snapshots.NeverReusesIds() ? snapshots.Delete(id) : snapshots.IsGone(id))
            machine.State().ForgetSnapshot(application, volume, id);
        else
            Add(left, snapshots.NeverReusesIds()
                          ? CouldNotBeDeleted(id)
                          : fmt::format("the snapshot {} of an earlier backup is still there, unless another one has "
                                        "its name by now: delete it by hand",
                                        ToUtf8(id)));
    }
    return left;
}

} // namespace vtbackup
