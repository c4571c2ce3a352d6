// Sends messages, and waits for a broken connection to be back where that is asked for. The
// library reconnects by itself.
//
// Threads: one user at a time.

#pragma once

#include <cstdint>
#include <span>
#include <thread>

#include "lib/pelmo.h"

struct Sender {
    uint32_t transport = kNoId;
    bool wait = false;
    uint64_t sent = 0;
    bool waited = false;  // for the connection, at least once in the last call
};

// While it is there, a signal also ends a send that a daemon holds up which doesn't read: a second
// later the transport is destroyed, which lets leave what still can. It ends ahead of the
// transport.
struct SendWatch {
    explicit SendWatch(uint32_t transport);
    ~SendWatch();
    SendWatch(const SendWatch&) = delete;
    SendWatch& operator=(const SendWatch&) = delete;

    int end;  // an event; readable from the destructor on
    std::thread thread;
};

// In order, up to the first failure. kStatusInterrupted where a signal ended the wait for the
// connection, or for a daemon that doesn't read.
[[nodiscard]] pelmoStatus senderSend(Sender& sender, std::span<pelmoMsg* const> messages);

// Together, which a daemon's transport does at the cost of one. Not for inboxes, which a
// transport may reach on another way: a failure would leave open what was sent.
[[nodiscard]] pelmoStatus senderSendTogether(Sender& sender, std::span<pelmoMsg* const> messages);
