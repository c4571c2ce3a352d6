// Any datagrams into a pair of endpoints with a live connection, among messages, lost packets,
// closes and crashes: nothing is left, and no more memory is held than what came gives reason for.
//
// A datagram's checksum is right, its ids are those of the connection and its numbers count from
// the connection's own, where the input doesn't ask for others: else nothing would come in.

#include "tests/fuzz/fuzz.h"
#include "tests/support/reliable_net.h"

namespace {

constexpr uint32_t kMostSteps = 400;
constexpr uint64_t kMostPackets = 20'000;

struct Input {
    std::span<const uint8_t> rest;

    uint32_t take(uint32_t bytes) {
        uint32_t number = 0;
        for (; bytes > 0 && !rest.empty(); --bytes) {
            number = number << 8 | rest.front();
            rest = rest.subspan(1);
        }
        return number;
    }
};

struct Stand {
    ReliableNet net{1};
    PacketHeader last[2] = {};  // sent by either
    uint32_t toLose = 0;
    uint64_t givenBytes = 0;
};

void open(Stand& stand) {
    for (uint32_t host = 0; host < 2; ++host) {
        netAddHost(stand.net);
        require(netOpen(stand.net, host));
    }
    stand.net.mostPackets = kMostPackets;
    stand.net.hasForgers = true;
    stand.net.watch.sent = [&stand](NetHost& host, const PeerAddress&, const Packet& packet) {
        if ((packet.header.flags & kFlagRst) == 0) stand.last[host.index] = packet.header;
    };
    stand.net.watch.loses = [&stand](const NetHost&, const Packet&) {
        return stand.toLose > 0 && stand.toLose-- > 0;
    };
}

// A datagram for `to` that seems to come from the other one.
void forge(Stand& stand, uint32_t to, Input& input) {
    const PacketHeader& own = stand.last[to];
    const uint32_t form = input.take(1);
    PacketHeader header = {};
    header.flags = static_cast<uint8_t>(input.take(1) & 15);
    header.sourceId = (form & 1) != 0 ? input.take(4) : own.destId;
    header.destId = (form & 2) != 0 ? input.take(4) : own.sourceId;
    header.seq = own.ack + input.take(1);
    header.ack = own.seq + 1 - input.take(1);
    if ((form & 4) != 0) header.seq = UINT64_MAX - input.take(1);
    if ((form & 8) != 0) header.ack = input.take(1) < 128 ? 0 : UINT64_MAX;
    header.window = (form & 16) != 0 ? input.take(4) : kReceiveWindow;
    FragmentOption fragment = {input.take(2) << 4, header.seq, 0};
    if ((form & 32) != 0) {
        fragment.offset = input.take(1) * kFragmentPayloadBytes;
        fragment.firstSeq = header.seq - input.take(1);
    }
    uint8_t head[kMostHeadBytes];
    const uint32_t headBytes =
        packetWriteHead(head, header, (form & 64) != 0 ? &fragment : nullptr);
    std::vector<uint8_t> bytes(head, head + headBytes);
    if ((form & 128) != 0) bytes[29] = static_cast<uint8_t>(input.take(1));  // options' length
    const uint32_t payload = input.take(2) % (kMostDatagramBytes - kMostHeadBytes + 1);
    const size_t given = std::min<size_t>(payload, input.rest.size() % 40);
    const std::span<const uint8_t> copied = input.rest.first(given);
    bytes.insert(bytes.end(), copied.begin(), copied.end());
    bytes.resize(headBytes + payload, 8);
    stand.givenBytes += bytes.size();
    netInject(stand.net, stand.net.hosts[1 - to]->address, stand.net.hosts[to]->address, bytes);
}

void send(Stand& stand, uint32_t from, Input& input) {
    const uint32_t size = kNetNamedBytes + input.take(2);
    const HeldMessage message = netMessage(size, 0);
    pelmoMsg* const one = message.get();
    const bool isDelayed = size % 2 != 0;
    if (!stand.net.hosts[from]->isUp) return;
    (void)netSend(stand.net, from, stand.net.hosts[1 - from]->address, {&one, 1}, isDelayed);
    stand.givenBytes += size;
}

void step(Stand& stand, Input& input) {
    ReliableNet& net = stand.net;
    const uint32_t what = input.take(1);
    const uint32_t host = what & 1;
    switch (what >> 1 & 7) {
        case 0:
            return netRun(net, net.now + 1e-4 * input.take(1));
        case 1:
            return netRun(net, net.now + 0.05 * input.take(1));
        case 2:
            return netRun(net, net.now + 2.0 * input.take(1));
        case 3:
            return send(stand, host, input);
        case 4:
            stand.toLose = input.take(1) % 40;
            return;
        case 5:
            if (input.take(1) % 4 != 0 || !net.hosts[host]->isUp) return;
            netCrash(net, host);
            return require(netOpen(net, host));
        case 6:
            if (input.take(1) % 4 != 0 || !net.hosts[host]->isUp) return;
            if (net.hosts[host]->core.flushing) return;
            return netClose(net, host, (what & 16) != 0);
        default:
            return forge(stand, host, input);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input = {{data, size}};
    Stand stand;
    open(stand);
    for (uint32_t steps = 0; !input.rest.empty() && steps < kMostSteps; ++steps) {
        step(stand, input);
        for (const auto& host : stand.net.hosts) {
            require(!host->isUp || host->core.share.bytes <= 2 * stand.givenBytes + 0x10000);
        }
    }
    netRun(stand.net, stand.net.now + 4'000);
    if (!stand.net.fault.empty()) std::fprintf(stderr, "%s\n", stand.net.fault.c_str());
    require(stand.net.fault.empty());
    require(netIsQuiet(stand.net));
    for (const auto& host : stand.net.hosts) {
        require(!host->isUp || host->core.share.bytes == 0);
    }
    return 0;
}
