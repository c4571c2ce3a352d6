#include "pmd/stand_in.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <utility>

#include "lib/base/bytes.h"
#include "lib/base/log_pace.h"
#include "lib/base/text.h"
#include "lib/pelmo.h"
#include "lib/runtime/fixed_ids_internal.h"

namespace {

constexpr char kYes = 'y';
constexpr char kNo = 'n';
constexpr int kMostAsking = 8;

// What the system shows of a user of another user namespace.
constexpr uid_t kUnknownUser = 65534;

struct LocalName {
    sockaddr_un address;
    socklen_t bytes;
};

// It begins with a NUL, which makes it an abstract one.
LocalName nameOf(uint16_t port) {
    LocalName name = {};
    name.address.sun_family = AF_UNIX;
    char* const text = name.address.sun_path + 1;
    boundedFormat(text, sizeof name.address.sun_path - 1, "pelmo-pmd-%u", hostOrder16(port));
    name.bytes = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + std::strlen(text));
    return name;
}

const sockaddr* addressOf(const LocalName& name) {
    return reinterpret_cast<const sockaddr*>(&name.address);
}

struct Offer {
    int descriptor = -1;
    uint32_t event = kNoId;
    bool (*handOver)() = nullptr;
};

constinit Offer offer;

bool mayAsk(int connection) {
    ucred peer = {};
    socklen_t bytes = sizeof peer;
    if (getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &bytes) != 0) return false;
    return peer.uid == 0 || (peer.uid == geteuid() && peer.uid != kUnknownUser);
}

void onAsked(uint32_t, pelmoMsg*, void*) {
    const int connection =
        accept4(offer.descriptor, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (connection < 0) return;
    const bool may = mayAsk(connection);
    if (!may) logPaced("another user asked for the port: refused");
    const char answer = may && offer.handOver() ? kYes : kNo;
    // A daemon that has gone meanwhile finds the port free when it comes again.
    (void)send(connection, &answer, 1, MSG_NOSIGNAL);
    close(connection);
}

void setWait(int descriptor, double seconds) {
    const auto whole = static_cast<time_t>(seconds);
    const timeval limit = {whole,
                           static_cast<suseconds_t>((seconds - static_cast<double>(whole)) * 1e6)};
    (void)setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    (void)setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

}  // namespace

bool standInOffer(uint16_t port, bool (*handOver)()) {
    const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (descriptor < 0) return false;
    const LocalName name = nameOf(port);
    offer.descriptor = descriptor;
    offer.handOver = handOver;
    if (bind(descriptor, addressOf(name), name.bytes) == 0 &&
        listen(descriptor, kMostAsking) == 0 &&
        pelmoEvent_CreateIO(&offer.event, kFirstIoQueueId, onAsked, descriptor, kIoRead, nullptr) ==
            kStatusSuccess) {
        return true;
    }
    close(std::exchange(offer.descriptor, -1));
    return false;
}

void standInEnd() {
    if (offer.event != kNoId) pelmoEvent_DestroyEx(std::exchange(offer.event, kNoId), nullptr);
    // No asking daemon is kept waiting for an answer; the descriptor itself is closed with the
    // process, since a callback may be using it.
    if (offer.descriptor >= 0) (void)shutdown(offer.descriptor, SHUT_RDWR);
}

HandOver standInAsk(uint16_t port) {
    const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0) return HandOver::kNobody;
    setWait(descriptor, kHandOverSeconds);
    const LocalName name = nameOf(port);
    HandOver result = HandOver::kNobody;
    if (connect(descriptor, addressOf(name), name.bytes) == 0) {
        char answer = kNo;
        const bool isAnswered = recv(descriptor, &answer, 1, 0) == 1;
        result = isAnswered && answer == kYes ? HandOver::kGiven : HandOver::kRefused;
    }
    close(descriptor);
    return result;
}
