#include "held_snapshot.h"

#include "failure.h"

namespace vtbackup {

HeldSnapshot::HeldSnapshot(const Machine& machine, const std::string& application, const VolumeName& volume)
    : m_machine(machine), m_application(application), m_volume(volume), m_snapshot(machine.Snapshots().Create(volume))
{
    try {
        machine.State().NoteSnapshot(application, volume, m_snapshot.id);
    } catch (...) {
        machine.Snapshots().Delete(m_snapshot.id);
        throw;
    }
}

HeldSnapshot::~HeldSnapshot()
{
    try {
        if (m_keep || m_machine.Snapshots().Delete(m_snapshot.id))
            m_machine.State().ForgetSnapshot(m_application, m_volume);
    } catch (...) { // a destructor that throws ends the program
        // The note stays, and the next backup tries again.
    }
}

void DeleteLeftSnapshot(const Machine& machine, const std::string& application, const VolumeName& volume)
{
    const std::wstring left = machine.State().LeftSnapshot(application, volume);
    if (left.empty() || !machine.Snapshots().NeverReusesIds())
        return;
    machine.Snapshots().Delete(left); // it may be gone already
    machine.State().ForgetSnapshot(application, volume);
}

} // namespace vtbackup
