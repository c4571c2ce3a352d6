#include "tools/pelmogen/packet.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "lib/msg/oska.h"
#include "tools/pelmogen/message.h"

namespace {

// A message that is split may be twice as long as a packet, and an envelope a little longer than
// requested.
constexpr size_t kRoomBytes = kPayloadOffset + 2 * kPayloadMax + 2000;
constexpr size_t kFrameBytesMin = 60;  // Ethernet's, without its check sequence

constexpr uint16_t kEtherTypeIp = 0x0800;
constexpr size_t kIpBytes = 20;
constexpr size_t kUdpBytes = 8;
constexpr uint8_t kProtocolUdp = 17;
constexpr uint8_t kTimeToLive = 16;

constexpr uint32_t kRreqItemsMax = 12;

bool isMulticast(uint32_t address) {
    return address >> 28 == 0xe;
}

// Some senders leave the OSKA destination of a group at 0.
bool leavesDestinationOut(uint32_t host) {
    return host % 8 == 7;
}

// Some senders have the shorter null packet.
bool leavesReliabilityOut(uint32_t host) {
    return host % 4 == 3;
}

void putOskaHeader(ByteWriter& out, const PacketPlan& plan, int type, uint32_t seq) {
    const bool unset = isMulticast(plan.dstIp) && leavesDestinationOut(plan.host);
    putBe32(out, kOskaMagic);
    putBe32(out, plan.srcIp);
    putBe32(out, plan.epoch);
    putBe32(out, unset ? 0 : plan.dstIp);
    putBe16(out, static_cast<uint16_t>(type));
    putBe16(out, 0);
    putBe32(out, seq);
}

void putDataHeader(ByteWriter& out, const PacketPlan& plan, OskaType type) {
    putOskaHeader(out, plan, type, plan.seq);
    putBe32(out, 0);
    putBe16(out, 0);  // length, once it's known
    putBe16(out, plan.fragment);
}

void setDataLength(ByteWriter& out) {
    storeBe16At(out.room.data() + kOskaDataLengthOffset,
                static_cast<uint16_t>(out.used - kOskaDataHeaderBytes));
}

size_t pickDataBytes(PacketMaker& maker) {
    const Range payload = maker.options.payload;
    return prngBetween(maker.prng, payload.low, payload.high) - kOskaDataHeaderBytes;
}

void tallyMessage(PacketMaker& maker, uint32_t subject) {
    const PacketPlan& plan = maker.draft.plan;
    SentTotals& totals = maker.totals;
    ++totals.messages;
    if (plan.hostStatus) {
        totals.hostStatusSent[plan.host] = true;
    } else {
        totals.subjectSent[subject] = true;
    }
}

bool addMessage(PacketMaker& maker, ByteWriter& out, uint32_t subject, size_t sizeBytes) {
    const GeneratorOptions& options = maker.options;
    const PacketPlan& plan = maker.draft.plan;
    std::array<uint8_t, kSendSubjectBytesMax> statusRoom;
    ByteWriter status{statusRoom};
    MessageShape shape{.subject = subjectAt(maker.subjects, subject),
                       .reply = prngChance(maker.prng, options.replies.perMillion),
                       .fields = prngBetween(maker.prng, options.fields.low, options.fields.high),
                       .types = maker.types,
                       .sizeBytes = sizeBytes};
    if (plan.hostStatus) {
        putHostStatusSubject(status, plan.host);
        shape.subject = writtenSince(status, 0);
    } else if (prngChance(maker.prng, options.noSubject.perMillion)) {
        shape.subject = {};
    }
    const size_t start = out.used;
    if (!putMessage(out, shape, maker.prng)) return false;
    if (!shape.subject.empty()) tallyMessage(maker, subject);
    if (start == kOskaDataHeaderBytes && !shape.subject.empty()) {
        maker.draft.subjectOffset = start + kMessageSubjectOffset;
    }
    return true;
}

// The messages share the rest of the payload. A message whose envelope alone takes more leaves no
// room for those after it.
void addMessages(PacketMaker& maker, ByteWriter& out, size_t dataBytes) {
    const PacketPlan& plan = maker.draft.plan;
    const size_t end = out.used + dataBytes;
    for (uint32_t i = 0; i < plan.subjectCount && out.used < end; ++i) {
        const size_t share = (end - out.used) / (plan.subjectCount - i);
        if (!addMessage(maker, out, plan.subjects[i], share)) return;
    }
}

// Each has a size of its own, as long as the payload has room for it.
void addSizedMessages(PacketMaker& maker, ByteWriter& out) {
    const PacketPlan& plan = maker.draft.plan;
    const Range sizes = maker.options.messageBytes;
    for (uint32_t i = 0; i < plan.subjectCount; ++i) {
        const size_t sizeBytes = prngBetween(maker.prng, sizes.low, sizes.high);
        if (i > 0 && out.used + sizeBytes > maker.options.payload.high) return;
        if (!addMessage(maker, out, plan.subjects[i], sizeBytes)) return;
    }
}

void addMessageStart(PacketMaker& maker, ByteWriter& out, size_t dataBytes) {
    const size_t start = out.used;
    if (!addMessage(maker, out, maker.draft.plan.subjects[0], 2 * dataBytes)) return;
    const std::span<const uint8_t> message = writtenSince(out, start);
    const std::span<const uint8_t> rest = message.subspan(dataBytes);
    maker.rest.assign(rest.begin(), rest.end());
    out.used = start + dataBytes;
}

void fillData(PacketMaker& maker, ByteWriter& out) {
    const PacketPlan& plan = maker.draft.plan;
    putDataHeader(out, plan, kOskaData);
    switch (plan.fragment) {
        case 0:
            if (maker.options.messageBytes.high > 0) {
                addSizedMessages(maker, out);
            } else {
                addMessages(maker, out, pickDataBytes(maker));
            }
            break;
        case 1:
            addMessageStart(maker, out, pickDataBytes(maker));
            break;
        default:
            putBytes(out, maker.rest);
            break;
    }
    setDataLength(out);
}

void fillNull(PacketMaker& maker, ByteWriter& out) {
    const PacketPlan& plan = maker.draft.plan;
    putOskaHeader(out, plan, kOskaNull, plan.seq);
    if (leavesReliabilityOut(plan.host)) return;
    const double reliability = 50 + plan.host % 51;
    putBe64(out, std::bit_cast<uint64_t>(reliability));
}

void fillRreq(PacketMaker& maker, ByteWriter& out) {
    const uint32_t items = prngBetween(maker.prng, 1, kRreqItemsMax);
    putOskaHeader(out, maker.draft.plan, kOskaRreq, items * 4);
    const uint32_t first = prngBelow(maker.prng, kMillion);
    for (uint32_t i = 0; i < items; ++i) {
        putBe32(out, first + i);
    }
}

void fillRrej(PacketMaker& maker, ByteWriter& out) {
    putOskaHeader(out, maker.draft.plan, kOskaRrej, 0);
}

void putNoise(ByteWriter& out, Prng& prng, size_t sizeBytes) {
    for (size_t i = 0; i < sizeBytes; ++i) {
        put8(out, static_cast<uint8_t>(prngNext(prng)));
    }
}

void fillPtpData(PacketMaker& maker, ByteWriter& out) {
    putDataHeader(out, maker.draft.plan, kOskaPtpData);
    putNoise(out, maker.prng, pickDataBytes(maker));
    setDataLength(out);
}

void fillPtpAckme(PacketMaker& maker, ByteWriter& out) {
    putOskaHeader(out, maker.draft.plan, kOskaPtpAckme, 0);
}

void fillPtpAck(PacketMaker& maker, ByteWriter& out) {
    putOskaHeader(out, maker.draft.plan, kOskaPtpAck, 0);
}

void fillPtpNak(PacketMaker& maker, ByteWriter& out) {
    putOskaHeader(out, maker.draft.plan, kOskaPtpNak, 0);
}

void fillUnknown(PacketMaker& maker, ByteWriter& out) {
    const uint16_t type = kUnknownTypes[prngBelow(maker.prng, std::size(kUnknownTypes))];
    putOskaHeader(out, maker.draft.plan, type, maker.draft.plan.seq);
}

// The sizes go from 0 to a few hundred bytes, so some packets are too small for any OSKA header.
void fillNonBus(PacketMaker& maker, ByteWriter& out) {
    putNoise(out, maker.prng, prngBelow(maker.prng, 300));
    if (out.used >= 4) storeBe32At(out.room.data(), ~kOskaMagic);
}

struct KindRow {
    size_t headerBytes;
    void (*fill)(PacketMaker& maker, ByteWriter& out);
};
constexpr KindRow kKinds[kPacketKinds] = {
    {kOskaDataHeaderBytes, fillData},
    {kOskaDataHeaderBytes, fillNull},
    {kShortHeaderBytes, fillRreq},
    {kShortHeaderBytes, fillRrej},
    {kOskaDataHeaderBytes, fillPtpData},
    {kShortHeaderBytes, fillPtpAckme},
    {kShortHeaderBytes, fillPtpAck},
    {kShortHeaderBytes, fillPtpNak},
    {0, fillNonBus},
    {kShortHeaderBytes, fillUnknown},
};

// Adds 32-bit words in memory order: the Internet checksum doesn't depend on the width of the
// words, as long as the carries are added in the end.
uint64_t addWords(uint64_t sum, std::span<const uint8_t> bytes) {
    const uint8_t* at = bytes.data();
    size_t left = bytes.size();
    for (; left >= 4; at += 4, left -= 4) {
        uint32_t word;
        std::memcpy(&word, at, sizeof word);
        sum += word;
    }
    uint32_t last = 0;
    if (left > 0) std::memcpy(&last, at, left);
    return sum + last;
}

uint16_t foldToChecksum(uint64_t sum) {
    while (sum >> 16 != 0) {
        sum = (sum & 0xffff) + (sum >> 16);
    }
    return static_cast<uint16_t>(~sum);
}

void storeInMemoryOrder(uint8_t* at, uint16_t word) {
    std::memcpy(at, &word, sizeof word);
}

// The Ethernet address of multicast is 01:00:5e and 23 bits of the group, that of all else 02:00
// and the IP address.
void writeMac(uint8_t* at, uint32_t address) {
    const bool group = isMulticast(address);
    storeBe16At(at, group ? 0x0100 : 0x0200);
    storeBe32At(at + 2, group ? 0x5e000000 | (address & 0x7fffff) : address);
}

void writeEthernet(uint8_t* at, const PacketPlan& plan) {
    writeMac(at, plan.dstIp);
    writeMac(at + 6, plan.srcIp);
    storeBe16At(at + 12, kEtherTypeIp);
}

void writeIp(uint8_t* at, const PacketPlan& plan, uint16_t id, size_t totalBytes) {
    storeBe16At(at, 0x4500);
    storeBe16At(at + 2, static_cast<uint16_t>(totalBytes));
    storeBe16At(at + 4, id);
    storeBe16At(at + 6, 0);
    at[8] = kTimeToLive;
    at[9] = kProtocolUdp;
    storeBe16At(at + 10, 0);
    storeBe32At(at + 12, plan.srcIp);
    storeBe32At(at + 16, plan.dstIp);
    storeInMemoryOrder(at + 10, foldToChecksum(addWords(0, {at, kIpBytes})));
}

// The addresses of the pseudo-header already precede the UDP header; its last words are the
// protocol and the length.
void writeUdp(uint8_t* at, const PacketPlan& plan, size_t udpBytes) {
    storeBe16At(at, plan.srcPort);
    storeBe16At(at + 2, plan.dstPort);
    storeBe16At(at + 4, static_cast<uint16_t>(udpBytes));
    storeBe16At(at + 6, 0);

    uint8_t tail[4] = {0, kProtocolUdp};
    storeBe16At(tail + 2, static_cast<uint16_t>(udpBytes));
    uint64_t sum = addWords(0, tail);
    sum = addWords(sum, {at - 8, 8});
    const uint16_t checksum = foldToChecksum(addWords(sum, {at, udpBytes}));
    storeInMemoryOrder(at + 6, checksum == 0 ? uint16_t{0xffff} : checksum);
}

}  // namespace

