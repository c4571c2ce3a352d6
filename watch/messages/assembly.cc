#include "watch/messages/assembly.h"

#include <algorithm>

#include "lib/base/bytes.h"
#include "lib/msg/oska.h"
#include "lib/msg/wire.h"
#include "trace/packets/oska.h"

namespace {

using Bytes = std::span<const uint8_t>;

void handOn(Assembly& assembly,
            const BusPacket& packet,
            Bytes bytes,
            uint64_t wantedBytes,
            Incomplete incomplete,
            bool isRepeated = false) {
    assembly.handOn({&packet, bytes, wantedBytes, incomplete, isRepeated}, assembly.context);
}

void forgetBegun(Assembly& assembly, AssemblySender& sender) {
    assembly.begunBytes -= sender.begun.size();
    assembly.begun.erase(sender.turn);
    sender.begun = {};
    sender.wantedBytes = 0;
}

void giveUp(Assembly& assembly, AssemblySender& sender, Incomplete reason) {
    if (sender.wantedBytes == 0) return;
    handOn(assembly, sender.last, sender.begun, sender.wantedBytes, reason);
    forgetBegun(assembly, sender);
}

// The senders heard longest ago go first. `keep` is the one that was heard last.
void makeRoom(Assembly& assembly, const AssemblySender& keep) {
    while (assembly.begunBytes > assembly.mostBytes && assembly.begun.front() != &keep) {
        giveUp(assembly, *assembly.begun.front(), Incomplete::kForgotten);
    }
}

AssemblySender& senderOf(Assembly& assembly, const BusPacket& packet) {
    const AssemblyKey key = {packet.srcIp, packet.dstIp, packet.srcPort, packet.dstPort};
    const auto found = assembly.byKey.find(key);
    if (found != assembly.byKey.end()) {
        AssemblySender& sender = *found->second;
        assembly.senders.splice(assembly.senders.end(), assembly.senders, found->second);
        if (sender.wantedBytes != 0) {
            assembly.begun.splice(assembly.begun.end(), assembly.begun, sender.turn);
        }
        return sender;
    }
    if (assembly.senders.size() >= assembly.mostSenders) {
        giveUp(assembly, assembly.senders.front(), Incomplete::kForgotten);
        assembly.byKey.erase(assembly.senders.front().key);
        assembly.senders.pop_front();
    }
    assembly.senders.emplace_back().key = key;
    assembly.byKey.emplace(key, std::prev(assembly.senders.end()));
    return assembly.senders.back();
}

// As the statistics follow numbers: repeated is what isn't above the last one of the same epoch.
bool isRepeated(AssemblySender& sender, const BusPacket& packet) {
    if (!sender.isKnown || sender.epoch != packet.epoch) {
        sender.isKnown = true;
        sender.epoch = packet.epoch;
        sender.lastNumber = packet.number - 1;
    }
    return packet.number <= sender.lastNumber;
}

void begin(Assembly& assembly,
           AssemblySender& sender,
           const BusPacket& packet,
           Bytes bytes,
           uint64_t wantedBytes) {
    if (wantedBytes > kAssemblyMostMessageBytes) {
        return handOn(assembly, packet, bytes, wantedBytes, Incomplete::kForgotten);
    }
    sender.turn = assembly.begun.insert(assembly.begun.end(), &sender);
    sender.begun.assign(bytes.begin(), bytes.end());
    sender.wantedBytes = wantedBytes;
    sender.nextNumber = packet.number + 1;
    sender.last = packet;
    sender.last.payload = {};
    assembly.begunBytes += bytes.size();
    makeRoom(assembly, sender);
}

// `packet` has nothing but more of the message that runs on.
void goOn(Assembly& assembly, AssemblySender& sender, const BusPacket& packet) {
    const bool follows = sender.wantedBytes != 0 && packet.number == sender.nextNumber;
    if (!follows) {
        giveUp(assembly, sender, Incomplete::kPartMissing);
        return handOn(assembly, packet, packet.payload, 0, Incomplete::kPartMissing);
    }
    const size_t more =
        std::min<uint64_t>(packet.payload.size(), sender.wantedBytes - sender.begun.size());
    sender.begun.insert(sender.begun.end(), packet.payload.begin(),
                        packet.payload.begin() + static_cast<ptrdiff_t>(more));
    assembly.begunBytes += more;
    sender.last = packet;
    sender.last.payload = {};
    ++sender.nextNumber;
    if (sender.begun.size() == sender.wantedBytes) {
        handOn(assembly, packet, sender.begun, sender.wantedBytes, Incomplete::kNo);
        return forgetBegun(assembly, sender);
    }
    if (!packet.isComplete) return giveUp(assembly, sender, Incomplete::kCut);
    makeRoom(assembly, sender);
}

// What begins at the end of the packet and isn't all there.
void takeRest(Assembly& assembly,
              AssemblySender* sender,
              const BusPacket& packet,
              Bytes rest,
              uint64_t wantedBytes) {
    if (!packet.isComplete)
        return handOn(assembly, packet, rest, wantedBytes, Incomplete::kCut, sender == nullptr);
    if (packet.fragment == 1 && sender != nullptr && wantedBytes != 0) {
        return begin(assembly, *sender, packet, rest, wantedBytes);
    }
    handOn(assembly, packet, rest, wantedBytes, Incomplete::kRunsOver, sender == nullptr);
}

// The messages of one packet. `sender` is null for repeated data, in which nothing begins.
void takeMessages(Assembly& assembly, AssemblySender* sender, const BusPacket& packet) {
    Bytes left = packet.payload;
    while (!left.empty()) {
        if (left.size() < kMessageHeadBytes) return takeRest(assembly, sender, packet, left, 0);
        const uint64_t wantedBytes = loadBe32At(left.data());
        if (loadBe32At(left.data() + kMessageMagicOffset) != kMessageMagic ||
            wantedBytes < kMessageHeadBytes) {
            return handOn(assembly, packet, left, 0, Incomplete::kNoMessage, sender == nullptr);
        }
        if (wantedBytes > left.size()) return takeRest(assembly, sender, packet, left, wantedBytes);
        handOn(assembly, packet, left.first(wantedBytes), wantedBytes, Incomplete::kNo,
               sender == nullptr);
        left = left.subspan(wantedBytes);
    }
    if (!packet.isComplete) takeRest(assembly, sender, packet, left, 0);
}

void takeData(Assembly& assembly, const BusPacket& packet) {
    AssemblySender& sender = senderOf(assembly, packet);
    const uint32_t epochBefore = sender.epoch;
    if (isRepeated(sender, packet)) {
        if (assembly.wantsRepeats && packet.fragment < 2) takeMessages(assembly, nullptr, packet);
        return;
    }
    sender.lastNumber = packet.number;
    if (sender.epoch != epochBefore) giveUp(assembly, sender, Incomplete::kPartMissing);
    if (packet.fragment >= 2) return goOn(assembly, sender, packet);
    giveUp(assembly, sender, Incomplete::kPartMissing);
    takeMessages(assembly, &sender, packet);
}

// A sender without news says how far it has come.
void takeNull(Assembly& assembly, const BusPacket& packet) {
    AssemblySender& sender = senderOf(assembly, packet);
    const bool isNew = !sender.isKnown || sender.epoch != packet.epoch;
    if (isNew || packet.number > sender.lastNumber) {
        if (sender.wantedBytes != 0) giveUp(assembly, sender, Incomplete::kPartMissing);
        sender.isKnown = true;
        sender.epoch = packet.epoch;
        sender.lastNumber = packet.number;
    }
}

}  // namespace

