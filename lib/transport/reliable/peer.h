// Whom a reliable connection leads to.
//
// Byte order: network, as in socket addresses.

#pragma once

#include <cstdint>

struct PeerAddress {
    uint32_t address;
    uint16_t port;

    bool operator==(const PeerAddress&) const = default;
};
