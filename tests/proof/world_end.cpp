// How a history ends: everything is put right, and every application backs everything up.
#include "proof/world.h"

#include "proof/proof_log.h"

namespace vtproof {

// Every bitmap file is whole.
std::string World::CheckFiles() const
{
    for (std::size_t number = 0; number < m_applications.size(); ++number) {
        for (std::size_t volume = 0; volume < m_volumes.size() && m_applications[number].registered; ++volume) {
            for (const bool base : {false, true}) {
                if (!ReadFile(number, volume, base).exact)
                    return std::string(base ? "the base" : "the child") + " of application " + std::to_string(number) +
                           " on volume " + std::to_string(volume) + " is not whole";
            }
        }
    }
    return {};
}

bool World::HasBackup(std::size_t number) const
{
    bool has = false;
    for (std::size_t volume = 0; volume < m_volumes.size(); ++volume)
        has = has || m_expected.HasBackup(number, volume);
    return has;
}

std::string World::Settle(Thoroughly thoroughly)
{
    Tell("-- settling");
    Disarm();
    for (Application& application : m_applications) {
        std::string wrong = EndBackup(application);
        if (wrong.empty())
            wrong = TakeWrongAnswer();
        if (wrong.empty())
            wrong = EndGuest(application, false);
        if (!wrong.empty())
            return wrong;
    }
    PutRight();
    // Who unregistered and comes back has changes behind it that nobody kept: it verifies.
    for (std::uint32_t number = 0; number < m_applications.size(); ++number) {
        std::string wrong;
        if (!m_applications[number].registered && HasBackup(number))
            wrong = Run({Do::Register, number, 0, 0, 0, {}});
        if (!wrong.empty())
            return wrong;
    }
    const unsigned rounds = thoroughly == Thoroughly::Yes ? SETTLED_ROUNDS : 0;
    for (unsigned round = 0; round <= rounds; ++round) {
        for (std::uint32_t number = 0; number < m_applications.size(); ++number) {
            if (!m_applications[number].registered)
                continue;
            for (std::uint32_t volume = 0; volume < m_volumes.size(); ++volume) {
                const Chain& chain = m_applications[number].chains[volume];
                const Chain before = chain;
                std::string wrong = Run({Do::Write, 0, volume, 7 * (round + number), 3, {}});
                if (wrong.empty())
                    wrong = Run({Do::Backup, number, volume, 0, 0, {}});
                // Everything was put right: whatever happened before, each backup comes to its end.
                if (wrong.empty() && (chain.reported == before.reported ||
                                      (round == SETTLED_ROUNDS && chain.undisturbed == before.undisturbed)))
                    wrong = "a backup behind everything is not reported";
                if (!wrong.empty())
                    return wrong;
            }
        }
    }
    std::string wrong;
    if (thoroughly == Thoroughly::Yes)
        wrong = CheckFiles();
    for (Application& application : m_applications) {
        if (wrong.empty())
            wrong = EndGuest(application, false);
    }
    return wrong;
}

// What went wrong in a backup so far shows in what becomes of it. What is written now belongs to the next one.
std::string World::EndBackup(const Application& application)
{
    if (!application.session.open)
        return {};
    const auto number = static_cast<std::uint32_t>(&application - m_applications.data());
    const auto volume = static_cast<std::uint32_t>(application.session.volume);
    std::string wrong = Run({Do::Write, 0, volume, 20, 0, {}});
    if (wrong.empty() && !application.session.fetched)
        wrong = Run({Do::Fetch, number, 0, 0, 0, {}});
    if (wrong.empty())
        wrong = Run({Do::Finish, number, 0, 0, 0, {}});
    return wrong;
}

// What an administrator does.
void World::PutRight()
{
    m_machine->SetDriver(VTFLTSIM_DRIVER_WORKING);
    m_machine->SetFilters({L"volsnap", L"VTFlt"});
    for (std::size_t volume = 0; volume < m_volumes.size(); ++volume) {
        if (m_machine->Info(m_volumes[volume]).tracked == 0)
            VTFltSimStartTracking(m_machine->handle(), m_volumes[volume].guid.c_str());
        // A file cut short stands in everybody's way; deleted, it only makes its application verify. Nothing but damage,
        // a death, a short write or a cut leaves one.
        for (std::size_t number = 0; number < m_applications.size() && m_mayBeCutShort; ++number) {
            for (const bool base : {false, true}) {
                if (ReadFile(number, volume, base).cutShort)
                    DeleteFileW(FilePath(m_applications[number], volume, base).c_str());
            }
        }
    }
    m_mayBeCutShort = false;
    m_marksMany = true; // the driver that comes back has its list
}

namespace {

std::string RunToTheEnd(World& world, const History& history, World::Thoroughly thoroughly, bool* struck)
{
    for (std::size_t i = 0; i < history.operations.size(); ++i) {
        const bool beforeACut = i + 1 < history.operations.size() && history.operations[i + 1].what == Do::PowerCut;
        const std::string wrong = world.Run(history.operations[i], beforeACut);
        if (!wrong.empty())
            return "operation " + std::to_string(i) + ": " + wrong;
        if (struck != nullptr && !history.operations[i].faults.empty())
            *struck = world.Struck();
    }
    const std::string wrong = world.Settle(thoroughly);
    return wrong.empty() ? wrong : "at the end: " + wrong;
}

} // namespace

std::string RunHistory(const History& history, std::uint64_t* trace, bool tell, World::Thoroughly thoroughly,
                       bool* struck)
{
    World world(history.volumes);
    if (tell)
        world.TellStory();
    const std::string wrong = RunToTheEnd(world, history, thoroughly, struck);
    if (trace != nullptr)
        *trace = world.Trace();
    return wrong;
}

} // namespace vtproof
