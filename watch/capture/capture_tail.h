// When a capture's last frame was captured, from the file's last bytes alone, so that a file that
// ends before what is wanted needs no reading.
//
// Blocks of a pcapng file have their length at their end too, and are walked backwards. Records of
// a pcap file haven't: each offset whose chain of records reaches the file's end exactly may be a
// record's, and the latest time that any of them gives is taken. The true chain is among them, so
// that a packet that looks like records only makes the answer later.
//
// Pure. Sizes in a file are checked before they are used.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

// How a file has its times, as its head says.
struct CaptureClock {
    bool isPcapng;
    bool isSwapped;  // from this machine's byte order
    uint64_t ticksASecond;
    int64_t offsetSeconds;
};

inline constexpr size_t kCaptureTailBytes = 256 << 10;

// Seconds since 1970, no earlier than the last frame's. None where the bytes, at most
// kCaptureTailBytes, don't show it: the file ends within a frame, or in blocks without one.
[[nodiscard]] std::optional<int64_t> captureTailSeconds(std::span<const uint8_t> tail,
                                                        const CaptureClock& clock);
