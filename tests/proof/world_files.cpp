// What becomes of the bitmap files when something goes wrong: they are old, or new, or unusable.
//
// Looked at right behind the operation, and behind the power cut that follows it, before anybody can write them again.
#include "proof/world.h"

#include <algorithm>

namespace vtproof {

namespace {

bool Fetches(Do what)
{
    return what == Do::Fetch || what == Do::Backup;
}

bool Registers(Do what)
{
    return what == Do::Register || what == Do::RegisterAgain;
}

bool Finishes(Do what)
{
    return what == Do::Finish || what == Do::Backup;
}

} // namespace

BitmapFile World::ReadFile(std::size_t number, std::size_t volume, bool base) const
{
    static std::uint8_t bytes[LARGEST_BITMAP_FILE];
    const std::size_t read =
        DoubleReadFile(FilePath(m_applications[number], volume, base).c_str(), bytes, sizeof(bytes));
    return ReadBitmapFile(bytes, read != SIZE_MAX ? read : 0);
}

void World::StartWatching(const Operation& operation)
{
    const Session& session = m_applications[operation.application].session;
    m_watched = Watched();
    m_watched.on = true;
    m_watched.operation = operation;
    if (session.open == (operation.what != Do::Backup))
        m_watched.volume = session.open ? session.volume : operation.volume;
    for (std::size_t volume = 0; volume < m_volumes.size(); ++volume) {
        for (std::size_t number = 0; number < m_applications.size(); ++number)
            m_watched.files.push_back({ReadFile(number, volume, false), ReadFile(number, volume, true)});
    }
    if (m_watched.volume == NOWHERE || !Fetches(operation.what))
        return;
    // Writes since the snapshot are handed out with the next one, unless nobody fetches for this one.
    const vtfltsim::Volume& volume = m_volumes[m_watched.volume];
    const Bits all = m_machine->Bits(volume);
    Bits ofSnapshot =
        Either(m_machine->Bits(volume, VTFLTSIM_BITS_FROZEN), m_machine->Bits(volume, VTFLTSIM_BITS_PENDING));
    m_watched.bitmapBytes = (all.size() + 7) / 8 * 8; // as the driver asks for
    TrimZeros(ofSnapshot);
    m_watched.driver = {Cut(all, all.size()), ofSnapshot};
}

std::string World::CheckWatched()
{
    std::string wrong;
    for (std::size_t volume = 0; volume < m_volumes.size() && m_watched.on; ++volume) {
        for (std::size_t number = 0; number < m_applications.size(); ++number) {
            for (const bool base : {false, true}) {
                if (wrong.empty())
                    wrong = CheckWatched(number, volume, base);
            }
            if (wrong.empty() && volume == m_watched.volume && Fetches(m_watched.operation.what))
                wrong = CheckOwed(number, volume);
        }
    }
    if (wrong.empty() && m_watched.on && m_watched.handedBack)
        wrong = CheckHandedBack();
    return wrong;
}

// Somebody has the application verify the volume; a driver that was installed anew, say, lists it.
bool World::IsTold(const Application& application, std::size_t volume) const
{
    const std::wstring& id = application.id;
    return IsListedForResync(id + L".Last", volume) || IsListedForResync(id, volume) || IsListedForResync({}, volume);
}

// Changes of the snapshot that were taken are in the child, or the application is told.
std::string World::CheckHandedBack() const
{
    const std::size_t number = m_watched.operation.application;
    const std::size_t volume = m_watched.volume;
    const BitmapFile child = ReadFile(number, volume, false);
    if (!child.usable || !ReadFile(number, volume, true).usable || IsTold(m_applications[number], volume) ||
        IsMixed(number, volume, false, child))
        return {};
    // As for what is owed: a write that was short counts as done, and is not flushed.
    if (m_watched.cut && IsCutFile(number, volume, false, false))
        return {};
    Count(&Verdicts::handedBack);
    if (Either(child.bits, m_watched.changes) == child.bits)
        return {};
    return "changes of the snapshot that application " + std::to_string(number) + " handed back on volume " +
           std::to_string(volume) + " are not in its child";
}

// While changes of a snapshot are merged the volume is on the verify list, and stays there when that fails: what was
// written of the child may be anything. Where another call than those on files failed, the mark itself may have been that.
std::string World::CheckMarkOfFailedChanges(const Application& application) const
{
    const std::size_t volume = application.session.volume;
    const auto number = static_cast<std::size_t>(&application - m_applications.data());
    if (!FailsOnce() || !HasStruck({L"CreateFileW", L"ReadFile", L"WriteFile", L"SetFilePointer", L"GetFileSizeEx",
                                    L"FlushFileBuffers"}))
        return {};
    Count(&Verdicts::marked);
    if (IsListedForResync(application.id + L".Last", volume) || !ReadFile(number, volume, false).usable)
        return {};
    return "changes of a snapshot could not be handed back, and the volume is not on the verify list";
}

// What was owed to an application before is in its files, or the driver still has it, or the application is told.
std::string World::CheckOwed(std::size_t number, std::size_t volume) const
{
    const auto& before = m_watched.files[volume * m_applications.size() + number];
    const bool reported = m_watched.reports && number == m_watched.operation.application;
    // A write that is short without an error counts as done. Its file cannot be read; but it was not flushed either, so
    // a power cut may bring the old one back. The driver lists the volume then.
    const Application& application = m_applications[number];
    if (m_watched.cut && (IsCutFile(number, volume, false, false) || IsCutFile(number, volume, true, false)))
        return {};
    // Whoever registered behind the beginning of this backup has no backup yet (Limit.AnApplicationRegistersWhile...).
    if (reported || !before[0].usable || !before[1].usable || !m_expected.HasBackup(number, volume) ||
        !application.registered)
        return {};
    const BitmapFile child = ReadFile(number, volume, false);
    const BitmapFile base = ReadFile(number, volume, true);
    if (!child.usable || !base.usable || IsTold(application, volume) || IsMixed(number, volume, false, child) ||
        IsMixed(number, volume, true, base))
        return {};
    const Bits kept = Either(Either(child.bits, base.bits), m_machine->Bits(m_volumes[volume]));
    const Bits owed = Cut(Either(Either(before[0].bits, before[1].bits), m_watched.driver[0]), m_watched.bitmapBytes);
    Count(&Verdicts::owed);
    if (Cut(Either(kept, owed), kept.size()) == Cut(kept, kept.size()))
        return {};
    return "changes owed to application " + std::to_string(number) + " on volume " + std::to_string(volume) +
           " are neither in its files nor with the driver";
}

std::string World::CheckWatched(std::size_t number, std::size_t volume, bool base)
{
    const BitmapFile now = ReadFile(number, volume, base);
    const BitmapFile& before = m_watched.files[volume * m_applications.size() + number][base ? 1 : 0];
    if (before.usable || now.usable)
        Count(&Verdicts::files);
    if (before.usable && !now.usable)
        Count(&Verdicts::unusable);
    if (!now.usable || now == before)
        return {};
    // A power cut behind the second damage of a file may undo the first, too: none of it is the library's.
    const Operation& operation = m_watched.operation;
    const bool own = number == operation.application;
    if (operation.what == Do::Damage && own && volume == operation.volume && base == (operation.a != 0))
        return {};
    const auto wrong = [&](const char* what) {
        return std::string(base ? "the base" : "the child") + " of application " + std::to_string(number) +
               " on volume " + std::to_string(volume) + what;
    };
    MayBe bits = WhatMayBe(number, volume, base);
    const bool asWritten = bits.Holds(now.bits);
    bits.Add({}); // what a sector of it has that is emptied, to be written anew, when the power goes
    // Behind a torn write that was cut one sector is old, new or both, its numbers, too.
    if (m_watched.torn && (IsCutFile(number, volume, base, false) || IsCutFile(number, volume, base, true)))
        return bits.HoldsByBytes(now.bits) ? std::string() : wrong(" has what was neither there nor written");
    if (!asWritten && !(m_watched.torn && bits.HoldsBySectors(now.bits)))
        return wrong(" is neither old nor new nor unusable");
    const bool oldBlocks = before.usable && now.blockSize == before.blockSize;
    // A file that was damaged behind the fetch is written back from memory, with the blocks that it had then.
    const bool fromMemory = own && base && !before.usable && Finishes(operation.what);
    if (!oldBlocks && !fromMemory && now.blockSize != m_machine->Info(m_volumes[volume]).blockSize)
        return wrong(" has a block size that is neither old nor new");
    // What could not be read may have held changes: whoever begins it anew has the volume verified.
    const bool begunAnew = !before.usable && !(own && Registers(operation.what));
    const bool reported = m_watched.reports && own && volume == m_watched.volume;
    if (begunAnew && !reported && !IsListedForResync(m_applications[number].id + L".Last", volume) &&
        ReadFile(number, volume, !base).usable)
        return wrong(" was unusable and is begun anew, and nobody has to verify");
    return {};
}

// In it a write was short, without an error or because the process died. The library opens it by the volume's name, the world
// by its folder.
bool World::IsCutFile(std::size_t number, std::size_t volume, bool base, bool byDeath) const
{
    const std::wstring name = m_volumes[volume].guid + FileName(m_applications[number], base);
    return std::any_of(m_watched.cuts.begin(), m_watched.cuts.end(), [&](const CutTransfer& cut) {
        return cut.writes && cut.isCut && cut.kills == byDeath && std::wstring_view(cut.path.data()).ends_with(name);
    });
}

// A bitmap of more than a sector, rewritten in place, of which a power cut left some sectors old and some new
// (Limit.AFileWhoseMiddleIsWrongIsAccepted): the driver lists the volume.
bool World::IsMixed(std::size_t number, std::size_t volume, bool base, const BitmapFile& now) const
{
    return m_watched.torn && !WhatMayBe(number, volume, base).Holds(now.bits);
}

// The bits that a file may have behind the operation if it can be read.
MayBe World::WhatMayBe(std::size_t number, std::size_t volume, bool base) const
{
    const Operation& operation = m_watched.operation;
    const auto& files = m_watched.files[volume * m_applications.size() + number];
    const bool own = number == operation.application;
    MayBe bits(files[base ? 1 : 0].bits);
    if (own && Registers(operation.what))
        bits.Add({});
    if (volume != m_watched.volume)
        return bits;
    if (Fetches(operation.what)) {
        // Who asks again at once finds unusable what the first failure left, and begins it anew; the next one stops that. The
        // volume is marked, or, where it cannot be, the child is deleted: a verify by itself. What was begun anew may be the
        // child alone: its old bits are lost to the base then.
        const Application& application = m_applications[number];
        const bool begunAnew =
            own && base && application.asksAgain == AGAIN_AT_ONCE && !operation.faults.empty() &&
            (IsListedForResync(application.id + L".Last", volume) || !ReadFile(number, volume, false).usable);
        if (begunAnew)
            bits.Add({});
        if (own || !base)
            bits.AddCut(m_watched.bitmapBytes);
        for (const Bits& handedOut : m_watched.driver) {
            if (begunAnew)
                bits.AddWith(handedOut);
            if (own && base)
                bits.AddWith(Either(Cut(files[0].bits, m_watched.bitmapBytes), handedOut));
            else if (!own && !base)
                bits.AddWith(handedOut);
        }
        if (own && !base)
            bits.Add({}); // its base has it all
    }
    if (Finishes(operation.what) && own) {
        if (base && m_watched.reports)
            bits.Add({});
        if (!base)
            bits.AddWith(m_watched.changes);
    }
    return bits;
}

} // namespace vtproof
