// Sends messages, and waits for a broken connection to be back where that is asked for. The
// library reconnects by itself.
//
// Threads: one user at a time.

#pragma once

#include <atomic>
#include <cstdint>
#include <span>
#include <string>
#include <thread>

#include "bus/connection.h"

struct Sender {
    uint32_t transport = kNoId;
    bool wait = false;
    uint64_t sent = 0;
    bool waited = false;  // for the connection, at least once in the last call
};

inline constexpr double kLastSeconds = 5;  // after a signal, for what was sent to leave

// While it is there, a signal also ends a send that a daemon holds up which doesn't read: a second
// later the transport is destroyed, which lets leave what still can within kLastSeconds. It ends
// before the transport.
struct SendWatch {
    explicit SendWatch(uint32_t transport);
    ~SendWatch();
    SendWatch(const SendWatch&) = delete;
    SendWatch& operator=(const SendWatch&) = delete;

    // Ahead of the destructor: `isLost` is known then.
    void stop();

    int end;                           // an event; readable from the destructor on
    std::atomic<bool> isLost = false;  // it destroyed the transport, and not all had left
    std::thread thread;
};

// In order, up to the first failure. kStatusInterrupted where a signal ended the wait for the
// connection, or for a daemon that doesn't read.
[[nodiscard]] pelmoStatus senderSend(Sender& sender, std::span<pelmoMsg* const> messages);

// Together, which a daemon's transport does at the cost of one. What may have left is never sent
// again. Not for inboxes, which a transport may reach on another way, and before all others.
[[nodiscard]] pelmoStatus senderSendTogether(Sender& sender, std::span<pelmoMsg* const> messages);

// Waits until what was sent has left, while it leaves and no signal asks for the end, and destroys
// the transport. What hasn't left is told: then false.
[[nodiscard]] bool senderEnd(Sender& sender, Connection& connection, const std::string& what);
