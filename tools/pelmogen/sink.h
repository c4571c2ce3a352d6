// Where packets go: a capture file or the wire. The generator knows no more of it than this table.

#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

struct PacketSink {
    void* context;

    // `frame` is what is in hand of a packet of `wireBytes`, `timeNs` is nanoseconds since 1970.
    // False with `errno` set where it can't go on.
    bool (*write)(void* context, std::span<const uint8_t> frame, size_t wireBytes, int64_t timeNs);

    // After the last packet: all of it is where it belongs, or false with `errno` set.
    bool (*finish)(void* context);

    // False once the run is to end, however many packets are left. Null: it never is.
    bool (*wantsMore)(void* context);
};
