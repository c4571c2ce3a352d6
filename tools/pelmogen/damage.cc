#include "tools/pelmogen/damage.h"

#include "lib/msg/oska.h"
#include "tools/pelmogen/message.h"

namespace {

constexpr uint32_t kStrangerAddress = 0x0afffffe;  // 10.255.255.254, no host's
constexpr size_t kUdpLengthOffset = kUdpOffset + 4;
constexpr size_t kUdpChecksumOffset = kUdpOffset + 6;
constexpr size_t kDataLengthOffset = 28;
constexpr size_t kMessageOffset = kOskaDataHeaderBytes;

bool has(const PacketDraft& draft, PacketKind kind) {
    return draft.plan.kind == kind;
}

// Messages are damaged only when the packet holds them whole.
bool hasMessage(const PacketDraft& draft) {
    return has(draft, PacketKind::kData) && draft.plan.fragment == 0 &&
           draft.payloadBytes >= kMessageOffset + kMessageHeadBytes;
}

bool spoilChecksum(PacketDraft& draft, Prng& prng) {
    uint8_t* at = draft.frame.data() + kUdpChecksumOffset;
    // The wrong checksum must be neither the right one, nor 0 or all ones, which have meanings of
    // their own.
    const uint16_t right = static_cast<uint16_t>(at[0] << 8 | at[1]);
    uint16_t wrong = right;
    while (wrong == right || wrong == 0 || wrong == 0xffff) {
        wrong = static_cast<uint16_t>(prngNext(prng));
    }
    storeBe16At(at, wrong);
    return true;
}

bool dropChecksum(PacketDraft& draft, Prng&) {
    storeBe16At(draft.frame.data() + kUdpChecksumOffset, 0);
    return true;
}

bool growUdpLength(PacketDraft& draft, Prng& prng) {
    const size_t udpBytes = kPayloadOffset - kUdpOffset + draft.payloadBytes;
    storeBe16At(draft.frame.data() + kUdpLengthOffset,
                static_cast<uint16_t>(udpBytes + prngBetween(prng, 1, 1000)));
    return true;
}

bool spoilMagic(PacketDraft& draft, Prng& prng) {
    draft.payload()[prngBelow(prng, 4)] ^= 0x10;
    return true;
}

bool spoilType(PacketDraft& draft, Prng& prng) {
    const uint16_t type = kUnknownTypes[prngBelow(prng, std::size(kUnknownTypes))];
    storeBe16At(draft.payload() + kOskaTypeOffset, type);
    return true;
}

bool spoilSource(PacketDraft& draft, Prng& prng) {
    storeBe32At(draft.payload() + kOskaSrcOffset, prngBelow(prng, 2) == 0 ? 0 : 0xffffffff);
    return true;
}

bool spoilDestination(PacketDraft& draft, Prng& prng) {
    uint32_t wrong = kStrangerAddress;  // the address of no group and no receiver
    if (has(draft, PacketKind::kRreq)) wrong = prngBelow(prng, 2) == 0 ? 0 : 0xffffffff;
    storeBe32At(draft.payload() + kOskaDstOffset, wrong);
    return true;
}

bool spoilLength(PacketDraft& draft, Prng& prng) {
    const auto tooLong = static_cast<uint32_t>(draft.payloadBytes - kShortHeaderBytes + 4);
    const uint32_t wrong[] = {0, 0xffffffff, tooLong};
    const uint32_t length = wrong[prngBelow(prng, std::size(wrong))];
    if (has(draft, PacketKind::kRreq)) {
        storeBe32At(draft.payload() + kOskaSeqOffset, length);
        return true;
    }
    if (!has(draft, PacketKind::kData) && !has(draft, PacketKind::kPtpData)) return false;
    storeBe16At(draft.payload() + kDataLengthOffset, static_cast<uint16_t>(length));
    return true;
}

// A packet of the bus has at least 20 bytes. A null packet of 24 bytes would be whole.
bool cutHeader(PacketDraft& draft, Prng& prng) {
    const auto headerBytes = static_cast<uint32_t>(headerBytesOf(draft.plan.kind));
    draft.payloadBytes = prngBetween(prng, 20, headerBytes - 1);
    if (has(draft, PacketKind::kNull) && draft.payloadBytes == kShortHeaderBytes) {
        ++draft.payloadBytes;
    }
    return true;
}

bool spoilMessageMagic(PacketDraft& draft, Prng& prng) {
    if (!hasMessage(draft)) return false;
    draft.payload()[kMessageOffset + 4 + prngBelow(prng, 4)] ^= 0x01;
    return true;
}

bool spoilMessageLength(PacketDraft& draft, Prng& prng) {
    if (!hasMessage(draft)) return false;
    const auto leftBytes = static_cast<uint32_t>(draft.payloadBytes - kMessageOffset);
    const uint32_t wrong[] = {0, 7, leftBytes + 1, 0xffffffff};
    storeBe32At(draft.payload() + kMessageOffset, wrong[prngBelow(prng, std::size(wrong))]);
    return true;
}

bool spoilFieldSize(PacketDraft& draft, Prng& prng) {
    if (!hasMessage(draft) || draft.subjectOffset == 0) return false;
    constexpr uint8_t kUnused[] = {120, 123, 255};
    draft.payload()[draft.subjectOffset - 1] = kUnused[prngBelow(prng, std::size(kUnused))];
    return true;
}

bool spoilSubject(PacketDraft& draft, Prng& prng) {
    if (!hasMessage(draft) || draft.subjectOffset == 0) return false;
    uint8_t* subject = draft.payload() + draft.subjectOffset;
    if (prngBelow(prng, 2) == 0) {
        ++subject[2];  // one element more than there is
    } else {
        --subject[3];  // the first element ends before its NUL
    }
    return true;
}

bool addStrayBytes(PacketDraft& draft, Prng&) {
    if (!hasMessage(draft)) return false;
    for (int i = 0; i < 4; ++i) {
        draft.payload()[draft.payloadBytes++] = 0;
    }
    storeBe16At(draft.payload() + kDataLengthOffset,
                static_cast<uint16_t>(draft.payloadBytes - kOskaDataHeaderBytes));
    return true;
}

constexpr Damage kDamages[] = {
    {"checksum", nullptr, spoilChecksum},
    {"no-checksum", nullptr, dropChecksum},
    {"udp-length", nullptr, growUdpLength},
    {"magic", spoilMagic, nullptr},
    {"type", spoilType, nullptr},
    {"src", spoilSource, nullptr},
    {"dst", spoilDestination, nullptr},
    {"length", spoilLength, nullptr},
    {"short", cutHeader, nullptr},
    {"message-magic", spoilMessageMagic, nullptr},
    {"message-length", spoilMessageLength, nullptr},
    {"field-size", spoilFieldSize, nullptr},
    {"subject", spoilSubject, nullptr},
    {"stray-bytes", addStrayBytes, nullptr},
};

// A prime, so that any step visits every row.
constexpr uint32_t kDamageSteps = 17;
static_assert(std::size(kDamages) <= kDamageSteps);

}  // namespace

std::span<const Damage> damages() {
    return kDamages;
}

const Damage* damagePayload(DamageSet set, PacketDraft& draft, Prng& prng) {
    if (has(draft, PacketKind::kNonBus)) return nullptr;
    // Each call takes another step, so that rows after those that seldom suit aren't chosen more
    // often.
    const size_t first = prngBelow(prng, kDamageSteps);
    const size_t step = prngBetween(prng, 1, kDamageSteps - 1);
    for (size_t i = 0; i < kDamageSteps; ++i) {
        const size_t row = (first + i * step) % kDamageSteps;
        if (row >= std::size(kDamages) || (set.bits >> row & 1) == 0) continue;
        const Damage& damage = kDamages[row];
        if (damage.toPayload == nullptr || damage.toPayload(draft, prng)) return &damage;
    }
    return nullptr;
}
