#include "tools/pelmogen/options.h"

Nanoseconds packetTime(const GeneratorOptions& options, uint64_t packet) {
    // In two steps, so that no product overflows.
    const uint64_t whole = packet / options.rate;
    const uint64_t part = packet % options.rate;
    int64_t time = options.start.count + static_cast<int64_t>(whole) * kSecond +
                   static_cast<int64_t>(part * static_cast<uint64_t>(kSecond) / options.rate);
    for (const ClockJump& jump : options.jumps) {
        if (packet >= jump.packet) time += jump.by.count;
    }
    return {time};
}