PacketMaker packetMakerMake(const GeneratorOptions& options, SentTotals& totals) {
    totals.subjectSent.resize(options.subjects);
    totals.hostStatusSent.resize(options.hosts);
    PacketMaker maker{.options = options,
                      .totals = totals,
                      .prng = prngMake(hash64(options.seed, 1)),
                      .subjects = subjectTableMake(options),
                      .types = {},
                      .room = std::vector<uint8_t>(kRoomBytes),
                      .rest = {},
                      .nextIpId = 1,
                      .draft = {}};
    for (uint8_t row = 0; row < fieldTypes().size(); ++row) {
        if (options.types.bits >> row & 1) maker.types.push_back(row);
    }
    maker.draft.frame = maker.room;
    return maker;
}

void packetFill(PacketMaker& maker, const PacketPlan& plan) {
    PacketDraft& draft = maker.draft;
    draft.plan = plan;
    draft.subjectOffset = 0;
    ByteWriter out{draft.frame.subspan(kPayloadOffset)};
    kKinds[static_cast<size_t>(plan.kind)].fill(maker, out);
    draft.payloadBytes = out.used;
}

void packetSeal(PacketMaker& maker) {
    PacketDraft& draft = maker.draft;
    uint8_t* frame = draft.frame.data();
    const size_t udpBytes = kUdpBytes + draft.payloadBytes;
    writeEthernet(frame, draft.plan);
    writeIp(frame + kIpOffset, draft.plan, maker.nextIpId++, kIpBytes + udpBytes);
    writeUdp(frame + kUdpOffset, draft.plan, udpBytes);

    draft.frameBytes = kUdpOffset + udpBytes;
    if (draft.frameBytes >= kFrameBytesMin) return;
    std::memset(frame + draft.frameBytes, 0, kFrameBytesMin - draft.frameBytes);
    draft.frameBytes = kFrameBytesMin;
}

size_t headerBytesOf(PacketKind kind) {
    return kKinds[static_cast<size_t>(kind)].headerBytes;
}
