#include "lib/transport/daemon/link_environment.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdlib>
#include <cstring>

#include "lib/base/clock.h"
#include "lib/base/cond.h"
#include "lib/base/lock.h"
#include "lib/runtime/event.h"
#include "lib/transport/daemon/launch.h"

namespace {

constexpr double kConnectSeconds = 60.0;
constexpr double kAnswerSeconds = 60.0;
constexpr double kStartSeconds = 3.5;
constexpr size_t kServiceEntryBytes = 1024;

// The C library's generator with a state of our own: the program's own sequence isn't ours to move.
struct Random {
    Lock lock = PELMO_LOCK_READY(LockRank::kLeaf);
    bool seeded PELMO_GUARDED_BY(lock) = false;
    char state[128] PELMO_GUARDED_BY(lock) = {};
    random_data data PELMO_GUARDED_BY(lock) = {};
};
constinit Random generator;

uint32_t randomBelow(uint32_t below) {
    const LockGuard guard(generator.lock);
    if (!generator.seeded) {
        TimeSpec now;
        clockNow(&now);
        const uint32_t seed = (now.nanoseconds >> 16 & 255) | static_cast<uint32_t>(now.seconds)
                                                                  << 8;
        initstate_r(seed, generator.state, sizeof generator.state, &generator.data);
        generator.seeded = true;
    }
    int32_t number = 0;
    random_r(&generator.data, &number);
    return static_cast<uint32_t>(number) % below;
}

bool findHost(const char* name, uint32_t* out) {
    addrinfo hints = {};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    if (getaddrinfo(name, nullptr, &hints, &list) != 0) return false;
    const bool found = list != nullptr && list->ai_addrlen >= sizeof(sockaddr_in);
    if (found) {
        sockaddr_in address;
        std::memcpy(&address, list->ai_addr, sizeof address);
        *out = address.sin_addr.s_addr;
    }
    freeaddrinfo(list);
    return found;
}

bool findService(const char* name, const char* protocol, uint16_t* out) {
    servent entry;
    servent* found = nullptr;
    char texts[kServiceEntryBytes];
    if (getservbyname_r(name, protocol, &entry, texts, sizeof texts, &found) != 0) return false;
    if (found == nullptr) return false;
    *out = static_cast<uint16_t>(found->s_port);
    return true;
}

}  // namespace

constinit LinkEnvironment linkEnvironment = {.now = clockSteadySeconds,
                                             .random = randomBelow,
                                             .createTimer = pelmoEvent_CreateTimer,
                                             .destroyTimer = pelmoEvent_DestroyEx,
                                             .wait = Cond_TimedWait,
                                             .launch = launchDaemon,
                                             .names = {.host = findHost, .service = findService},
                                             .connectSeconds = kConnectSeconds,
                                             .answerSeconds = kAnswerSeconds,
                                             .startSeconds = kStartSeconds};
