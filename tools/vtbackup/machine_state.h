// What this machine remembers between backups, beside the library's own lists and bitmaps.
//
// The library forgets an application's changes as soon as any backup of the volume reports success, whatever
// repository that backup went into. Without a note of where the last success went, two repositories of one
// application would take turns losing changes, and so would a repository that was rolled back to an older copy.
#pragma once

#include "repository.h"
#include "volume.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vtbackup {

// A backup of a chain, by what nobody can make twice.
struct BackupMark {
    std::uint64_t sequence = 0;
    std::string manifestChecksum;
};

// The backup that a chain may go on from, and nothing else: the library's bitmaps hold what changed since then. A
// later backup that this machine does not know was written by another one, or by a later state of this one that was
// rolled back, and the bitmaps know nothing of the difference.
struct LastSuccess {
    std::string repository; // its id
    BackupMark backup;
    // While a backup is being committed, the one before it: whichever is found to be the chain's last afterwards,
    // success was not reported since, and the bitmaps still hold everything since the earlier one.
    std::optional<BackupMark> before;
};

class MachineState {
public:
    // folder: %ProgramData%\vtbackup, or inside the simulated machine's directory.
    explicit MachineState(std::wstring folder) : m_folder(std::move(folder)) {}

    // Nothing when there is no readable note: the caller then has to verify.
    [[nodiscard]] std::optional<LastSuccess> Read(const std::string& application, const VolumeName& volume) const;
    // Durable when it returns. Written before success is reported: a crash in between costs nothing, because the
    // changes then come again.
    void Write(const std::string& application, const VolumeName& volume, const LastSuccess& success) const;
    // Forgets an application. Called before it is registered afresh, which empties its bitmaps.
    void Forget(const std::string& application) const;

    // Whether this application asked for the tracking of snapshots: the library counts each request, so it is made
    // once and taken back once.
    [[nodiscard]] bool AskedForMonitoring(const std::string& application) const;
    void NoteMonitoring(const std::string& application, bool asked) const;

    // Snapshots that are to be deleted, should the process that made them not come to that. The oldest are forgotten when
    // they become very many.
    void NoteSnapshot(const std::string& application, const VolumeName& volume, const std::wstring& id) const;
    [[nodiscard]] std::vector<std::wstring> LeftSnapshots(const std::string& application,
                                                          const VolumeName& volume) const;
    void ForgetSnapshot(const std::string& application, const VolumeName& volume, const std::wstring& id) const;

private:
    [[nodiscard]] std::wstring ApplicationFolder(const std::string& application) const;
    [[nodiscard]] std::wstring File(const std::string& application, const VolumeName& volume,
                                    const wchar_t* ending) const;
    void WriteLeftSnapshots(const std::string& application, const VolumeName& volume,
                            const std::vector<std::wstring>& ids) const;

    std::wstring m_folder;
};

} // namespace vtbackup
