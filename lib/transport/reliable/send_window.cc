#include "lib/transport/reliable/send_window.h"

#include <algorithm>

namespace {

constexpr uint64_t kRepeatsToResend = 3;  // the fourth acknowledgement of a number resends it
constexpr uint64_t kRepeatsToResendAgain = 6;

// A peer that repeats itself for ever makes cwnd large, and not small.
uint64_t plus(uint64_t a, uint64_t b) {
    uint64_t sum;
    return __builtin_add_overflow(a, b, &sum) ? UINT64_MAX : sum;
}

// Slow start below the threshold, above it one packet more for each window that went through.
void grow(SendWindow* window, uint64_t packets) {
    if (window->cwnd < window->ssthresh) {
        window->cwnd = plus(window->cwnd, packets);
        window->cwndCount = 0;
    } else if (window->cwndCount < window->cwnd) {
        ++window->cwndCount;
    } else {
        window->cwnd = plus(window->cwnd, 1);
        window->cwndCount = 0;
    }
}

void endRecovery(SendWindow* window) {
    window->cwnd = window->ssthresh;
    window->cwndCount = 0;
    window->ssthresh = kNoThreshold;
    window->recoveryEnd = 0;
}

void beginRecovery(SendWindow* window) {
    // A FIN is sent whatever the window, and may have passed the limit.
    const uint64_t room = windowIsOpen(window) ? window->sndLimit - window->sndNxt : 0;
    window->ssthresh = std::max<uint64_t>(room / 2, 1);
    window->cwnd = window->ssthresh + kRepeatsToResend;
    window->cwndCount = 0;
    window->recoveryEnd = window->sndNxt;
}

// True for a part of what was in flight when recovery began: the packet after it is lost as well.
bool takeNew(SendWindow* window, uint64_t ack) {
    const bool isPart = ack < window->recoveryEnd;
    if (!isPart && window->recoveryEnd != 0) {
        endRecovery(window);
    } else if (!isPart) {
        grow(window, ack - window->sndUna);
    }
    window->sndUna = ack;
    window->lastAck = ack;
    window->dupAcks = ack < window->sndNxt ? 1 : 0;
    windowLimit(window);
    return isPart;
}

// True where the packet is to be sent again.
bool takeRepeated(SendWindow* window) {
    bool resends = false;
    if (window->dupAcks < kRepeatsToResend) {
        grow(window, 1);
    } else if (window->dupAcks == kRepeatsToResend) {
        beginRecovery(window);
        resends = true;
    }
    windowLimit(window);
    if (window->dupAcks >= kRepeatsToResendAgain) {
        window->dupAcks = kRepeatsToResend;
        resends = windowIsOpen(window);
    }
    return resends;
}

}  // namespace

void windowInit(SendWindow* window, uint64_t peerWindow) {
    *window = {.sndUna = 2,
               .sndNxt = 1,
               .sndLimit = 1,
               .cwnd = 1,
               .cwndCount = 0,
               .ssthresh = kNoThreshold,
               .peerWindow = peerWindow,
               .lastAck = 1,
               .dupAcks = 0,
               .recoveryEnd = 0};
}

void windowLimit(SendWindow* window) {
    const uint64_t allowed =
        std::min(plus(window->cwnd, window->sndNxt), plus(window->peerWindow, window->sndUna));
    window->sndLimit = std::max(allowed, window->sndNxt);
}

void windowOpened(SendWindow* window, uint64_t ack, uint64_t peerWindow) {
    window->cwnd = plus(window->cwnd, 1);
    window->peerWindow = peerWindow;
    window->sndUna = ack;
    window->lastAck = ack;
    window->dupAcks = 1;
    windowLimit(window);
}

AckVerdict windowAcknowledge(SendWindow* window, uint64_t ack) {
    if (ack < window->sndUna || ack > window->sndNxt) return AckVerdict::kOutside;
    if (ack != window->lastAck) {
        return takeNew(window, ack) ? AckVerdict::kAdvancedPart : AckVerdict::kAdvanced;
    }
    const bool resends = takeRepeated(window);
    if (ack < window->sndNxt) ++window->dupAcks;
    return resends ? AckVerdict::kResend : AckVerdict::kRepeated;
}