size_t AssemblyKeyHash::operator()(const AssemblyKey& key) const {
    constexpr uint64_t kOdd = 0x9e3779b97f4a7c15;
    const uint64_t hosts = uint64_t{key.srcIp} << 32 | key.dstIp;
    const uint64_t ports = uint64_t{key.srcPort} << 16 | key.dstPort;
    const uint64_t mixed = (hosts ^ ports * kOdd) * kOdd;
    return static_cast<size_t>(mixed ^ mixed >> 29);
}

bool busPacketRead(TimeSpec time, std::span<const uint8_t> ip, BusPacket* out) {
    if (!oskaIsAt(ip.data(), ip.size())) return false;
    const OskaExtent extent = oskaExtent(ip.data(), ip.size());
    const uint8_t* const oska = ip.data() + kOskaOffset;
    const Bytes packet(oska, oskaBytes(extent));
    if (packet.size() < kOskaSeqOffset + sizeof out->number) return false;
    *out = {.time = time,
            .srcIp = loadNet32At(ip.data() + kIpSrcOffset),
            .dstIp = loadNet32At(ip.data() + kIpDstOffset),
            .srcPort = oskaSrcPort(ip.data()),
            .dstPort = loadNet16At(ip.data() + kUdpDstPortOffset),
            .type = static_cast<int16_t>(loadBe16At(oska + kOskaTypeOffset)),
            .epoch = loadBe32At(oska + kOskaEpochOffset),
            .number = loadBe32At(oska + kOskaSeqOffset),
            .fragment = 0,
            .isComplete = extent.complete,
            .payload = {}};
    const bool hasData = out->type == kOskaData || out->type == kOskaPtpData;
    if (!hasData) return true;
    if (packet.size() < kOskaDataHeaderBytes) return !extent.complete;
    out->fragment = loadBe16At(oska + kOskaFragmentOffset);
    out->payload = packet.subspan(kOskaDataHeaderBytes);
    return true;
}

void assemblyTake(Assembly& assembly, const BusPacket& packet) {
    if (packet.type == kOskaData) takeData(assembly, packet);
    if (packet.type == kOskaNull) takeNull(assembly, packet);
}

void assemblyEnd(Assembly& assembly) {
    for (AssemblySender& sender : assembly.senders)
        giveUp(assembly, sender, Incomplete::kPartMissing);
}
