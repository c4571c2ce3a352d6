// What all fuzz targets begin with: the entry that the fuzzer calls, and a check that ends the run.

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

inline void require(bool holds) {
    if (!holds) std::abort();
}
