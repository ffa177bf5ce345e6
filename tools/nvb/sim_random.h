#ifndef NVB_TOOL_SIM_RANDOM_H
#define NVB_TOOL_SIM_RANDOM_H

#include <cmath>
#include <cstdint>
#include <numbers>

namespace nvbtool::sim {

// xoshiro256** seeded by splitmix64, with its own normal draw: the standard library's
// distributions differ between implementations, and a seed must give the same log
// wherever the tool runs.
class Random {
public:
    explicit Random(std::uint64_t seed) {
        for (std::uint64_t& word : state_) {
            seed += 0x9E3779B97F4A7C15ull;
            std::uint64_t z = seed;
            z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
            z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
            word = z ^ (z >> 31);
        }
    }

    std::uint64_t next() {
        const std::uint64_t result = rotl(state_[1] * 5, 7) * 9;
        const std::uint64_t t = state_[1] << 17;
        state_[2] ^= state_[0];
        state_[3] ^= state_[1];
        state_[1] ^= state_[2];
        state_[0] ^= state_[3];
        state_[2] ^= t;
        state_[3] = rotl(state_[3], 45);
        return result;
    }

    // In [0, 1).
    double uniform() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }
    double uniform(double low, double high) { return low + (high - low) * uniform(); }

    // Zero mean, unit deviation.
    double normal() {
        if (haveSpare_) {
            haveSpare_ = false;
            return spare_;
        }
        const double u1 = 1.0 - uniform();
        const double u2 = uniform();
        const double radius = std::sqrt(-2.0 * std::log(u1));
        spare_ = radius * std::sin(2.0 * std::numbers::pi * u2);
        haveSpare_ = true;
        return radius * std::cos(2.0 * std::numbers::pi * u2);
    }

    bool chance(double probability) { return uniform() < probability; }

private:
    static std::uint64_t rotl(std::uint64_t x, int k) { return (x << k) | (x >> (64 - k)); }
    std::uint64_t state_[4] = {};
    double spare_ = 0.0;
    bool haveSpare_ = false;
};

}  // namespace nvbtool::sim

#endif
