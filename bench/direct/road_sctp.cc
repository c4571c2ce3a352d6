// usrsctp, in UDP, one stream in order.
//
// What is under way is bounded by the most that the congestion window may grow to, and neither by
// the receiver's buffer, which holds what comes behind a gap too, nor by bursts. SCTP sends while
// there is less than the window under way, so that the bound is one packet below kRoadFlightBytes.
// A message may be handed over in pieces, as they come: what is counted is bytes. Every packet is
// acknowledged at once, and the retransmission timer may go down to 200 ms, from the 1 s of the
// standard.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <usrsctp.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "bench/direct/direct_road.h"

namespace {

constexpr uint16_t kSctpPort = 7;
constexpr uint32_t kIpAndUdpBytes = 28;
constexpr uint32_t kLeastTimerMs = 200;
constexpr int kReceiveBytes = 1 << 20;

void check(int result, const char* what) {
    if (result < 0) roadFail(what, std::strerror(errno));
}

sockaddr_in loopback(uint16_t port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

template <typename Value>
void setOption(struct socket* socket, int level, int option, const Value& value, const char* what) {
    check(usrsctp_setsockopt(socket, level, option, &value, sizeof value), what);
}

void setOptions(struct socket* socket) {
    const int on = 1;
    setOption(socket, IPPROTO_SCTP, SCTP_NODELAY, on, "no delay");
    const sctp_sack_info sack = {.sack_assoc_id = 0, .sack_delay = 0, .sack_freq = 1};
    setOption(socket, IPPROTO_SCTP, SCTP_DELAYED_SACK, sack, "acknowledgements");
    const sctp_assoc_value flight = {.assoc_id = 0,
                                     .assoc_value = kRoadFlightBytes - kRoadDatagramBytes};
    setOption(socket, IPPROTO_SCTP, SCTP_MAX_CWND, flight, "window");
    const sctp_assoc_value anyBurst = {.assoc_id = 0, .assoc_value = 0};
    setOption(socket, IPPROTO_SCTP, SCTP_MAX_BURST, anyBurst, "bursts");
    sctp_paddrparams path = {};
    path.spp_address.ss_family = AF_INET;
    path.spp_pathmtu = kRoadDatagramBytes + kIpAndUdpBytes;
    path.spp_flags = SPP_PMTUD_DISABLE;
    setOption(socket, IPPROTO_SCTP, SCTP_PEER_ADDR_PARAMS, path, "path");
    sctp_rtoinfo timer = {};
    timer.srto_min = kLeastTimerMs;
    setOption(socket, IPPROTO_SCTP, SCTP_RTOINFO, timer, "timer");
    const uint32_t anyPiece = 1;
    setOption(socket, IPPROTO_SCTP, SCTP_PARTIAL_DELIVERY_POINT, anyPiece, "pieces");
    setOption(socket, SOL_SOCKET, SO_SNDBUF, static_cast<int>(kRoadBacklogBytes), "send buffer");
    setOption(socket, SOL_SOCKET, SO_RCVBUF, kReceiveBytes, "receive buffer");
}

struct socket* openSocket(uint16_t udpPort) {
    usrsctp_init(udpPort, nullptr, nullptr);
    struct socket* const made =
        usrsctp_socket(AF_INET, SOCK_STREAM, IPPROTO_SCTP, nullptr, nullptr, 0, nullptr);
    if (made == nullptr) roadFail("socket", std::strerror(errno));
    setOptions(made);
    return made;
}

void bindTo(struct socket* socket, uint16_t port) {
    sockaddr_in own = loopback(port);
    check(usrsctp_bind(socket, reinterpret_cast<sockaddr*>(&own), sizeof own), "bind");
}

void receive(uint16_t port) {
    struct socket* const listener = openSocket(port);
    bindTo(listener, kSctpPort);
    check(usrsctp_listen(listener, 1), "listen");
    roadIsReady();
    struct socket* const accepted = usrsctp_accept(listener, nullptr, nullptr);
    if (accepted == nullptr) roadFail("accept", std::strerror(errno));
    std::vector<uint8_t> room(kReceiveBytes);
    for (;;) {
        socklen_t none = 0;
        unsigned int infoType = 0;
        int flags = 0;
        const ssize_t got = usrsctp_recvv(accepted, room.data(), room.size(), nullptr, nullptr,
                                          nullptr, &none, &infoType, &flags);
        if (got <= 0) roadFail("receive", std::strerror(errno));
        if ((flags & MSG_NOTIFICATION) == 0) roadTake(static_cast<uint64_t>(got), 1);
    }
}

void send(uint16_t port, uint32_t messageBytes) {
    struct socket* const socket = openSocket(roadFreePort());
    bindTo(socket, 0);
    sctp_udpencaps udp = {};
    udp.sue_address.ss_family = AF_INET;
    udp.sue_port = htons(port);
    setOption(socket, IPPROTO_SCTP, SCTP_REMOTE_UDP_ENCAPS_PORT, udp, "UDP");
    sockaddr_in peer = loopback(kSctpPort);
    check(usrsctp_connect(socket, reinterpret_cast<sockaddr*>(&peer), sizeof peer), "connect");
    const std::vector<uint8_t> bytes(messageBytes, 'x');
    while (roadMaySend()) {
        if (usrsctp_sendv(socket, bytes.data(), bytes.size(), nullptr, 0, nullptr, 0,
                          SCTP_SENDV_NOINFO, 0) < 0)
            roadFail("send", std::strerror(errno));
    }
}

}  // namespace

const DirectRoad kSctpDirect = {"sctp", receive, send, nullptr};
