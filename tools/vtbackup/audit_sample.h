// What an audit chooses, and what its result says: numbers only.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <string_view>

namespace vtbackup {

// Chooses members of a population that go by one after the other: each one with the same chance, none twice, in their
// own order, and with no memory of those chosen. (Knuth, The Art of Computer Programming, volume 2, algorithm S.)
class SampleChooser {
public:
    // Chooses them all when fewer than wanted are there.
    SampleChooser(std::uint64_t population, std::uint64_t wanted, std::mt19937_64 random);

    // Whether the next member is one of the sample; to be asked once for each member of the population.
    bool Take();
    // How many are still to be chosen.
    [[nodiscard]] std::uint64_t Wanted() const noexcept { return m_wanted; }

private:
    std::uint64_t m_left;   // members that did not go by yet
    std::uint64_t m_wanted; // at most that many
    std::mt19937_64 m_random;
};

// Seeded from the system's source of random numbers.
std::mt19937_64 SystemRandom();

// How far an audit came: of so many blocks that should be as the chain has them, so many were compared with it.
struct AuditCounts {
    std::uint64_t requested = 0;
    std::uint64_t clean = 0;
    std::uint64_t compared = 0;
    std::uint64_t written = 0; // clean by the bitmap, but somebody wrote into them in the snapshot; not among clean
    std::string problem = {};  // not empty: why nothing could be compared
};

// What may still differ when none of the compared blocks does.
struct MissedBound {
    double fraction = 0; // of the clean blocks, with CONFIDENCE; exactly 0 when all were compared
    std::uint64_t blocks = 0;
};

constexpr double AUDIT_CONFIDENCE = 0.95;

// Of n compared blocks none differs: if more than 1 - 0.05^(1/n) of all did, that had a chance below 5 %. This is the
// rule for a sample in which a block may come twice; one without repetition is a little better still. With no block
// compared nothing is known: fraction 1.
MissedBound BoundOf(const AuditCounts& counts) noexcept;

// One sentence for an audit that found no difference. missed: the bound's blocks in bytes, as people read it.
std::string CleanAuditText(const AuditCounts& counts, std::string_view missed);

} // namespace vtbackup
