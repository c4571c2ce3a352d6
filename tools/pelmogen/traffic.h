// The bus at work: who sends which kind of packet to whom, under which sequence number. It has
// nothing to do with bytes, which packet.h makes.
//
// A net on a port is a service: number s is net s mod nets on port s / nets. Subject n belongs to
// service n mod services. Each host counts its packets of each service apart: a stream.
//
// Mostly a subject is drawn, and one of its publishers sends it: k is host (n + k * hosts /
// publishers) mod hosts. So a subject's number determines who sends it where. With --services a
// host is drawn and sends one of its subjects in publications.h.
//
// Host h of the population has address 10.0.0.1 + h / perAddress and a UDP port of its own; the
// SCid is that port.
//
// Repeated packets and those left out aren't stored: a repeat has the earlier number but other
// contents.

#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "tools/pelmogen/options.h"
#include "tools/pelmogen/prng.h"
#include "tools/pelmogen/publications.h"

// Addresses and ports in host order.
struct PacketPlan {
    PacketKind kind;
    uint32_t host;  // number of the sender
    uint32_t srcIp, dstIp;
    uint16_t srcPort, dstPort;
    uint32_t epoch;

    // Set for multicast data and nulls.
    uint32_t seq;

    // Set for multicast data only.
    uint16_t fragment;  // 0 whole messages, 1 the start of one, 2 the rest of that one
    bool hostStatus;    // one message, on the host's status subject
    uint32_t subjectCount;
    std::array<uint32_t, kMessagesMax> subjects;
};

struct Stream {
    uint32_t epoch;  // 0: nothing sent yet
    uint32_t seq;
    bool hasSent;  // data
};

struct Traffic {
    const GeneratorOptions& options;
    Prng prng;
    std::vector<Stream> streams;                   // by service and host
    Publications publications;                     // empty when subjects are drawn
    std::array<uint32_t, kPacketKinds> kindBelow;  // a draw below it means this kind
    uint64_t subjectStride;  // subjects so far apart share sender and destination
    uint64_t turn;           // with roundRobin
    bool runsOn;             // the last message of `last` continues in the next packet
    PacketPlan last;         // the latest data packet
};

// `options` must outlive the traffic.
[[nodiscard]] Traffic trafficMake(const GeneratorOptions& options);

// Plans the next packet.
[[nodiscard]] PacketPlan trafficNext(Traffic& traffic);
