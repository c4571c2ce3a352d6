// Sorting and printing a large Snapshot of the real statistics: 20,000 hosts, 200,000 subjects of
// one host each.

#include <arpa/inet.h>
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "lib/base/log.h"
#include "lib/containers/subject.h"
#include "trace/counts/charge.h"
#include "trace/counts/statistics.h"
#include "trace/report/report.h"
#include "trace/settings.h"

namespace {

constexpr uint32_t kHosts = 20000;
constexpr uint32_t kSubjects = 200000;
constexpr int32_t kStart = 1700000000;

using PackedSubject = std::vector<uint8_t>;

uint32_t hostAddress(uint32_t number) {
    return htonl(0x0a000000 + number % kHosts);
}

PackedSubject packNumbered(uint32_t number) {
    const std::string text = "MARKET.EQUITIES.EXCHANGE" + std::to_string(number % 7) + ".SYMBOL" +
                             std::to_string(number) + ".TRADE";
    PackedSubject packed(kSubjectMaxBytes);
    packed.resize(static_cast<size_t>(
        subjectFromText(packed.data(), static_cast<int32_t>(packed.size()), text.c_str())));
    return packed;
}

// Subjects arrive in random order, as in real traffic.
const std::vector<PackedSubject>& subjects() {
    static const std::vector<PackedSubject> packed = [] {
        std::vector<PackedSubject> made;
        for (uint32_t i = 0; i < kSubjects; ++i) {
            made.push_back(packNumbered(i));
        }
        std::shuffle(made.begin(), made.end(), std::mt19937(1));
        return made;
    }();
    return packed;
}

// An interval in which every host and every subject had traffic. Null without memory.
SnapHeader* takeBusyInterval() {
    traceSettings.countSenders = true;
    if (statistics.ports == nullptr && statsInit() != kStatusSuccess) return nullptr;
    PortEntry* port = portEntry(htons(7500));
    NetEntry* net = netEntry(*port, inet_addr("224.1.1.1"));
    port->live = net->live = 1;
    for (uint32_t i = 0; i < kHosts; ++i) {
        HostEntry* host =
            hostEntry({hostAddress(i), inet_addr("224.1.1.1"), htons(8000), htons(7500)});
        markLive(*host);
        host->data += i;
        host->bytes += uint64_t{i} * 100;
    }
    uint32_t number = 0;
    for (const PackedSubject& packed : subjects()) {
        const uint32_t address = hostAddress(number++);
        if (chargeMessage(*net, hostKey(address, htons(8000)), packed, number) !=
            ChargeResult::kDone) {
            std::abort();
        }
    }
    snapshotSetStart({kStart, 0});
    return snapshotTake({kStart + 10, 0});
}

void sortBusyInterval(benchmark::State& state) {
    for (auto _ : state) {
        state.PauseTiming();
        SnapHeader* snapshot = takeBusyInterval();
        state.ResumeTiming();
        snapshotSort(snapshot);
    }
}
BENCHMARK(sortBusyInterval)->Unit(benchmark::kMillisecond);

// A whole report, including the sort.
void printBusyInterval(benchmark::State& state, bool rate, bool addrInfo) {
    traceSettings.displayRate = rate;
    traceSettings.displayAddrInfo = addrInfo;
    FILE* nowhere = std::fopen("/dev/null", "w");
    logSetStream(nowhere);
    for (auto _ : state) {
        state.PauseTiming();
        SnapHeader* snapshot = takeBusyInterval();
        state.ResumeTiming();
        printSnapshot(snapshot);
    }
    logSetStream(nullptr);
    std::fclose(nowhere);
}
BENCHMARK_CAPTURE(printBusyInterval, counts, false, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(printBusyInterval, rates, true, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(printBusyInterval, countsWithHosts, false, true)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(printBusyInterval, ratesWithHosts, true, true)->Unit(benchmark::kMillisecond);

}  // namespace
