// pelmogen: makes bus traffic for tests, samples and measurements, as a capture or live.
//
// Exit status: 0 when the capture is complete or all was sent, 1 on failure, 2 for a wrong command
// line.

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>

#include "programs/option_table.h"
#include "programs/streams.h"
#include "tools/pelmogen/command_line.h"
#include "tools/pelmogen/damage.h"
#include "tools/pelmogen/packet.h"
#include "tools/pelmogen/pcap_file.h"
#include "tools/pelmogen/prng.h"
#include "tools/pelmogen/sink.h"
#include "tools/pelmogen/totals.h"
#include "tools/pelmogen/traffic.h"
#include "tools/pelmogen/wire.h"

namespace {

// Faults have a random sequence of their own, so the traffic is the same with and without them.
struct Faults {
    const GeneratorOptions& options;
    Prng prng;
};

void makePacket(PacketMaker& maker, Faults& faults, const PacketPlan& plan) {
    packetFill(maker, plan);
    const Damage* damage = nullptr;
    if (prngChance(faults.prng, faults.options.damaged.perMillion)) {
        damage = damagePayload(faults.options.damage, maker.draft, faults.prng);
    }
    packetSeal(maker);
    if (damage != nullptr && damage->toFrame != nullptr) {
        damage->toFrame(maker.draft, faults.prng);
    }
}

size_t bytesInHand(Faults& faults, size_t frameBytes) {
    if (!prngChance(faults.prng, faults.options.cut.perMillion)) return frameBytes;
    const Range to = faults.options.cutTo;
    return std::min<size_t>(prngBetween(faults.prng, to.low, to.high), frameBytes - 1);
}

void tally(SentTotals& totals, const PacketDraft& draft) {
    KindTotals& row = totals.kinds[static_cast<size_t>(draft.plan.kind)];
    ++row.packets;
    row.payloadBytes += draft.payloadBytes;
}

// Each packet is planned, filled, damaged, sealed, cut and passed to the sink. False with `errno`
// set if the sink failed; `totals` is undefined then.
bool generate(const GeneratorOptions& options, const PacketSink& sink, SentTotals& totals) {
    using Clock = std::chrono::steady_clock;
    Traffic traffic = trafficMake(options);
    PacketMaker maker = packetMakerMake(options, totals);
    Faults faults{options, prngMake(hash64(options.seed, 2))};
    const Clock::time_point start = Clock::now();
    for (uint64_t packet = 0; packet < options.count; ++packet) {
        if (sink.wantsMore != nullptr && !sink.wantsMore(sink.context)) break;
        makePacket(maker, faults, trafficNext(traffic));
        const size_t frameBytes = maker.draft.frameBytes;
        const auto frame = maker.draft.frame.first(bytesInHand(faults, frameBytes));
        if (!sink.write(sink.context, frame, frameBytes, packetTime(options, packet).count)) {
            return false;
        }
        tally(totals, maker.draft);
    }
    const bool done = sink.finish(sink.context);
    totals.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return done;
}

int writeCapture(const GeneratorOptions& options) {
    PcapFile file;
    SentTotals totals;
    errno = 0;
    const bool done = pcapFileOpen(file, options) && generate(options, pcapFileSink(file), totals);
    const int error = errno;
    pcapFileClose(file);
    if (done) return 0;
    std::fprintf(stderr, "pelmogen: %s: %s\n", options.outFile, std::strerror(error));
    return 1;
}

int sendLive(const GeneratorOptions& options) {
    const char* const where = options.loopback ? "loopback" : options.interfaceName;
    Wire wire;
    SentTotals totals;
    std::string error;
    bool done = wireOpen(wire, options, error);
    if (done && !generate(options, wireSink(wire), totals)) {
        error = std::strerror(errno);
        done = false;
    }
    wireClose(wire);
    if (done) {
        std::fputs(totalsText(totals).c_str(), stdout);
        return 0;
    }
    std::fprintf(stderr, "pelmogen: %s: %s\n", where, error.c_str());
    return 1;
}

}  // namespace

int main(int argc, char** argv) try {
    streamsHold();
    streamsOutliveFaults();
    GeneratorOptions options;
    std::string error;
    const std::span<char* const> words(argv, static_cast<size_t>(argc));
    switch (optionsParse(words.subspan(words.empty() ? 0 : 1), options, error)) {
        case ParseResult::kHelp:
            std::fputs(optionsHelp().c_str(), stdout);
            return 0;
        case ParseResult::kVersion:
            std::fputs(versionText("pelmogen").c_str(), stdout);
            return 0;
        case ParseResult::kWrong:
            std::fprintf(stderr, "pelmogen: %s; --help lists the options\n", error.c_str());
            return 2;
        case ParseResult::kRun:
            return options.outFile != nullptr ? writeCapture(options) : sendLive(options);
    }
} catch (const std::bad_alloc&) {
    std::fputs("pelmogen: out of memory\n", stderr);
    return 1;
}
