// A small self-contained generator: splitmix64 to seed, xoshiro256** to draw. Every stream is
// derived from the user's seed and a fixed stream number, so output never depends on threads.
#pragma once

#include <cmath>
#include <cstdint>

namespace torvex::synth {

inline uint64_t splitmix64(uint64_t& state) {
    uint64_t z = (state += 0x9e3779b97f4a7c15ULL);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
}

struct Rng {
    uint64_t s[4];

    // Stream `stream` of seed `seed`: independent sequences for the network, each zone, ...
    Rng(uint64_t seed, uint64_t stream) {
        uint64_t st = seed * 0xd1342543de82ef95ULL + stream * 0x9e3779b97f4a7c15ULL + 1;
        for (uint64_t& w : s) w = splitmix64(st);
    }

    static uint64_t rotl(uint64_t x, int k) { return (x << k) | (x >> (64 - k)); }

    uint64_t next() {
        const uint64_t result = rotl(s[1] * 5, 7) * 9;
        const uint64_t t = s[1] << 17;
        s[2] ^= s[0];
        s[3] ^= s[1];
        s[1] ^= s[2];
        s[0] ^= s[3];
        s[2] ^= t;
        s[3] = rotl(s[3], 45);
        return result;
    }
    // Uniform in [0, 1) with 53 bits.
    double uniform() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }
    double uniform(double lo, double hi) { return lo + (hi - lo) * uniform(); }
    // Uniform integer in [0, n), n > 0.
    uint64_t below(uint64_t n) { return static_cast<uint64_t>(uniform() * static_cast<double>(n)); }
    bool chance(double p) { return uniform() < p; }
    // Standard normal by Box-Muller; one value per call keeps the stream simple to reason about.
    double normal() {
        double u1 = uniform();
        if (u1 < 1e-300) u1 = 1e-300;
        return std::sqrt(-2.0 * std::log(u1)) * std::cos(6.283185307179586 * uniform());
    }
};

}  // namespace torvex::synth
