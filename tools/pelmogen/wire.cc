#include "tools/pelmogen/wire.h"

#include <linux/if_packet.h>
#include <net/if.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "lib/base/bytes.h"
#include "lib/msg/oska.h"
#include "programs/stop.h"
#include "tools/pelmogen/packet.h"
#include "tools/pelmogen/wire_guard.h"

namespace {

constexpr size_t kBatchPackets = 64;
constexpr size_t kRoomBytes = 1 << 20;
// Shorter sleeps are left out, so that packets are sent in batches at high rates.
constexpr int64_t kTickNs = 500'000;
constexpr int64_t kSecondNs = 1'000'000'000;

// From the start of the IP header.
constexpr size_t kIpSource = 12;
constexpr size_t kIpDestination = 16;
constexpr size_t kOskaDestination = kPayloadOffset - kIpOffset + kOskaDstOffset;
constexpr uint8_t kLoopbackNet = 127;

int64_t monotonicNs() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * kSecondNs + now.tv_nsec;
}

bool flush(Wire& wire) {
    size_t done = 0;
    while (done < wire.batch.size()) {
        const int sent = ::sendmmsg(wire.descriptor, wire.batch.data() + done,
                                    static_cast<unsigned>(wire.batch.size() - done), 0);
        if (sent < 0 && errno == EINTR) continue;
        if (sent < 0) return false;
        done += static_cast<size_t>(sent);
    }
    wire.batch.clear();
    wire.pieces.clear();
    wire.addresses.clear();
    wire.used = 0;
    return true;
}

// Changes the first byte of the address at `at` in the packet to 127 and updates the checksum (RFC
// 1624). A sum of 0 means that there is none and stays.
void moveToLoopback(uint8_t* ip, size_t at) {
    uint8_t* const checksum = ip + kUdpOffset - kIpOffset + 6;
    const uint16_t before = loadBe16At(ip + at);
    ip[at] = kLoopbackNet;
    const uint16_t after = loadBe16At(ip + at);
    const uint16_t old = loadBe16At(checksum);
    if (old == 0) return;
    uint32_t sum = uint32_t{static_cast<uint16_t>(~old)} + static_cast<uint16_t>(~before) + after;
    sum = (sum & 0xffff) + (sum >> 16);
    sum = (sum & 0xffff) + (sum >> 16);
    const auto renewed = static_cast<uint16_t>(~sum);
    storeBe16At(checksum, renewed == 0 ? uint16_t{0xffff} : renewed);
}

// Point-to-point packets repeat their destination in the OSKA header; groups stay what they are
// there.
bool repeatsDestination(std::span<const uint8_t> ip) {
    constexpr uint8_t kHostsNet = 10;
    if (ip.size() < kOskaDestination + 4 || ip[kIpDestination] != kHostsNet) return false;
    return std::memcmp(ip.data() + kIpDestination, ip.data() + kOskaDestination, 4) == 0;
}

sockaddr_in redirectToLoopback(std::span<uint8_t> ip) {
    if (repeatsDestination(ip)) moveToLoopback(ip.data(), kOskaDestination);
    moveToLoopback(ip.data(), kIpSource);
    moveToLoopback(ip.data(), kIpDestination);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    std::memcpy(&address.sin_addr, ip.data() + kIpDestination, sizeof address.sin_addr);
    return address;
}

void add(Wire& wire, std::span<const uint8_t> packet) {
    uint8_t* const at = wire.room.data() + wire.used;
    std::memcpy(at, packet.data(), packet.size());
    wire.used += packet.size();
    wire.pieces.push_back({at, packet.size()});

    mmsghdr header{};
    header.msg_hdr.msg_iov = &wire.pieces.back();
    header.msg_hdr.msg_iovlen = 1;
    if (wire.loopback) {
        wire.addresses.push_back(redirectToLoopback({at, packet.size()}));
        header.msg_hdr.msg_name = &wire.addresses.back();
        header.msg_hdr.msg_namelen = sizeof(sockaddr_in);
    }
    wire.batch.push_back(header);
}

