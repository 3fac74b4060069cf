#include "machine.h"

#include "common/simulation.h"
#include "failure.h"
#include "file.h"

namespace vtbackup {
namespace {

std::wstring StateFolder(const std::wstring& simulate)
{
    // A simulated machine carries its state with it, so that it can be moved, and thrown away, as a whole. So does one under
    // which this program was started, as if it were the real one.
    const std::wstring simulated = toolkit::SimulatedFolder(simulate);
    if (!simulated.empty())
        return Join(AbsolutePath(simulated), L"vtbackup");
    wchar_t folder[MAX_PATH] = {};
    const DWORD length = GetEnvironmentVariableW(L"ProgramData", folder, MAX_PATH);
    return AbsolutePath(Join(length == 0 || length >= MAX_PATH ? L"C:\\ProgramData" : folder, L"vtbackup"));
}

} // namespace

Machine::Machine(const std::wstring& simulate, const std::wstring& snapshotCreate, const std::wstring& snapshotDelete)
    : m_locks(simulate), m_state(StateFolder(simulate))
{
    if (!simulate.empty()) {
        m_simulation.emplace(simulate);
        m_snapshots = m_simulation->Snapshots();
    } else if (!snapshotCreate.empty() && !snapshotDelete.empty()) {
        m_snapshots = MakeCommandSnapshots(snapshotCreate, snapshotDelete);
    }
}

SnapshotProvider& Machine::Snapshots() const
{
    if (!m_snapshots)
        throw Failure(Exit::Usage, "backups of the real machine need --snapshot-create and --snapshot-delete");
    return *m_snapshots;
}

} // namespace vtbackup
