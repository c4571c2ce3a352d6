#include "watch/capture/peel.h"

#include <algorithm>
#include <iterator>

#include "lib/base/bytes.h"
#include "trace/capture/frame.h"
#include "trace/packets/oska.h"

namespace {

using Bytes = std::span<const uint8_t>;

// Headers of any kind that one frame may have. Four tags, labels and two tunnels stay well below.
constexpr int kMostHeaders = 24;

constexpr size_t kTagBytes = 4;
constexpr size_t kLabelBytes = 4;
constexpr size_t kIpBytes = 20;
constexpr size_t kIpFragmentOffset = 6;
constexpr size_t kIpv6Bytes = 40;
constexpr size_t kVxlanBytes = 8;
constexpr size_t kGreBytes = 4;
constexpr size_t kErspan2Bytes = 8;
constexpr size_t kErspan3Bytes = 12;
constexpr size_t kErspan3PlatformBytes = 8;
constexpr size_t kCookedBytes = 16;
constexpr size_t kCooked2Bytes = 20;
constexpr size_t kFamilyBytes = 4;

constexpr uint16_t kVxlanPort = 4789;
constexpr uint16_t kVxlanLinuxPort = 8472;  // before a number was assigned

constexpr uint8_t kProtocolGre = 47;

enum EtherType : uint16_t {
    kTypeIpv4 = kEthertypeIp,
    kTypeTag = 0x8100,
    kTypeServiceTag = 0x88a8,
    kTypeOldServiceTag = 0x9100,
    kTypeIpv6 = 0x86dd,
    kTypeMpls = 0x8847,
    kTypeMplsMulticast = 0x8848,
    kTypeEthernet = 0x6558,
    kTypeErspan2 = 0x88be,
    kTypeErspan3 = 0x22eb,
};

// What the next header is. Those above kEnd are the ends of a peeling.
enum class Next : uint8_t {
    kEthernet,
    kByType,  // `type` says
    kIpv4,
    kIpv6,
    kEnd,
};

// The frame's rest while headers come off it. `cutBytes` is how much the capture left out of it.
struct Peeling {
    Bytes rest;
    size_t cutBytes;
    Next next;
    uint16_t type;
    PeeledFrame found;
};

void endWith(Peeling& peeling, NotRead reason) {
    peeling.found.reason = reason;
    peeling.next = Next::kEnd;
}

// False where the capture or the headers around leave fewer bytes: the peeling has ended then.
bool has(Peeling& peeling, size_t sizeBytes) {
    if (peeling.rest.size() >= sizeBytes) return true;
    const bool isCut = sizeBytes - peeling.rest.size() <= peeling.cutBytes;
    endWith(peeling, isCut ? NotRead::kCut : NotRead::kMalformed);
    return false;
}

void skip(Peeling& peeling, size_t sizeBytes, Next next, uint16_t type = 0) {
    peeling.rest = peeling.rest.subspan(sizeBytes);
    peeling.next = next;
    peeling.type = type;
}

// Leaves the first `sizeBytes` of the rest, of which some may have been cut: what comes after them
// is padding. False where the headers around don't leave so many.
bool keepFirst(Peeling& peeling, size_t sizeBytes) {
    const size_t had = peeling.rest.size();
    if (sizeBytes > had + peeling.cutBytes) return false;
    peeling.rest = peeling.rest.first(std::min(sizeBytes, had));
    peeling.cutBytes = sizeBytes - peeling.rest.size();
    return true;
}

bool isTag(uint16_t type) {
    return type == kTypeTag || type == kTypeServiceTag || type == kTypeOldServiceTag;
}

void peelEthernet(Peeling& peeling) {
    if (!has(peeling, kEthernetHeaderBytes)) return;
    skip(peeling, kEthernetHeaderBytes, Next::kByType,
         loadBe16At(peeling.rest.data() + kEthertypeOffset));
}

void peelTag(Peeling& peeling) {
    if (!has(peeling, kTagBytes)) return;
    skip(peeling, kTagBytes, Next::kByType, loadBe16At(peeling.rest.data() + 2));
}

// Below the last label nothing says what comes: an IP version, a control word (RFC 4385) before
// Ethernet, or Ethernet itself.
void peelLabel(Peeling& peeling) {
    if (!has(peeling, kLabelBytes)) return;
    const bool isLast = (peeling.rest[2] & 1) != 0;
    skip(peeling, kLabelBytes, Next::kByType, peeling.type);
    if (!isLast) return;
    if (!has(peeling, 1)) return;
    const uint8_t nibble = peeling.rest[0] >> 4;
    if (nibble == 4) {
        peeling.next = Next::kIpv4;
    } else if (nibble == 6) {
        peeling.next = Next::kIpv6;
    } else if (nibble == 0 && has(peeling, kLabelBytes)) {
        skip(peeling, kLabelBytes, Next::kEthernet);
    } else if (nibble != 0) {
        peeling.next = Next::kEthernet;
    }
}

size_t erspan3Bytes(Peeling& peeling) {
    if (!has(peeling, kErspan3Bytes)) return 0;
    const bool hasPlatform = (peeling.rest[kErspan3Bytes - 1] & 1) != 0;
    return kErspan3Bytes + (hasPlatform ? kErspan3PlatformBytes : 0);
}

// A mirrored frame after a GRE header. Type I has no header of its own, and no sequence number in
// GRE's.
void peelErspan(Peeling& peeling, uint16_t type, bool hasSequence) {
    size_t sizeBytes = 0;
    if (type == kTypeErspan3) {
        sizeBytes = erspan3Bytes(peeling);
        if (sizeBytes == 0) return;
    } else if (hasSequence) {
        sizeBytes = kErspan2Bytes;
    }
    if (!has(peeling, sizeBytes)) return;
    const uint8_t version = sizeBytes == 0 ? 0 : peeling.rest[0] >> 4;
    const uint8_t wanted = type == kTypeErspan3 ? 2 : sizeBytes == 0 ? 0 : 1;
    if (version != wanted) return endWith(peeling, NotRead::kMalformed);
    skip(peeling, sizeBytes, Next::kEthernet);
}

// Routing (RFC 1701) and versions but 0 aren't mirrors' GRE.
void peelGre(Peeling& peeling) {
    if (!has(peeling, kGreBytes)) return;
    constexpr uint16_t kChecksum = 0x8000, kRouting = 0x4000, kKey = 0x2000, kSequence = 0x1000;
    constexpr uint16_t kVersion = 0x0007;
    const uint16_t flags = loadBe16At(peeling.rest.data());
    const uint16_t type = loadBe16At(peeling.rest.data() + 2);
    if ((flags & (kRouting | kVersion)) != 0) return endWith(peeling, NotRead::kNotUdp);
    size_t sizeBytes = kGreBytes;
    for (const uint16_t option : {kChecksum, kKey, kSequence}) {
        if ((flags & option) != 0) sizeBytes += 4;
    }
    if (!has(peeling, sizeBytes)) return;
    skip(peeling, sizeBytes, Next::kByType, type);
    if (type == kTypeErspan2 || type == kTypeErspan3) {
        peelErspan(peeling, type, (flags & kSequence) != 0);
    } else if (type == kTypeEthernet) {
        peeling.next = Next::kEthernet;
    } else if (isTag(type)) {
        endWith(peeling, NotRead::kMalformed);  // a tag without an Ethernet header
    }
}

// `udp` begins at the UDP header. True where its payload is a VXLAN header and what may be a frame.
bool isVxlan(Bytes udp) {
    if (udp.size() < kUdpHeaderBytes + kVxlanBytes + kEthernetHeaderBytes) return false;
    const uint16_t port = loadBe16At(udp.data() + 2);
    if (port != kVxlanPort && port != kVxlanLinuxPort) return false;
    const uint8_t* const vxlan = udp.data() + kUdpHeaderBytes;
    return vxlan[0] == 0x08 && vxlan[7] == 0;
}

// Enters a tunnel where `protocol` is one, and answers whether it did. `rest` is the IP payload.
bool peelTunnel(Peeling& peeling, uint8_t protocol) {
    if (protocol == kProtocolGre) {
        peelGre(peeling);
        return true;
    }
    if (protocol != kProtocolUdp || !isVxlan(peeling.rest)) return false;
    const size_t udpBytes = loadBe16At(peeling.rest.data() + 4);
    if (udpBytes < kUdpHeaderBytes + kVxlanBytes + kEthernetHeaderBytes ||
        !keepFirst(peeling, udpBytes)) {
        return false;
    }
    skip(peeling, kUdpHeaderBytes + kVxlanBytes, Next::kEthernet);
    return true;
}

// What an IPv4 packet is that no tunnel was found in.
NotRead reasonOf(Bytes ip, size_t cutBytes) {
    if (ip[kIpProtocolOffset] != kProtocolUdp) return NotRead::kNotUdp;
    if (ip.size() < kLeastOskaIpBytes && cutBytes > 0) return NotRead::kCut;
    return NotRead::kNotBus;
}

bool isFragment(Bytes ip) {
    constexpr uint16_t kMoreAndOffset = 0x3fff;
    return (loadBe16At(ip.data() + kIpFragmentOffset) & kMoreAndOffset) != 0;
}

// The total length is 0 where the sender's interface splits a larger packet.
bool keepTotalLength(Peeling& peeling, size_t headerBytes) {
    const size_t totalBytes = loadBe16At(peeling.rest.data() + kIpTotalLengthOffset);
    return totalBytes == 0 || (totalBytes >= headerBytes && keepFirst(peeling, totalBytes));
}

// `ip` of the result keeps what came after the packet, as the analysis takes it; a tunnel in it is
// entered by what its headers say.
void peelIpv4(Peeling& peeling) {
    if (!has(peeling, kIpBytes)) return;
    const Bytes ip = peeling.rest;
    const size_t headerBytes = size_t{4} * (ip[0] & 0x0f);
    peeling.found.ip = ip;
    if (oskaIsAt(ip.data(), ip.size())) {
        peeling.found.isBus = true;
        const size_t udpBytes = loadBe16At(ip.data() + kUdpLengthOffset);
        const bool isCut = peeling.cutBytes > 0 && ip.size() < kIpBytes + udpBytes;
        return endWith(peeling, isFragment(ip) ? NotRead::kFragment
                                : isCut        ? NotRead::kCut
                                               : NotRead::kNothing);
    }
    if (ip[0] >> 4 != 4 || headerBytes < kIpBytes || !keepTotalLength(peeling, headerBytes)) {
        return endWith(peeling, NotRead::kMalformed);
    }
    if (isFragment(ip)) return endWith(peeling, NotRead::kFragment);
    if (peeling.rest.size() < headerBytes) return endWith(peeling, NotRead::kCut);

    const uint8_t protocol = ip[kIpProtocolOffset];
    const NotRead reason = reasonOf(peeling.rest, peeling.cutBytes);
    skip(peeling, headerBytes, Next::kEnd);
    if (!peelTunnel(peeling, protocol)) return endWith(peeling, reason);
    // A tunnel that can't be entered makes no packet of the outer one.
    if (peeling.next != Next::kEnd) peeling.found.isPlain = false;
}

// IPv6 may carry a tunnel; a packet of the bus it carries never.
void peelIpv6(Peeling& peeling) {
    if (!has(peeling, kIpv6Bytes)) return;
    const size_t payloadBytes = loadBe16At(peeling.rest.data() + 4);
    const uint8_t protocol = peeling.rest[6];
    if (peeling.rest[0] >> 4 != 6) return endWith(peeling, NotRead::kMalformed);
    skip(peeling, kIpv6Bytes, Next::kEnd);
    if (payloadBytes != 0 && !keepFirst(peeling, payloadBytes)) {
        return endWith(peeling, NotRead::kMalformed);
    }
    if (!peelTunnel(peeling, protocol)) endWith(peeling, NotRead::kIpv6);
    peeling.found.isPlain = false;
}

void peelByType(Peeling& peeling) {
    const uint16_t type = peeling.type;
    if (type == kTypeIpv4) {
        peeling.next = Next::kIpv4;
    } else if (type == kTypeIpv6) {
        peeling.next = Next::kIpv6;
    } else if (isTag(type)) {
        peeling.found.isPlain = false;
        peelTag(peeling);
    } else if (type == kTypeMpls || type == kTypeMplsMulticast) {
        peeling.found.isPlain = false;
        peelLabel(peeling);
    } else {
        endWith(peeling, NotRead::kNotIp);
    }
}

void beginRaw(Peeling& peeling) {
    if (!has(peeling, 1)) return;
    peeling.next = peeling.rest[0] >> 4 == 6 ? Next::kIpv6 : Next::kIpv4;
}

// The address families are those of the BSDs, which differ for IPv6. In a null header they are in
// the byte order of who captured: the number is small, so the order shows.
void beginFamily(Peeling& peeling) {
    if (!has(peeling, kFamilyBytes)) return;
    const uint32_t stored = loadBe32At(peeling.rest.data());
    const uint32_t family = stored < 0x10000 ? stored : __builtin_bswap32(stored);
    constexpr uint32_t kIpv4Family = 2;
    constexpr uint32_t kIpv6Families[] = {10, 24, 28, 30};
    if (family == kIpv4Family) return skip(peeling, kFamilyBytes, Next::kIpv4);
    if (std::ranges::find(kIpv6Families, family) != std::end(kIpv6Families)) {
        return skip(peeling, kFamilyBytes, Next::kIpv6);
    }
    endWith(peeling, NotRead::kNotIp);
}

void beginCooked(Peeling& peeling, size_t headerBytes, size_t typeOffset) {
    if (!has(peeling, headerBytes)) return;
    skip(peeling, headerBytes, Next::kByType, loadBe16At(peeling.rest.data() + typeOffset));
}

void begin(Peeling& peeling, uint16_t linkType) {
    switch (linkType) {
        case kLinkEthernet:
            peeling.next = Next::kEthernet;
            return;
        case kLinkRaw:
        case kLinkRawBsd:
        case kLinkRawOpenBsd:
        case kLinkIpv4:
        case kLinkIpv6:
            return beginRaw(peeling);
        case kLinkNull:
        case kLinkLoop:
            return beginFamily(peeling);
        case kLinkCooked:
            return beginCooked(peeling, kCookedBytes, kCookedBytes - 2);
        case kLinkCooked2:
            return beginCooked(peeling, kCooked2Bytes, 0);
        default:
            return endWith(peeling, NotRead::kLinkType);
    }
}

void peelOne(Peeling& peeling) {
    switch (peeling.next) {
        case Next::kEthernet:
            return peelEthernet(peeling);
        case Next::kByType:
            return peelByType(peeling);
        case Next::kIpv4:
            return peelIpv4(peeling);
        case Next::kIpv6:
            return peelIpv6(peeling);
        case Next::kEnd:
            return;
    }
}

// In the order of NotRead.
constexpr NotReadRow kRows[] = {
    {"read", "read"},
    {"link_type", "of a link type that isn't read"},
    {"not_ip", "not IP"},
    {"ipv6", "IPv6"},
    {"fragment", "fragments of IPv4 packets"},
    {"not_udp", "not UDP"},
    {"not_bus", "UDP but not of the bus"},
    {"cut", "cut short by the capture"},
    {"malformed", "with headers that contradict themselves"},
    {"filtered", "left out by the filter"},
};
static_assert(std::size(kRows) == kNotReadKinds);

}  // namespace

