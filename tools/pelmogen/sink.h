// The destination of packets, a capture file or the wire, as the generator sees it.

#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

struct PacketSink {
    void* context;

    // `frame` holds the captured bytes of a packet of `wireBytes`; `timeNs` is nanoseconds since
    // 1970. False with `errno` set when the run can't continue.
    bool (*write)(void* context, std::span<const uint8_t> frame, size_t wireBytes, int64_t timeNs);

    // Called after the last packet: completes the output, or returns false with `errno` set.
    bool (*finish)(void* context);

    // False once the run must end, however many packets are left. Null: only the options end it.
    bool (*wantsMore)(void* context);
};
