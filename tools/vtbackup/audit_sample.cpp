#include "audit_sample.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>

namespace vtbackup {
namespace {

constexpr std::uint64_t FEWEST_FOR_RULE_OF_THREE = 20;

// Below limit, every number with the same chance: what does not divide evenly is drawn again.
std::uint64_t Below(std::uint64_t limit, std::mt19937_64& random)
{
    std::uint64_t drawn = random();
    if (drawn < limit) { // else it divides evenly, and a long division is saved for almost every block of a volume
        const std::uint64_t uneven = (0 - limit) % limit; // 2^64 modulo limit
        while (drawn < uneven)
            drawn = random();
    }
    return drawn % limit;
}

} // namespace

SampleChooser::SampleChooser(std::uint64_t population, std::uint64_t wanted, std::mt19937_64 random)
    : m_left(population), m_wanted(std::min(population, wanted)), m_random(random)
{
}

bool SampleChooser::Take()
{
    if (m_left == 0)
        return false;
    const bool taken = m_wanted == m_left || (m_wanted != 0 && Below(m_left, m_random) < m_wanted);
    --m_left;
    m_wanted -= taken ? 1 : 0;
    return taken;
}

std::mt19937_64 SystemRandom()
{
    std::random_device source;
    std::array<std::random_device::result_type, 8> words = {};
    for (auto& word : words)
        word = source();
    std::seed_seq seed(words.begin(), words.end());
    return std::mt19937_64(seed);
}

MissedBound BoundOf(const AuditCounts& counts) noexcept
{
    if (counts.compared >= counts.clean)
        return {};
    if (counts.compared == 0)
        return {1.0, counts.clean};
    const double fraction =
        -std::expm1(std::log1p(-AUDIT_CONFIDENCE) / static_cast<double>(counts.compared)); // exact for large numbers
    const auto blocks = static_cast<std::uint64_t>(fraction * static_cast<double>(counts.clean));
    return {fraction, std::min(blocks, counts.clean - counts.compared)};
}

std::string CleanAuditText(const AuditCounts& counts, std::string_view missed)
{
    if (!counts.problem.empty())
        return "nothing to compare: " + counts.problem;
    if (counts.clean == 0)
        return counts.written == 0 ? "nothing to compare: the bitmap reports every block as changed"
                                   : "nothing to compare: the bitmap reports every block as changed, or somebody wrote "
                                     "into it in the snapshot itself";
    const std::string leftOut =
        counts.written == 0 ? ""
                            : fmt::format("; {} more could not be compared, because somebody wrote into them in the "
                                          "snapshot itself",
                                          counts.written);
    if (counts.compared >= counts.clean)
        return fmt::format("all {} clean blocks were read again and none differs from the repository: up to this "
                           "snapshot no change was missed{}{}",
                           counts.clean, counts.written == 0 ? "" : " in them", leftOut);
    const MissedBound bound = BoundOf(counts);
    // Of fewer blocks the rule of three says more than is true.
    const std::string rule =
        counts.compared < FEWEST_FOR_RULE_OF_THREE ? "" : fmt::format(" (about 3/{})", counts.compared);
    return fmt::format(
        "{} of {} clean blocks were read again and none differs from the repository: with {:.0f} % "
        "confidence at most {:.3g} % of the clean blocks{}, {} blocks or {}, hold a change that was missed{}",
        counts.compared, counts.clean, AUDIT_CONFIDENCE * 100, bound.fraction * 100, rule, bound.blocks, missed,
        leftOut);
}

} // namespace vtbackup
