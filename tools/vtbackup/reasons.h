// Why a backup reads the whole volume: a stable code for programs, and words for people.
#pragma once

#include <string>
#include <vector>

namespace vtbackup {

struct Reason {
    std::string code;
    std::string text;
};

namespace reason {

// Each of these makes the backup a full one.
inline Reason FirstBackup()
{
    return {"first-backup", "the chain has no backup yet"};
}
inline Reason ChainDamaged(const std::string& what)
{
    return {"chain-damaged", what};
}
inline Reason BlockSizeChanged(const std::string& what)
{
    return {"block-size-changed", what};
}
inline Reason FullRequested()
{
    return {"full-requested", "asked for on the command line"};
}

// Each of these makes it a verify.
inline Reason VerifyRequested()
{
    return {"verify-requested", "asked for on the command line"};
}
inline Reason VerifyList()
{
    return {"verify-required", "the volume lost tracking or one of its bitmaps is unusable"};
}
inline Reason AuditFoundLoss(const std::string& what)
{
    return {"audit-found-loss", what};
}
inline Reason TrackingLostMeanwhile()
{
    return {"tracking-lost-meanwhile", "tracking was lost while the backup was being prepared"};
}
inline Reason BitmapShort()
{
    return {"bitmap-incomplete", "the bitmap was handed over as possibly incomplete"};
}
inline Reason LengthChanged(const std::string& what)
{
    return {"length-changed", what};
}
inline Reason GeometryMoved()
{
    return {"geometry-changed-meanwhile", "block size or length changed while the backup was being prepared"};
}
inline Reason ChangesTakenElsewhere(const std::string& what)
{
    return {"changes-taken-elsewhere", what};
}
inline Reason SnapshotChangesLost()
{
    return {"snapshot-changes-lost", "changes of the previous backup's snapshot could not be handed back"};
}

} // namespace reason
} // namespace vtbackup
