// From a captured frame to the IPv4 packet in it that may be the bus's: link-layer headers, VLAN
// tags, MPLS labels and the tunnels of mirror ports are peeled off one after the other.
//
//     Ethernet | tag | tag | IPv4 | UDP | VXLAN | Ethernet | tag | IPv4 | UDP | the bus's packet
//     ------------------------------- peeled --------------------------- ^ the result
//
// Read are the link types Ethernet, raw IP, Linux "cooked" v1 and v2, and BSD null and loopback;
// 802.1Q and 802.1ad tags (IEEE 802.1Q), MPLS (RFC 3032), VXLAN (RFC 7348), GRE (RFC 2784, 2890)
// with IPv4 or Ethernet in it (NVGRE, RFC 7637), and ERSPAN types I to III.
//
// A header is believed where it agrees with the bytes in hand and with the headers around it: a
// tunnel whose own headers contradict each other isn't entered. The depth is bounded. A packet of
// the bus ends the peeling, whatever ports it uses.
//
// A pure function: no state, no copy, any bytes will do. The result borrows the frame's bytes.

#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

// Link types as pcap and pcapng files number them.
enum LinkType : uint16_t {
    kLinkNull = 0,  // BSD: the address family in the sender's byte order
    kLinkEthernet = 1,
    kLinkRawBsd = 12,  // raw IP, as some systems number it
    kLinkRawOpenBsd = 14,
    kLinkRaw = 101,
    kLinkLoop = 108,  // OpenBSD: the address family in network order
    kLinkCooked = 113,
    kLinkIpv4 = 228,
    kLinkIpv6 = 229,
    kLinkCooked2 = 276,
};

// Why a frame isn't read as a packet of the bus, or isn't read whole.
enum class NotRead : uint8_t {
    kNothing,    // it is the bus's, and whole
    kLinkType,   // a link type that isn't read
    kNotIp,      // ARP, LLDP and the like
    kIpv6,       // the bus has IPv4 only
    kFragment,   // of an IPv4 packet; the pieces aren't put together
    kNotUdp,     // another protocol above IPv4
    kNotBus,     // a UDP datagram without the bus's magic number
    kCut,        // the capture kept too few bytes of it
    kMalformed,  // headers that contradict themselves or each other
    kFiltered,   // the user's filter leaves it out; peeling never says so
};
inline constexpr size_t kNotReadKinds = 10;

struct NotReadRow {
    const char* key;    // for programs: fixed for good
    const char* words;  // for people, after a number of frames
};
[[nodiscard]] const NotReadRow& notReadRow(NotRead reason);

// The name of a link type as libpcap prints it, or null for one without.
[[nodiscard]] const char* linkTypeName(uint16_t linkType);

struct PeeledFrame {
    // The innermost IPv4 packet that was found, from its header on: 20 bytes or more, without what
    // the headers around it say isn't part of it. Empty where there is none.
    std::span<const uint8_t> ip;

    // Of a packet of the bus: kNothing, or kCut where the capture kept a part only. Otherwise what
    // the packet or frame is.
    NotRead reason;
    bool isBus;  // it has the bus's magic number

    // The IPv4 packet is in Ethernet without any tag, or raw: in the form in which every capture
    // tool looks for it.
    bool isPlain;
};

// `wireBytes`: the frame's length on the wire, of which `frame` may be the first part.
[[nodiscard]] PeeledFrame peelFrame(std::span<const uint8_t> frame,
                                    size_t wireBytes,
                                    uint16_t linkType);

// Is it a whole packet of the bus in Ethernet without tags, as nearly all frames are? Then the
// packet begins after the Ethernet header, and peelFrame gives kNothing. Far quicker than that.
[[nodiscard]] bool frameIsPlainBus(std::span<const uint8_t> frame,
                                   size_t wireBytes,
                                   uint16_t linkType);
