// Random numbers of tests, the same at each run.

#pragma once

#include <cstdint>
#include <random>

struct Random {
    std::mt19937 engine;

    uint32_t operator()() { return static_cast<uint32_t>(engine()); }
};
