// Sends messages, and waits for a broken connection to be back if that is asked for. The
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

// While it exists, a signal also ends a send that is held up by a daemon which doesn't read: one
// second later it destroys the transport, which still flushes what it can within kLastSeconds.
// Destroy the watch before the transport.
struct SendWatch {
    explicit SendWatch(uint32_t transport);
    ~SendWatch();
    SendWatch(const SendWatch&) = delete;
    SendWatch& operator=(const SendWatch&) = delete;

    // Before the destructor: `isLost` is known then.
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
// the transport. False if something hasn't left, which is reported.
[[nodiscard]] bool senderEnd(Sender& sender, Connection& connection, const std::string& what);
