// The send window and its congestion control, counted in packets: slow start and additive increase,
// fast retransmit at the fourth acknowledgement of the same number, fast recovery (RFC 5681, with
// packets in place of bytes). Recovery lasts until all that was in flight when it began is
// acknowledged; each acknowledgement of a part of that shows another loss (RFC 6582).
//
//     sndUna            sndNxt            sndLimit
//       |  under way      |  may be sent    |
//
// Threads: pure functions over the record.

#pragma once

#include <cstdint>

inline constexpr uint64_t kNoThreshold = 4294967295;  // ssthresh: slow start continues

struct SendWindow {
    uint64_t sndUna;    // the oldest number that isn't acknowledged
    uint64_t sndNxt;    // the next one to be sent
    uint64_t sndLimit;  // the first one that may not be sent yet
    uint64_t cwnd;
    uint64_t cwndCount;  // acknowledgements since cwnd grew last
    uint64_t ssthresh;
    uint64_t peerWindow;
    uint64_t lastAck;
    uint64_t dupAcks;      // 0: nothing was in flight after lastAck
    uint64_t recoveryEnd;  // sndNxt when recovery began; 0: not in recovery
};

// As of a new connection: numbers, cwnd 1, no threshold.
void windowInit(SendWindow* window, uint64_t peerWindow);

// Brings sndLimit up to date.
void windowLimit(SendWindow* window);

[[nodiscard]] inline bool windowIsOpen(const SendWindow* window) {
    return window->sndLimit > window->sndNxt;
}

// Where the connection opens: the answer to a SYN acknowledges it.
void windowOpened(SendWindow* window, uint64_t ack, uint64_t peerWindow);

enum class AckVerdict : uint8_t {
    kOutside,       // not between sndUna and sndNxt: nothing has changed
    kAdvanced,      // something new is acknowledged
    kAdvancedPart,  // the same, in recovery: the packet `ack` is lost as well and to be sent again
    kRepeated,
    kResend,  // repeated so often that the packet `ack` is to be sent again
};

// Takes the acknowledgement. `peerWindow` is as the caller has set it from the packet.
[[nodiscard]] AckVerdict windowAcknowledge(SendWindow* window, uint64_t ack);
