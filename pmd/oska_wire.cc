#include "pmd/oska_wire.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "lib/base/clock.h"
#include "lib/base/log_pace.h"

namespace {

// Enough for what one read of a client brings.
constexpr int kSendBufferBytes = 4 << 20;

bool sendPiece(int descriptor, std::span<const uint8_t> bytes, int flags) {
    ssize_t sent;
    do {
        sent = send(descriptor, bytes.data(), bytes.size(), flags | MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent >= 0;
}

// Who isn't there to listen is no fault of ours.
bool isHarmless(int error) {
    return error == ECONNREFUSED;
}

void onPacket(void* closure, std::span<const uint8_t> packet) {
    const auto* wire = static_cast<const OskaWire*>(closure);
    const bool sent = sendPiece(wire->descriptor, packet.first(kOskaSrcOffset), MSG_MORE) &&
                      sendPiece(wire->descriptor, packet.subspan(kOskaSrcOffset), 0);
    if (!sent && !isHarmless(errno)) logPaced("packets are lost: %s", std::strerror(errno));
}

sockaddr_in addressOf(uint32_t address, uint16_t port) {
    sockaddr_in out = {};
    out.sin_family = AF_INET;
    out.sin_addr.s_addr = address;
    out.sin_port = port;
    return out;
}

// Bound to the interface's address and connected to the group, so that one call sends a packet and
// the source is known.
bool prepare(int descriptor, const PmdOptions& options, uint32_t* source) {
    const in_addr interfaceAddress = {options.interfaceAddress};
    const sockaddr_in own = addressOf(options.interfaceAddress, 0);
    const sockaddr_in group = addressOf(options.oskaGroup, options.oskaPort);
    (void)setsockopt(descriptor, SOL_SOCKET, SO_SNDBUF, &kSendBufferBytes, sizeof kSendBufferBytes);
    if (options.interfaceAddress != 0 &&
        setsockopt(descriptor, IPPROTO_IP, IP_MULTICAST_IF, &interfaceAddress,
                   sizeof interfaceAddress) != 0) {
        return false;
    }
    if (bind(descriptor, reinterpret_cast<const sockaddr*>(&own), sizeof own) != 0) return false;
    if (connect(descriptor, reinterpret_cast<const sockaddr*>(&group), sizeof group) != 0) {
        return false;
    }
    sockaddr_in bound = {};
    socklen_t size = sizeof bound;
    if (getsockname(descriptor, reinterpret_cast<sockaddr*>(&bound), &size) != 0) return false;
    *source = bound.sin_addr.s_addr;
    return true;
}

}  // namespace

bool oskaWireOpen(OskaWire* wire, const PmdOptions& options, std::string& error) {
    uint32_t source = 0;
    const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const bool prepared = descriptor >= 0 && prepare(descriptor, options, &source);
    auto* writer =
        prepared ? static_cast<OskaWriter*>(std::calloc(1, sizeof(OskaWriter))) : nullptr;
    if (writer == nullptr) {
        error = std::string("can't send to the group: ") + std::strerror(errno);
        if (descriptor >= 0) close(descriptor);
        return false;
    }
    TimeSpec now;
    clockNow(&now);
    oskaWriterInit(writer, source, options.oskaGroup, static_cast<uint32_t>(now.seconds), onPacket,
                   wire);
    *wire = {.writer = writer, .descriptor = descriptor, .loggedLeftOut = 0};
    return true;
}

void oskaWireClose(OskaWire* wire) {
    if (!oskaWireIsOpen(wire)) return;
    close(wire->descriptor);
    std::free(wire->writer);
    wire->writer = nullptr;
}

void oskaWireAdd(OskaWire* wire, std::span<const uint8_t> message, double now) {
    oskaWriterAdd(wire->writer, message, now);
    if (wire->writer->leftOut == wire->loggedLeftOut) return;
    wire->loggedLeftOut = wire->writer->leftOut;
    logPaced("a message is too long for packets and isn't on the wire");
}

void oskaWireFlush(OskaWire* wire, double now) {
    oskaWriterFlush(wire->writer, now);
}

void oskaWireTick(OskaWire* wire, double now) {
    oskaWriterTick(wire->writer, now);
}
