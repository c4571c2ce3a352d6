// Sends packets at their times, paced by the monotonic clock: the first at once, each other one as
// much later as its time stamp says. A sender that falls behind catches up in a burst.
//
// On an interface, frames are sent as they were made, invented senders included; wire_guard.h says
// which interfaces are allowed. On the loopback, IP packets are sent within 127/8: the first byte
// of both addresses becomes 127 and checksums are updated, so that senders and groups stay
// distinct. Either needs the right to raw sockets.
//
// SIGINT and SIGTERM end the run after the current packet.

#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tools/pelmogen/options.h"
#include "tools/pelmogen/sink.h"

struct Wire {
    int descriptor = -1;
    bool loopback = false;

    // Packets that are due but not sent yet, one after the other in `room`.
    std::vector<uint8_t> room;
    size_t used = 0;
    std::vector<mmsghdr> batch;
    std::vector<iovec> pieces;
    std::vector<sockaddr_in> addresses;  // loopback only

    // Monotonic, in nanoseconds.
    int64_t startNs = 0, endNs = INT64_MAX;
    int64_t firstPacketNs = 0;  // time stamp of the first packet
    int64_t wokenNs = 0;
    bool started = false;
};

// False with `error` set.
[[nodiscard]] bool wireOpen(Wire& wire, const GeneratorOptions& options, std::string& error);

void wireClose(Wire& wire);

// The wire must outlive the sink.
[[nodiscard]] PacketSink wireSink(Wire& wire);
