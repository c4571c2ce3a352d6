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

// Differs among the hosts of one address, and mostly between neighbours.
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
    return prngBelow(traffic.prng, traffic.options.hosts);
}

uint32_t pickSubject(Traffic& traffic) {
    const uint64_t subjects = traffic.options.subjects;
    if (traffic.options.roundRobin) return static_cast<uint32_t>(traffic.turn++ % subjects);
    return prngBelow(traffic.prng, subjects);
}

uint32_t pickPublisher(Traffic& traffic, uint32_t subject) {
    const GeneratorOptions& options = traffic.options;
    const uint64_t publisher =
        options.publishers == 1 ? 0 : prngBelow(traffic.prng, options.publishers);
    const uint64_t step = options.hosts / options.publishers;
    return static_cast<uint32_t>((subject + publisher * step) % options.hosts);
}

void sendFrom(const Traffic& traffic, PacketPlan& plan, uint32_t host) {
    plan.host = host;
    plan.srcIp = hostAddress(traffic.options, host);
    plan.srcPort = hostPort(host);
    plan.epoch = static_cast<uint32_t>(hash64(traffic.options.seed, host) >> 40) + 1;
    if (hostHasScid(traffic.options, host)) plan.epoch |= kEpochHasScid;
}

uint64_t portNumberOf(const GeneratorOptions& options, uint32_t subject) {
    return subject / options.nets % options.ports;
}

// From a host to where a subject goes; answers the stream of these.
Stream& sendToGroup(Traffic& traffic, PacketPlan& plan, uint32_t host, uint32_t subject) {
    const GeneratorOptions& options = traffic.options;
    const uint64_t net = subject % options.nets;
    const uint64_t port = portNumberOf(options, subject);
    sendFrom(traffic, plan, host);
    plan.dstIp = kFirstNetAddress + static_cast<uint32_t>(net);
    plan.dstPort = busPort(options, port);

    Stream& stream = traffic.streams[(port * options.nets + net) * options.hosts + host];
    if (stream.epoch == 0) {
        // As if the capture had begun in the middle of it.
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

    if (draw < restartBelow) {
        ++stream.epoch;
        return stream.seq = 1;
    }
    if (draw < gapBelow) return stream.seq += prngBetween(traffic.prng, 2, 5);
    if (draw < repeatBelow) {
        return stream.seq - prngBelow(traffic.prng, std::min(stream.seq, kRepeatDepth));
    }
    return ++stream.seq;
}

// Subjects of the same sender and destination as `first`.
void addSubjects(Traffic& traffic, PacketPlan& plan, uint32_t first) {
    const GeneratorOptions& options = traffic.options;
    const uint32_t count = prngBetween(traffic.prng, options.messages.low, options.messages.high);
    const uint64_t base = first % traffic.subjectStride;
    const uint64_t choices = (options.subjects - base - 1) / traffic.subjectStride + 1;
    plan.subjectCount = 0;
    plan.subjects[plan.subjectCount++] = first;
    while (plan.subjectCount < count) {
        const uint64_t steps = prngBelow(traffic.prng, choices);
        plan.subjects[plan.subjectCount++] =
            static_cast<uint32_t>(base + steps * traffic.subjectStride);
    }
}

void planData(Traffic& traffic, PacketPlan& plan) {
    const GeneratorOptions& options = traffic.options;
    plan.hostStatus = prngChance(traffic.prng, options.hostStatus.perMillion);
    uint32_t host;
    uint32_t subject;
    if (plan.hostStatus) {
        host = pickHost(traffic);
        subject = static_cast<uint32_t>(host % options.subjects);
        plan.subjectCount = 1;
        plan.subjects[0] = subject;
    } else {
        subject = pickSubject(traffic);
        host = pickPublisher(traffic, subject);
        addSubjects(traffic, plan, subject);
    }
    Stream& stream = sendToGroup(traffic, plan, host, subject);
    plan.seq = stepStream(traffic, stream);
    plan.epoch = stream.epoch;
    plan.fragment = prngChance(traffic.prng, options.fragments.perMillion) ? 1 : 0;

    traffic.runsOn = plan.fragment == 1;
    if (traffic.runsOn) traffic.last = plan;
}

// The rest of the message that the data packet before began.
PacketPlan planRest(Traffic& traffic) {
    PacketPlan plan = traffic.last;
    const uint32_t subject = plan.subjects[0];
    Stream& stream = sendToGroup(traffic, plan, plan.host, subject);
    // Without chances of its own: a message in two packets arrives in one piece.
    if (plan.seq == stream.seq) ++stream.seq;
    plan.seq = std::min(plan.seq + 1, stream.seq);
    plan.epoch = stream.epoch;
    plan.fragment = 2;
    traffic.runsOn = false;
    return plan;
}

void planNull(Traffic& traffic, PacketPlan& plan) {
    const GeneratorOptions& options = traffic.options;
    const uint32_t host = options.roundRobin ? static_cast<uint32_t>(traffic.turn++ % options.hosts)
                                             : pickHost(traffic);
    const auto subject = static_cast<uint32_t>(host % options.subjects);
    Stream& stream = sendToGroup(traffic, plan, host, subject);
    // The null tells of packets that the capture never saw.
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
    const uint32_t subject = prngBelow(traffic.prng, traffic.options.subjects);
    const uint32_t publisher = pickPublisher(traffic, subject);
    sendFrom(traffic, plan, otherThan(traffic, publisher, pickHost(traffic)));
    plan.dstIp = hostAddress(traffic.options, publisher);
    plan.dstPort = busPort(traffic.options, portNumberOf(traffic.options, subject));
}

// A publisher answers all at once.
void planRrej(Traffic& traffic, PacketPlan& plan) {
    const uint32_t subject = prngBelow(traffic.prng, traffic.options.subjects);
    const Stream& stream = sendToGroup(traffic, plan, pickPublisher(traffic, subject), subject);
    plan.epoch = stream.epoch;
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

using Planner = void (*)(Traffic& traffic, PacketPlan& plan);
constexpr Planner kPlanners[kPacketKinds] = {
    planData, planNull, planRreq, planRrej, planPtp, planPtp, planPtp, planPtp, planNonBus,
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
                    .kindBelow = {},
                    .subjectStride = std::lcm(options.hosts, options.nets * options.ports),
                    .turn = 0,
                    .runsOn = false,
                    .last = {}};
    traffic.streams.resize(options.hosts * options.nets * options.ports);

    const Share shares[kPacketKinds] = {{},
                                        options.nulls,
                                        options.rreqs,
                                        options.rrejs,
                                        options.ptpData,
                                        options.ptpAckmes,
                                        options.ptpAcks,
                                        options.ptpNaks,
                                        options.nonBus};
    uint32_t below = 0;
    for (size_t kind = 0; kind < kPacketKinds; ++kind) {
        below += shares[kind].perMillion;
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
