// The backup cycle: one backup of one volume for one application.
#pragma once

#include "lost_tracking.h"
#include "machine.h"
#include "manifest.h"
#include "repository.h"

#include <string>
#include <vector>

namespace vtbackup {

struct BackupRequest {
    std::wstring application;
    VolumeName volume;
    bool full = false;   // read everything into a backup that stands alone
    bool verify = false; // read everything and compare
    bool registerFirst = false;
    std::uint64_t audit = 0;   // so many blocks that the bitmap calls clean are compared with the chain
    bool keepSnapshot = false; // for a caller that wants to compare; it deletes the snapshot itself
};

struct BackupResult {
    Manifest manifest;
    std::string snapshotDevice; // only when it was kept
    std::string snapshotId;
    std::string snapshotChanges; // "none", "handed-back", "untracked" or "failed"
    std::string snapshotNote; // why snapshots are untracked although the application asked for it, and which are left
    std::string notReported;  // not empty: why success was not reported
    LossNews losses;          // that earlier audits found; NoteSaid takes what of it has been said
};

// Throws Failure (LostTracking when the audit finds a loss); then no backup was made and nothing was forgotten. A result with a
// notReported text is in the repository, and the changes come again with the next backup.
BackupResult RunBackup(const Machine& machine, const Repository& repository, const BackupRequest& request);

// Whether the list of applications has it. Where that cannot be read there is a Failure, and no answer: the export says
// no then, and also when the driver is silent.
bool IsRegistered(const std::wstring& application);
// The application's lock and those of all fixed volumes. The thread that has them may take them again. Throws
// Failure(Busy).
std::vector<Lock> LockEverything(const Machine& machine, const std::wstring& application, const wchar_t* work);
// Registers an application that is not registered yet, under all these locks. Checks the ID first.
void RegisterApplication(const Machine& machine, const std::wstring& application);
// Unregisters it under the same locks.
void UnregisterApplication(const Machine& machine, const std::wstring& application);

// Throws Failure(Refused) with the reason for an ID that must not be used beside the registered ones.
void CheckApplicationId(const std::wstring& application);
// Throws Failure(DriverDown).
void RequireDriver();

} // namespace vtbackup
