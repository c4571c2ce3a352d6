#include "tools/pelmogen/generate.h"

#include <algorithm>
#include <chrono>

#include "tools/pelmogen/damage.h"
#include "tools/pelmogen/packet.h"
#include "tools/pelmogen/prng.h"
#include "tools/pelmogen/traffic.h"

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

}  // namespace

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