const NotReadRow& notReadRow(NotRead reason) {
    return kRows[static_cast<size_t>(reason)];
}

const char* linkTypeName(uint16_t linkType) {
    switch (linkType) {
        case kLinkNull:
            return "NULL";
        case kLinkEthernet:
            return "EN10MB";
        case kLinkRawBsd:
        case kLinkRawOpenBsd:
        case kLinkRaw:
            return "RAW";
        case kLinkLoop:
            return "LOOP";
        case kLinkCooked:
            return "LINUX_SLL";
        case kLinkIpv4:
            return "IPV4";
        case kLinkIpv6:
            return "IPV6";
        case kLinkCooked2:
            return "LINUX_SLL2";
        default:
            return nullptr;
    }
}

bool frameIsPlainBus(Bytes frame, size_t wireBytes, uint16_t linkType) {
    if (linkType != kLinkEthernet || frame.size() < wireBytes ||
        frame.size() < kEthernetHeaderBytes) {
        return false;
    }
    const Bytes ip = frame.subspan(kEthernetHeaderBytes);
    return loadBe16At(frame.data() + kEthertypeOffset) == kEthertypeIp &&
           oskaIsAt(ip.data(), ip.size()) && !isFragment(ip);
}

PeeledFrame peelFrame(std::span<const uint8_t> frame, size_t wireBytes, uint16_t linkType) {
    Peeling peeling = {
        .rest = frame,
        .cutBytes = wireBytes > frame.size() ? wireBytes - frame.size() : 0,
        .next = Next::kEnd,
        .type = 0,
        .found = {.ip = {}, .reason = NotRead::kMalformed, .isBus = false, .isPlain = true}};
    begin(peeling, linkType);
    for (int header = 0; header < kMostHeaders && peeling.next != Next::kEnd; ++header)
        peelOne(peeling);
    if (peeling.next != Next::kEnd) endWith(peeling, NotRead::kMalformed);
    return peeling.found;
}
