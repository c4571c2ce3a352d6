// Random numbers that are the same on every machine: xoshiro256** seeded by splitmix64, integers
// only. The same seed and the same calls give the same numbers, so a capture is a function of its
// options.

#pragma once

#include <bit>
#include <cstdint>

struct Prng {
    uint64_t state[4];
};

// One step of splitmix64.
[[nodiscard]] inline uint64_t splitmix64(uint64_t& state) {
    uint64_t mixed = state += 0x9e3779b97f4a7c15;
    mixed = (mixed ^ (mixed >> 30)) * 0xbf58476d1ce4e5b9;
    mixed = (mixed ^ (mixed >> 27)) * 0x94d049bb133111eb;
    return mixed ^ (mixed >> 31);
}

// A hash for values that must depend on two numbers only, not on earlier draws.
[[nodiscard]] inline uint64_t hash64(uint64_t seed, uint64_t number) {
    uint64_t state = seed;
    state = splitmix64(state) ^ number;
    return splitmix64(state);
}

[[nodiscard]] inline Prng prngMake(uint64_t seed) {
    Prng prng;
    for (uint64_t& word : prng.state) {
        word = splitmix64(seed);
    }
    return prng;
}

inline uint64_t prngNext(Prng& prng) {
    uint64_t* state = prng.state;
    const uint64_t result = std::rotl(state[1] * 5, 7) * 9;
    const uint64_t shifted = state[1] << 17;
    state[2] ^= state[0];
    state[3] ^= state[1];
    state[1] ^= state[2];
    state[0] ^= state[3];
    state[2] ^= shifted;
    state[3] = std::rotl(state[3], 45);
    return result;
}

// Below `bound`; 0 for a bound of 0 or 1.
[[nodiscard]] inline uint32_t prngBelow(Prng& prng, uint64_t bound) {
    return static_cast<uint32_t>(((prngNext(prng) >> 32) * bound) >> 32);
}

// A number below `bound` that favours low ones: `bound` * u^`skew` for a uniform u. With a skew of
// 1 it is prngBelow.
[[nodiscard]] inline uint32_t prngSkewed(Prng& prng, uint64_t bound, uint64_t skew) {
    const uint64_t even = prngNext(prng) >> 32;
    uint64_t power = even;
    for (; skew > 1; --skew) {
        power = (power * even) >> 32;
    }
    return static_cast<uint32_t>((power * bound) >> 32);
}

// From `low` to `high`, both included.
[[nodiscard]] inline uint32_t prngBetween(Prng& prng, uint32_t low, uint32_t high) {
    return low + prngBelow(prng, uint64_t{high} - low + 1);
}

constexpr uint32_t kMillion = 1'000'000;

// True with a chance of `perMillion` in a million. With a chance of 0 or 1 it draws no number, so
// that a feature that is off changes no other draw.
[[nodiscard]] inline bool prngChance(Prng& prng, uint32_t perMillion) {
    if (perMillion == 0 || perMillion >= kMillion) return perMillion != 0;
    return prngBelow(prng, kMillion) < perMillion;
}
