#include "tools/pelmogen/traffic.h"

#include <algorithm>
#include <numeric>

namespace {

constexpr uint32_t kFirstHostAddress = 0x0a000001;  // 10.0.0.1
constexpr uint32_t kFirstNetAddress = 0xefff0001;   // 239.255.0.1
constexpr uint16_t kFirstHostPort = 20000;
constexpr uint16_t kHostPorts = 20000;
constexpr uint32_t kEpochHasScid = 0x80000000;
constexpr uint32_t kRepeatDepth = 8;

uint32_t hostAddress(const GeneratorOptions& options, uint32_t host) {
    return kFirstHostAddress + static_cast<uint32_t>(host / options.perAddress);
}

// The port differs among the hosts of one address, and mostly between neighbours.
uint16_t hostPort(uint32_t host) {
    return static_cast<uint16_t>(kFirstHostPort + host % kHostPorts);
}

bool hostHasScid(const GeneratorOptions& options, uint32_t host) {
    return hash64(options.seed ^ 0x5c1d, host) % kMillion < options.scids.perMillion;
}

uint16_t busPort(const GeneratorOptions& options, uint64_t number) {
    return static_cast<uint16_t>(options.firstPort + number);
}

uint32_t pickHost(Traffic& traffic) {
    return prngSkewed(traffic.prng, traffic.options.hosts, traffic.options.hostSkew);
}

// The sender and the subject, which also determines the service.
struct Sending {
    uint32_t host, subject;
};

Sending sendingOfSubject(Traffic& traffic, uint32_t subject) {
    const GeneratorOptions& options = traffic.options;
    const uint64_t count = publisherCount(options, subject);
    const uint64_t publisher = count == 1 ? 0 : prngBelow(traffic.prng, count);
    const uint64_t step = options.hosts / count;
    return {static_cast<uint32_t>((subject + publisher * step) % options.hosts), subject};
}

// Draws one of the subjects that the host publishes on one of its services.
Sending pickPublication(Traffic& traffic) {
    const GeneratorOptions& options = traffic.options;
    const Publications& publications = traffic.publications;
    const uint32_t host = pickHost(traffic);
    const uint64_t place = prngBelow(traffic.prng, servicesOf(publications, options, host));
    const uint64_t service = host % publications.classes + place * publications.classes;
    const auto subjects = subjectsOf(publications, service * options.hosts + host);
    return {host, subjects[prngSkewed(traffic.prng, subjects.size(), options.subjectSkew)]};
}

Sending pickBySubject(Traffic& traffic) {
    const GeneratorOptions& options = traffic.options;
    if (options.services > 0) return pickPublication(traffic);
    return sendingOfSubject(traffic,
                            prngSkewed(traffic.prng, options.subjects, options.subjectSkew));
}

Sending pickByHost(Traffic& traffic) {
    const GeneratorOptions& options = traffic.options;
    if (options.services > 0) return pickPublication(traffic);
    const uint32_t host = pickHost(traffic);
    return {host, static_cast<uint32_t>(host % options.subjects)};
}

void sendFrom(const Traffic& traffic, PacketPlan& plan, uint32_t host) {
    plan.host = host;
    plan.srcIp = hostAddress(traffic.options, host);
    plan.srcPort = hostPort(host);
    plan.epoch = static_cast<uint32_t>(hash64(traffic.options.seed, host) >> 40) + 1;
    if (hostHasScid(traffic.options, host)) plan.epoch |= kEpochHasScid;
}

uint64_t serviceOf(const GeneratorOptions& options, uint32_t subject) {
    return subject % (options.nets * options.ports);
}

// Plans a packet from a host to the destination of a subject; returns the stream of the two.
Stream& sendToGroup(Traffic& traffic, PacketPlan& plan, const Sending& sending) {
    const GeneratorOptions& options = traffic.options;
    const uint64_t service = serviceOf(options, sending.subject);
    const uint64_t port = service / options.nets;
    sendFrom(traffic, plan, sending.host);
    plan.dstIp = kFirstNetAddress + static_cast<uint32_t>(service % options.nets);
    plan.dstPort = busPort(options, port);

    Stream& stream = traffic.streams[service * options.hosts + sending.host];
    if (stream.epoch == 0) {
        // The stream starts as if the capture had begun in the middle of it.
        stream.epoch = plan.epoch;
        stream.seq = 1000 + static_cast<uint32_t>(hash64(plan.srcIp, port) % 100'000);
    }
    return stream;
}

// The sequence number of the next data packet.
uint32_t stepStream(Traffic& traffic, Stream& stream) {
    const GeneratorOptions& options = traffic.options;
    const uint32_t restartBelow = options.restarts.perMillion;
    const uint32_t gapBelow = restartBelow + options.gaps.perMillion;
    const uint32_t repeatBelow = gapBelow + options.repeats.perMillion;
    const uint32_t draw = repeatBelow == 0 ? 0 : prngBelow(traffic.prng, kMillion);
    const bool hasSent = stream.hasSent;
    stream.hasSent = true;

    if (draw < restartBelow) {
        ++stream.epoch;
        return stream.seq = 1;
    }
    if (draw < gapBelow) return stream.seq += prngBetween(traffic.prng, 2, 5);
    if (draw < repeatBelow) {
        const uint32_t back = prngBelow(traffic.prng, std::min(stream.seq, kRepeatDepth));
        if (hasSent) return stream.seq - back;
    }
    return ++stream.seq;
}

uint32_t pickMessageCount(Traffic& traffic) {
    const Range messages = traffic.options.messages;
    return messages.low + prngSkewed(traffic.prng, uint64_t{messages.high} - messages.low + 1,
                                     traffic.options.messageSkew);
}

// Draws another subject of the same sender and service.
uint32_t pickSibling(Traffic& traffic, const Sending& first) {
    const GeneratorOptions& options = traffic.options;
    if (options.services > 0) {
        const uint64_t stream = serviceOf(options, first.subject) * options.hosts + first.host;
        const auto subjects = subjectsOf(traffic.publications, stream);
        return subjects[prngSkewed(traffic.prng, subjects.size(), options.subjectSkew)];
    }
    const uint64_t base = first.subject % traffic.subjectStride;
    const uint64_t choices = (options.subjects - base - 1) / traffic.subjectStride + 1;
    return static_cast<uint32_t>(base + prngBelow(traffic.prng, choices) * traffic.subjectStride);
}

void planData(Traffic& traffic, PacketPlan& plan) {
    const GeneratorOptions& options = traffic.options;
    plan.hostStatus = prngChance(traffic.prng, options.hostStatus.perMillion);
    Sending sending;
    if (plan.hostStatus) {
        sending = pickByHost(traffic);
    } else if (options.roundRobin) {
        const auto subject = static_cast<uint32_t>(traffic.turn++ % options.subjects);
        sending = sendingOfSubject(traffic, subject);
    } else {
        sending = pickBySubject(traffic);
    }
    plan.subjects[plan.subjectCount++] = sending.subject;
    if (!plan.hostStatus) {
        for (uint32_t count = pickMessageCount(traffic); plan.subjectCount < count;) {
            plan.subjects[plan.subjectCount++] = pickSibling(traffic, sending);
        }
    }
    Stream& stream = sendToGroup(traffic, plan, sending);
    plan.seq = stepStream(traffic, stream);
    plan.epoch = stream.epoch;
    plan.fragment = prngChance(traffic.prng, options.fragments.perMillion) ? 1 : 0;

    traffic.runsOn = plan.fragment == 1;
    if (traffic.runsOn) traffic.last = plan;
}

// Plans the rest of the message that the last data packet began.
PacketPlan planRest(Traffic& traffic) {
    PacketPlan plan = traffic.last;
    Stream& stream = sendToGroup(traffic, plan, {plan.host, plan.subjects[0]});
    // This packet is never lost or repeated, so a message in two packets arrives whole.
    if (plan.seq == stream.seq) ++stream.seq;
    plan.seq = std::min(plan.seq + 1, stream.seq);
    plan.epoch = stream.epoch;
    plan.fragment = 2;
    traffic.runsOn = false;
    return plan;
}

void planNull(Traffic& traffic, PacketPlan& plan) {
    const GeneratorOptions& options = traffic.options;
    Sending sending;
    if (options.roundRobin) {
        sending.host = static_cast<uint32_t>(traffic.turn++ % options.hosts);
        sending.subject = static_cast<uint32_t>(sending.host % options.subjects);
    } else {
        sending = pickByHost(traffic);
    }
    Stream& stream = sendToGroup(traffic, plan, sending);
    // The null announces packets that the capture never saw.
    if (prngChance(traffic.prng, options.gaps.perMillion)) {
        stream.seq += prngBetween(traffic.prng, 1, 4);
    }
    plan.seq = stream.seq;
    plan.epoch = stream.epoch;
}

uint32_t otherThan(const Traffic& traffic, uint32_t host, uint32_t candidate) {
    if (candidate != host) return candidate;
    return static_cast<uint32_t>((candidate + 1) % traffic.options.hosts);
}

// A receiver asks a subject's publisher.
void planRreq(Traffic& traffic, PacketPlan& plan) {
    const GeneratorOptions& options = traffic.options;
    const Sending asked = pickBySubject(traffic);
    sendFrom(traffic, plan, otherThan(traffic, asked.host, pickHost(traffic)));
    plan.dstIp = hostAddress(options, asked.host);
    plan.dstPort = busPort(options, serviceOf(options, asked.subject) / options.nets);
}

// A publisher answers all at once.
void planRrej(Traffic& traffic, PacketPlan& plan) {
    plan.epoch = sendToGroup(traffic, plan, pickBySubject(traffic)).epoch;
}

void planPtp(Traffic& traffic, PacketPlan& plan) {
    const uint32_t host = pickHost(traffic);
    sendFrom(traffic, plan, host);
    plan.dstIp = hostAddress(traffic.options, otherThan(traffic, host, pickHost(traffic)));
    plan.dstPort = busPort(traffic.options, prngBelow(traffic.prng, traffic.options.ports));
}

void planNonBus(Traffic& traffic, PacketPlan& plan) {
    planPtp(traffic, plan);
    plan.dstPort = static_cast<uint16_t>(prngBetween(traffic.prng, 1, 65535));
}

void planUnknown(Traffic& traffic, PacketPlan& plan) {
    const Stream& stream = sendToGroup(traffic, plan, pickByHost(traffic));
    plan.epoch = stream.epoch;
    plan.seq = stream.seq;
}

using Planner = void (*)(Traffic& traffic, PacketPlan& plan);
constexpr Planner kPlanners[kPacketKinds] = {
    planData, planNull, planRreq, planRrej,   planPtp,
    planPtp,  planPtp,  planPtp,  planNonBus, planUnknown,
};

PacketKind pickKind(Traffic& traffic) {
    const uint32_t draw = prngBelow(traffic.prng, kMillion);
    for (size_t kind = 1; kind < kPacketKinds; ++kind) {
        if (draw < traffic.kindBelow[kind]) return static_cast<PacketKind>(kind);
    }
    return PacketKind::kData;
}

}  // namespace

Traffic trafficMake(const GeneratorOptions& options) {
    Traffic traffic{.options = options,
                    .prng = prngMake(options.seed),
                    .streams = {},
                    .publications = {},
                    .kindBelow = {},
                    .subjectStride = std::lcm(options.hosts, options.nets * options.ports),
                    .turn = 0,
                    .runsOn = false,
                    .last = {}};
    traffic.streams.resize(options.hosts * options.nets * options.ports);
    if (options.services > 0) traffic.publications = publicationsMake(options);

    uint32_t below = 0;
    for (size_t kind = 1; kind < kPacketKinds; ++kind) {
        below += (options.*kKindShares[kind - 1]).perMillion;
        traffic.kindBelow[kind] = below;
    }
    return traffic;
}

PacketPlan trafficNext(Traffic& traffic) {
    if (traffic.runsOn) return planRest(traffic);
    PacketPlan plan;
    plan.kind = pickKind(traffic);
    plan.seq = 0;
    plan.fragment = 0;
    plan.hostStatus = false;
    plan.subjectCount = 0;
    kPlanners[static_cast<size_t>(plan.kind)](traffic, plan);
    return plan;
}
