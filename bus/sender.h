// Sends messages, and waits for a broken connection to be back where that is asked for. The
// library reconnects by itself.
//
// Threads: one user at a time.

#pragma once

#include <cstdint>
#include <span>

#include "lib/pelmo.h"

struct Sender {
    uint32_t transport = kNoId;
    bool wait = false;
    uint64_t sent = 0;
    bool waited = false;  // for the connection, at least once in the last call
};

// In order, up to the first failure. kStatusInterrupted where a signal ended the wait for the
// connection.
[[nodiscard]] pelmoStatus senderSend(Sender& sender, std::span<pelmoMsg* const> messages);

// Together, which a daemon's transport does at the cost of one. Not for inboxes, which a
// transport may reach on another way: a failure would leave open what was sent.
[[nodiscard]] pelmoStatus senderSendTogether(Sender& sender, std::span<pelmoMsg* const> messages);