bool isFull(const Wire& wire, size_t sizeBytes) {
    return wire.batch.size() == kBatchPackets || wire.used + sizeBytes > wire.room.size();
}

// Sends all packets that are due before it waits for the next one.
bool waitUntilDue(Wire& wire, int64_t timeNs) {
    if (!wire.started) {
        wire.started = true;
        wire.firstPacketNs = timeNs;
        wire.wokenNs = wire.startNs = monotonicNs();
        return true;
    }
    const int64_t dueNs = wire.startNs + (timeNs - wire.firstPacketNs);
    if (dueNs <= wire.wokenNs) return true;
    if (monotonicNs() < dueNs) {
        if (!flush(wire)) return false;
        (void)stopWait(-1, 0, std::min(std::max(dueNs, wire.wokenNs + kTickNs), wire.endNs));
    }
    wire.wokenNs = monotonicNs();
    return true;
}

bool writePacket(void* context, std::span<const uint8_t> frame, size_t, int64_t timeNs) {
    Wire& wire = *static_cast<Wire*>(context);
    const std::span<const uint8_t> packet = wire.loopback ? frame.subspan(kIpOffset) : frame;
    if (!waitUntilDue(wire, timeNs)) return false;
    if (isFull(wire, packet.size()) && !flush(wire)) return false;
    add(wire, packet);
    return true;
}

bool finish(void* context) {
    return flush(*static_cast<Wire*>(context));
}

bool wantsMore(void* context) {
    const Wire& wire = *static_cast<Wire*>(context);
    return !stopRequested() && wire.wokenNs < wire.endNs;
}

// An empty reason means that `errno` has the cause.
const char* openInterface(Wire& wire, const char* name) {
    if (const char* refusal = wireRefusal(name)) return refusal;
    wire.descriptor = ::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
    if (wire.descriptor < 0) return "";
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_ifindex = static_cast<int>(::if_nametoindex(name));
    const auto* const any = reinterpret_cast<const sockaddr*>(&address);
    return ::bind(wire.descriptor, any, sizeof address) == 0 ? nullptr : "";
}

// Bound to the device as well, so that no route leads elsewhere.
const char* openLoopback(Wire& wire) {
    constexpr char kDevice[] = "lo";
    wire.loopback = true;
    wire.descriptor = ::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_RAW);
    if (wire.descriptor < 0) return "";
    const int bound =
        ::setsockopt(wire.descriptor, SOL_SOCKET, SO_BINDTODEVICE, kDevice, sizeof kDevice);
    return bound == 0 ? nullptr : "";
}

}  // namespace

bool wireOpen(Wire& wire, const GeneratorOptions& options, std::string& error) {
    wire.room.resize(kRoomBytes);
    wire.batch.reserve(kBatchPackets);
    wire.pieces.reserve(kBatchPackets);
    wire.addresses.reserve(kBatchPackets);
    const char* const reason =
        options.loopback ? openLoopback(wire) : openInterface(wire, options.interfaceName);
    if (reason != nullptr) {
        error = *reason != '\0' ? reason : std::strerror(errno);
        return false;
    }
    const auto seconds = static_cast<int64_t>(std::min<uint64_t>(options.seconds, UINT32_MAX));
    if (seconds > 0) wire.endNs = monotonicNs() + seconds * kSecondNs;
    if (stopInstall() == kStatusSuccess) return true;
    error = std::strerror(errno);
    return false;
}

void wireClose(Wire& wire) {
    if (wire.descriptor >= 0) ::close(wire.descriptor);
    wire.descriptor = -1;
}

PacketSink wireSink(Wire& wire) {
    return {.context = &wire, .write = writePacket, .finish = finish, .wantsMore = wantsMore};
}
