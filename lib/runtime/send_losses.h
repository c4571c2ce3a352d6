// What was sent and is lost with a way out that ended or broke: the connection to a daemon, or the
// direct endpoint. Whatever ends one passes this on, so that no loss goes unreported.

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
