#include "tests/support/packet_builder.h"

#include <bit>
#include <sstream>

namespace {

Bytes bigEndian(uint64_t number, size_t sizeBytes) {
    Bytes bytes(sizeBytes);
    for (size_t i = sizeBytes; i-- > 0; number >>= 8) {
        bytes[i] = static_cast<uint8_t>(number);
    }
    return bytes;
}

size_t numberAt(const Bytes& bytes, size_t offset) {
    return size_t{bytes.at(offset)} << 8 | bytes.at(offset + 1);
}

Bytes ipHeader(const PacketHead& head, size_t totalBytes) {
    return joined({{0x45, 0},
                   be16(totalBytes),
                   {0, 0, 0, 0, 64, 17, 0, 0},
                   be32(head.srcIp),
                   be32(head.dstIp)});
}

}  // namespace

Bytes be16(uint64_t number) {
    return bigEndian(number, 2);
}

Bytes be32(uint64_t number) {
    return bigEndian(number, 4);
}

Bytes be64(uint64_t number) {
    return bigEndian(number, 8);
}

Bytes bytesOf(std::string_view text) {
    return Bytes(text.begin(), text.end());
}

Bytes joined(const std::vector<Bytes>& parts) {
    Bytes all;
    for (const Bytes& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    all.shrink_to_fit();
    return all;
}

Bytes patched(Bytes bytes, size_t offset, const Bytes& patch) {
    for (size_t i = 0; i < patch.size(); ++i) {
        bytes.at(offset + i) = patch[i];
    }
    return bytes;
}

Bytes cut(const Bytes& bytes, size_t sizeBytes) {
    return Bytes(bytes.data(), bytes.data() + sizeBytes);
}

Bytes udpPacket(const PacketHead& head, const Bytes& payload) {
    const size_t udpBytes = 8 + payload.size();
    return sealed(joined({ipHeader(head, kIpBytes + udpBytes), be16(head.srcPort),
                          be16(head.dstPort), be16(udpBytes), be16(0), payload}));
}

Bytes oskaPacket(const PacketHead& head, int16_t type, const Bytes& rest) {
    return udpPacket(head,
                     joined({be32(0x88fa6923), be32(head.src), be32(head.epoch), be32(head.dst),
                             be16(static_cast<uint16_t>(type)), be16(0), be32(head.seq), rest}));
}

Bytes dataPacket(const PacketHead& head, const Bytes& payload, uint16_t fragment) {
    return oskaPacket(head, 1, joined({be32(0), be16(payload.size()), be16(fragment), payload}));
}

Bytes nullPacket(const PacketHead& head, std::optional<double> reliability) {
    return oskaPacket(head, 4, reliability ? be64(std::bit_cast<uint64_t>(*reliability)) : Bytes());
}

Bytes rreqPacket(PacketHead head, uint32_t itemCount) {
    head.seq = itemCount * 4;
    return oskaPacket(head, 3, Bytes(head.seq, 0x5a));
}

Bytes ptpDataPacket(const PacketHead& head, const Bytes& payload) {
    return oskaPacket(head, 6, joined({be32(0), be16(payload.size()), be16(0), payload}));
}

uint16_t plainChecksum(const Bytes& bytes) {
    uint64_t sum = 0;
    for (size_t i = 0; i < bytes.size(); i += 2) {
        sum += static_cast<uint64_t>(bytes[i] << 8);
        if (i + 1 < bytes.size()) sum += bytes[i + 1];
    }
    while (sum >> 16 != 0) {
        sum = (sum & 0xffff) + (sum >> 16);
    }
    const auto checksum = static_cast<uint16_t>(~sum);
    return checksum == 0 ? 0xffff : checksum;
}

Bytes sealed(Bytes packet) {
    const size_t udpBytes = numberAt(packet, kUdpLengthAt);
    packet = patched(packet, kUdpChecksumAt, be16(0));
    const Bytes addresses(packet.data() + 12, packet.data() + 20);
    const Bytes datagram(packet.data() + kUdpAt, packet.data() + kUdpAt + udpBytes);
    const Bytes summed = joined({addresses, {0, 17}, be16(udpBytes), datagram});
    return patched(packet, kUdpChecksumAt, be16(plainChecksum(summed)));
}

Bytes ethernetFrame(const Bytes& ip) {
    return joined({{1, 0, 0x5e, 1, 1, 1}, {2, 0, 0, 0, 0, 1}, be16(0x0800), ip});
}

Bytes packedElements(const std::vector<std::string>& elements) {
    Bytes packed = {0, 0, static_cast<uint8_t>(elements.size())};
    for (const std::string& element : elements) {
        packed.push_back(static_cast<uint8_t>(element.size() + 2));
        packed.insert(packed.end(), element.begin(), element.end());
        packed.push_back(0);
    }
    packed[1] = static_cast<uint8_t>(packed.size());
    return packed;
}

Bytes packedSubject(const std::string& text) {
    std::vector<std::string> elements;
    std::istringstream stream(text);
    for (std::string element; std::getline(stream, element, '.');) {
        elements.push_back(element);
    }
    return packedElements(elements);
}

Bytes named(std::string_view name) {
    return joined({bytesOf(name), {0}});
}

Bytes field(const Bytes& nameArea, uint8_t type, const Bytes& value) {
    Bytes prefix = {static_cast<uint8_t>(value.size())};
    if (value.size() >= 120) prefix = joined({{121}, be16(value.size() + 2)});
    if (value.size() >= 30000) prefix = joined({{122}, be32(value.size() + 4)});
    return joined({{static_cast<uint8_t>(nameArea.size())}, nameArea, {type}, prefix, value});
}

Bytes subjectField(const Bytes& packed) {
    return joined({{4, 's', 'u', 'b', 0, 2, 121}, packed});
}

Bytes message(const std::vector<Bytes>& fields) {
    const Bytes body = joined(fields);
    return joined({be32(8 + body.size()), be32(0x9955eeaa), body});
}

Bytes busMessage(const std::string& subject, size_t dataBytes) {
    const Bytes nested = message({field(named("d"), 7, Bytes(dataBytes, 0xda))});
    return message({subjectField(packedSubject(subject)), field(named("mtype"), 8, named("D")),
                    joined({{5, 'd', 'a', 't', 'a', 0, 1, 122}, nested})});
}
