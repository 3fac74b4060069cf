#include "proof/years.h"

#include "proof/current_run.h"
#include "proof/random_history.h"
#include "proof/world.h"

#include <array>

namespace vtproof {

namespace {

constexpr DWORD HOUR_MS = 60 * 60 * 1000;
constexpr std::uint32_t DAY = 24;
constexpr std::uint32_t WEEK = 7 * DAY;
constexpr std::uint32_t MONTH = 4 * WEEK;
// How often each application backs every volume up, in hours.
constexpr std::uint32_t PERIODS[APPLICATIONS] = {1, 4, DAY};

class Years {
public:
    explicit Years(const YearsOptions& options) : m_options(options), m_dice(options.seed), m_world(Shapes())
    {
        m_result.since.volumes = Shapes();
        m_shapes.assign(Shapes().size(), {});
    }

    YearsResult Run()
    {
        for (std::uint32_t application = 0; application < APPLICATIONS; ++application)
            Happen({Do::Register, application, 0, 0, 0, {}});
        Choose();
        while (Goes() && m_result.hours < m_options.hours) {
            Sleep(HOUR_MS);
            if (m_options.progress && !m_options.progress(m_result.hours))
                break;
            {
                const CurrentRun current("hour " + std::to_string(m_result.hours) + " of ./dev sim years --seed " +
                                         std::to_string(m_options.seed));
                Hour(m_result.hours);
            }
            m_result.hours += Goes() ? 1 : 0;
        }
        if (Goes())
            m_result.wrong = m_world.Settle();
        m_result.trace = m_world.Trace();
        return std::move(m_result);
    }

private:
    // One small, one with bitmaps of more than a sector.
    static const std::vector<VolumeShape>& Shapes()
    {
        static const std::vector<VolumeShape> shapes = {{120, 1024}, {6000, 512}};
        return shapes;
    }

    bool Goes() const { return m_result.wrong.empty(); }

    void Happen(const Operation& operation, bool beforeACut = false)
    {
        if (!Goes())
            return;
        m_result.since.operations.push_back(operation);
        ++m_result.operations;
        const Verdicts before = VerdictsSoFar();
        m_result.wrong = m_world.Run(operation, beforeACut);
        const Verdicts& now = VerdictsSoFar();
        m_result.backups += now.reported - before.reported + now.everything - before.everything;
        m_result.disturbances += now.struck - before.struck;
        if (operation.what == Do::Resize || operation.what == Do::SetBlockSize)
            m_shapes[operation.volume][operation.what == Do::Resize ? 0 : 1] = operation;
    }

    // Of the three one reads everything behind a fetch that failed, one asks again later, and one at once.
    void Choose()
    {
        for (std::uint32_t number = 0; number < APPLICATIONS; ++number)
            Happen({Do::AsksAgain, number, 0, AsksAgain(number), 0, {}});
    }
    std::uint32_t AsksAgain(std::uint32_t application) const
    {
        return static_cast<std::uint32_t>((application + m_options.seed) % AGAIN_COUNT);
    }

    void Hour(std::uint32_t hour)
    {
        // A quiet hour in four, as at night.
        for (std::uint32_t writes = m_dice.OneIn(4) ? 0 : m_dice.Below(6); writes > 0; --writes) {
            const std::uint32_t volume = m_dice.Below(static_cast<std::uint32_t>(Shapes().size()));
            Happen({Do::Write, 0, volume, ChooseGrain(m_dice, Shapes()[volume]), m_dice.Below(16), {}});
        }
        if (m_dice.OneIn(30)) {
            const Operation operation = ChooseOperation(m_dice, Shapes(), false);
            if (operation.what == Do::PowerCut)
                CutPower(operation);
            else
                Happen(operation);
            ++m_result.disturbances;
        }
        for (std::uint32_t application = 0; application < APPLICATIONS; ++application) {
            if (hour % PERIODS[application] == 0)
                BackUp(application);
        }
        if (m_dice.OneIn(2 * WEEK)) {
            CutPower({Do::PowerCut, 0, 0, m_dice.Below(1000), 0, {}});
            ++m_result.disturbances;
        }
        // Programs end and begin again.
        if (hour % DAY == DAY - 1)
            Happen({Do::Crash, m_dice.Below(APPLICATIONS), 0, 0, 0, {}});
        if (hour % WEEK == WEEK - 1)
            PutRight(hour % MONTH == MONTH - 1 ? World::Thoroughly::Yes : World::Thoroughly::No);
    }

    // The power goes in the middle of a backup, or right behind it.
    void CutPower(const Operation& cut)
    {
        const auto volume = m_dice.Below(static_cast<std::uint32_t>(Shapes().size()));
        BackUp(m_dice.Below(APPLICATIONS), volume, true);
        Happen(cut);
    }

    void BackUp(std::uint32_t application)
    {
        for (std::uint32_t volume = 0; volume < Shapes().size(); ++volume)
            BackUp(application, volume, false);
    }

    void BackUp(std::uint32_t application, std::uint32_t volume, bool beforeACut)
    {
        Operation backup{Do::Backup, application, volume, 0, 0, {}};
        if (m_dice.OneIn(beforeACut ? 2 : 50))
            backup.faults.push_back(ChooseFault(m_dice));
        Happen(backup, beforeACut);
    }

    // What an administrator does: everything works again, and who was thrown out is registered again.
    void PutRight(World::Thoroughly thoroughly)
    {
        for (std::uint32_t application = 0; application < APPLICATIONS; ++application)
            Happen({Do::Register, application, 0, 0, 0, {}});
        if (!Goes())
            return;
        m_result.wrong = m_world.Settle(thoroughly);
        if (!Goes() || thoroughly == World::Thoroughly::No)
            return;
        // Nothing of before may matter from here on but the volumes' shapes.
        std::vector<Operation>& since = m_result.since.operations;
        since.clear();
        for (const auto& shape : m_shapes) {
            for (const Operation& operation : shape) {
                if (operation.what != Do::Ask)
                    since.push_back(operation);
            }
        }
        for (std::uint32_t application = 0; application < APPLICATIONS; ++application)
            since.push_back({Do::Register, application, 0, 0, 0, {}});
        for (std::uint32_t application = 0; application < APPLICATIONS; ++application)
            since.push_back({Do::AsksAgain, application, 0, AsksAgain(application), 0, {}});
        for (std::uint32_t application = 0; application < APPLICATIONS; ++application) {
            for (std::uint32_t volume = 0; volume < Shapes().size(); ++volume)
                since.push_back({Do::Backup, application, volume, 0, 0, {}});
        }
    }

    YearsOptions m_options;
    Dice m_dice;
    World m_world;
    std::vector<std::array<Operation, 2>> m_shapes; // the last change of each volume's length and block size
    YearsResult m_result;
};

} // namespace

YearsResult RunYears(const YearsOptions& options)
{
    return Years(options).Run();
}

} // namespace vtproof
