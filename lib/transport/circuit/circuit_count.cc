#include "lib/transport/circuit/circuit_count.h"

#include <algorithm>

Tick countTick(CircuitCount& count) {
    if (++count.ticksSilent >= kMostSilentTicks) return Tick::kSilent;
    // Heartbeats that can't be sent don't make the number wrap, however long that lasts.
    count.ticksSinceSend = std::min<uint8_t>(count.ticksSinceSend + 1, kHeartbeatTicks);
    return count.ticksSinceSend == kHeartbeatTicks ? Tick::kHeartbeat : Tick::kNothing;
}

void countHeartbeatSent(CircuitCount& count) {
    count.ticksSinceSend = 0;
}

Arrival countArrival(CircuitCount& count, const CircuitHead& head) {
    if (head.kind == CircuitKind::kNone || !head.hasNumber) return Arrival::kInvalid;
    if (head.number != ++count.recvSeq) {
        ++count.sendSeq;
        return Arrival::kGap;
    }
    count.ticksSilent = 0;
    switch (head.kind) {
        case CircuitKind::kData:
            return Arrival::kParcel;
        case CircuitKind::kHeartbeat:
            return Arrival::kSign;
        case CircuitKind::kGoodbye:
            return Arrival::kGoodbye;
        default:
            return Arrival::kInvalid;
    }
}
