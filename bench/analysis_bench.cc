// The packet analysis, part by part: what one packet costs, alone and against a large tree, and
// what one snapshot costs that copies such a tree.

#include <arpa/inet.h>
#include <benchmark/benchmark.h>

#include <cstdlib>

#include "tests/support/packet_builder.h"
#include "trace/counts/snapshot.h"
#include "trace/counts/statistics.h"
#include "trace/packets/checksum.h"
#include "trace/packets/classify.h"
#include "trace/packets/scan.h"

namespace {

struct Tree {
    Tree() {
        if (statsInit() != kStatusSuccess) std::abort();
    }
    ~Tree() { statsDestroy(); }
};

void checksum(benchmark::State& state) {
    const Bytes bytes(static_cast<size_t>(state.range(0)), 0x5a);
    for (auto _ : state) {
        benchmark::DoNotOptimize(udpChecksum(bytes.data(), bytes.size(), nullptr));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(checksum)->Arg(300)->Arg(1200);

// Data packets of about 300 bytes with one message each, one for each subject, spread over `hosts`.
// A host's epoch changes with each packet, so that all are new data however often they are
// repeated.
std::vector<Bytes> dataPackets(size_t subjects, size_t hosts) {
    std::vector<Bytes> packets;
    packets.reserve(subjects);
    for (size_t i = 0; i < subjects; ++i) {
        const PacketHead head = {.srcIp = ipv4(10, 0, 0, 0) + static_cast<uint32_t>(i % hosts),
                                 .epoch = 0x80000001 + static_cast<uint32_t>(i / hosts % 2)};
        const std::string subject = "FEED.PRICES.EQUITY.S" + std::to_string(i);
        packets.push_back(dataPacket(head, busMessage(subject, 170)));
    }
    return packets;
}

void classifyData(benchmark::State& state) {
    const auto subjects = static_cast<size_t>(state.range(0));
    const auto hosts = static_cast<size_t>(state.range(1));
    const Tree tree;
    const std::vector<Bytes> packets = dataPackets(subjects, hosts);
    for (const Bytes& packet : packets) {
        analyzePacket({}, packet.data(), packet.size());
    }
    size_t next = 0;
    for (auto _ : state) {
        const Bytes& packet = packets[next];
        if (++next == packets.size()) next = 0;
        analyzePacket({}, packet.data(), packet.size());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(classifyData)
    ->ArgNames({"subjects", "hosts"})
    ->Args({2, 1})
    ->Args({1000, 100})
    ->Args({200000, 20000});

void classifyOther(benchmark::State& state) {
    const Tree tree;
    const Bytes packet = udpPacket({}, Bytes(300));
    for (auto _ : state) {
        analyzePacket({}, packet.data(), packet.size());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(classifyOther);

void scan(benchmark::State& state) {
    const Tree tree;
    NetEntry* net = netEntry(*portEntry(htons(7500)), htonl(ipv4(239, 1, 1, 1)));
    const std::vector<Bytes> messages(static_cast<size_t>(state.range(0)), busMessage("A.B.C", 60));
    const Bytes payload = joined(messages);
    for (auto _ : state) {
        benchmark::DoNotOptimize(scanMessages({*net, 1, 1, true}, payload));
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(scan)->ArgName("messages")->Arg(1)->Arg(10);

void snapshot(benchmark::State& state) {
    const Tree tree;
    const std::vector<Bytes> packets =
        dataPackets(static_cast<size_t>(state.range(0)), static_cast<size_t>(state.range(1)));
    for (auto _ : state) {
        state.PauseTiming();
        for (const Bytes& packet : packets) {
            analyzePacket({}, packet.data(), packet.size());
        }
        state.ResumeTiming();
        benchmark::DoNotOptimize(snapshotTake({}));
    }
}
BENCHMARK(snapshot)
    ->ArgNames({"subjects", "hosts"})
    ->Args({200000, 20000})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(10);

}  // namespace
