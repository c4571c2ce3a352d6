// What was sent and is lost with a road that ended or broke: the connection to a daemon, the direct
// road. Those who end a road hand it on, so that nothing is lost without somebody being told.

#pragma once

#include <cstdint>

struct SendLosses {
    uint64_t messages;
    uint64_t bytes;

    // The other side ended without having confirmed what it was sent: what it had taken and not yet
    // read is lost as well, and isn't among the numbers.
    bool unconfirmed;

    [[nodiscard]] bool any() const { return messages != 0 || bytes != 0 || unconfirmed; }
};
