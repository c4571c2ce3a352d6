#include "trace/counts/faults.h"

namespace {

constexpr FaultLine kFrame = FaultLine::kFrame;
constexpr FaultLine kPacket = FaultLine::kPacket;
constexpr FaultLine kMessage = FaultLine::kMessage;

// In the order of the enumeration.
constexpr FaultRow kFaults[] = {
    {Fault::kEthernetHeaderCut, "ethernet_header_cut", "frame too small for an Ethernet header",
     kFrame, "Packet too small to contain Ethernet header"},
    {Fault::kIpHeaderCut, "ip_header_cut", "frame too small for an IP header", kFrame,
     "Ethernet/IP packet too small to contain IP header"},
    {Fault::kUdpHeaderCut, "udp_header_cut", "IP packet too small for a UDP header", kPacket,
     "IP/UDP Packet too small to contain UDP header"},
    {Fault::kUdpLengthTooLarge, "udp_length_too_large",
     "UDP length greater than that of the IP packet", kPacket,
     "OSKA packet with UDP size greater than IP size"},
    {Fault::kUdpChecksumMissing, "udp_checksum_missing", "no UDP checksum", kPacket,
     "OSKA packet without UDP checksum"},
    {Fault::kUdpChecksumInvalid, "udp_checksum_invalid", "wrong UDP checksum", kPacket,
     "OSKA packet with invalid UDP checksum"},
    {Fault::kHeaderCut, "header_cut", "packet too small for the header of its type", kPacket,
     "OSKA %s packet too small for %s header"},
    {Fault::kTypeInvalid, "type_invalid", "unknown packet type", kPacket,
     "OSKA packet with invalid type (%d)"},
    {Fault::kSourceInvalid, "source_invalid", "source address that no sender can have", kPacket,
     "OSKA %s packet with invalid oska src (%08x)"},
    {Fault::kDestinationInvalid, "destination_invalid",
     "destination address that the packet type can't have", kPacket,
     "OSKA %s packet with invalid oska dst (%08x)"},
    {Fault::kDestinationMismatch, "destination_mismatch",
     "destination address other than that of the IP packet", kPacket,
     "OSKA %s packet with invalid oska dst (%08x/%08x)"},
    {Fault::kLengthInvalid, "length_invalid", "length that can't be", kPacket,
     "OSKA %s packet with invalid length (%d)"},
    {Fault::kLengthTooLarge, "length_too_large", "length greater than the UDP payload", kPacket,
     "OSKA %s packet larger than UDP payload"},
    {Fault::kMessageHeaderCut, "message_header_cut", "payload too small for a message", kPacket,
     "OSKA payload too small to contain message"},
    {Fault::kMessageMagicInvalid, "message_magic_invalid", "message without its magic number",
     kMessage, "bad magic"},
    {Fault::kMessageLengthInvalid, "message_length_invalid", "message length that can't be",
     kMessage, "invalid message length"},
    {Fault::kMessageLengthTooLarge, "message_length_too_large",
     "message length greater than the payload", kMessage, "message length greater than payload"},
    {Fault::kMessageFieldInvalid, "message_field_invalid",
     "message field of unknown form, or beyond the message's end", kMessage, "invalid field"},
    {Fault::kMessageSubjectInvalid, "message_subject_invalid", "subject of a wrong form", kMessage,
     "corrupt subject field"},
};

consteval bool isInOrder() {
    size_t place = 0;
    for (const FaultRow& row : kFaults) {
        if (static_cast<size_t>(row.fault) != place++) return false;
    }
    return place == kFaultKinds;
}
static_assert(isInOrder());

}  // namespace

const FaultRow& faultRow(Fault fault) {
    return kFaults[static_cast<size_t>(fault)];
}

FramePlace framePlace;

void faultCount(FaultCounts& counts, Fault fault, TimeSpec time, uint32_t sender) {
    FaultCount& count = counts[static_cast<size_t>(fault)];
    count.last = {time, framePlace};
    if (count.packets++ == 0) count.first = count.last;
    count.lastSender = sender;
}
