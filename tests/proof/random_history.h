// Histories chosen by a seed, and the way from a long broken one to a short one.
#pragma once

#include "proof/operation.h"

#include <cstdint>
#include <functional>

namespace vtproof {

class Dice {
public:
    // Mixed first: the numbers of two seeds that are next to each other are not to be the same ones, one later.
    explicit Dice(std::uint64_t seed) : m_state(Mixed(seed + 0xD1B54A32D192ED03ull)) {}
    std::uint64_t Next() { return Mixed(m_state += STEP); }
    std::uint32_t Below(std::uint32_t bound) { return static_cast<std::uint32_t>(Next() % bound); }
    bool OneIn(std::uint32_t bound) { return Below(bound) == 0; }

private:
    static constexpr std::uint64_t STEP = 0x9E3779B97F4A7C15ull;
    static std::uint64_t Mixed(std::uint64_t z)
    {
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }

    std::uint64_t m_state;
};

// The same seed always gives the same history.
History ChooseHistory(std::uint64_t seed);
// Something that happens to a machine with these volumes: one on which nothing goes wrong, or everything.
Operation ChooseOperation(Dice& dice, const std::vector<VolumeShape>& volumes, bool calm);
// Where something is written. Also where a volume reaches only when it has grown: the world takes what is too far from the
// start again.
std::uint32_t ChooseGrain(Dice& dice, const VolumeShape& volume);
// A fault for an operation of about so many calls.
Fault ChooseFault(Dice& dice);

// The shortest history that can be had by taking things out of this one while it stays broken.
History Shrink(History history, const std::function<bool(const History&)>& isBroken);

} // namespace vtproof
