// Many clients of the library in one process, for tests of the daemon:
//
//     many_clients PORT COUNT
//
// Each listens on "ALL.>". Prints "ready" once all do, and "all SUBJECT" when each of them has got
// a message on that subject. Ends with its input, in order.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "lib/pelmo.h"

namespace {

struct Arrivals {
    std::mutex mutex;
    size_t clients = 0;
    std::map<std::string, std::set<const void*>> bySubject;
};

Arrivals arrivals;

void say(const std::string& words) {
    std::printf("%s\n", words.c_str());
    std::fflush(stdout);
}

void check(const char* what, pelmoStatus status) {
    if (status == kStatusSuccess) return;
    std::fprintf(stderr, "many_clients: %s: %s\n", what, pelmoStatus_GetText(status));
    std::_Exit(1);
}

void onMessage(uint32_t, pelmoMsg* msg, void* client) {
    const char* subject = nullptr;
    check("subject", pelmoMsg_GetSendSubject(msg, &subject));
    const std::scoped_lock guard(arrivals.mutex);
    std::set<const void*>& got = arrivals.bySubject[subject];
    if (got.insert(client).second && got.size() == arrivals.clients) {
        say(std::string("all ") + subject);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    const std::string daemon = std::string("127.0.0.1:") + argv[1];
    std::vector<uint32_t> transports(std::strtoul(argv[2], nullptr, 10));
    arrivals.clients = transports.size();
    check("open", pelmo_Open());
    uint32_t dispatcher = kNoId;
    check("dispatcher", pelmoDispatcher_CreateEx(&dispatcher, kDefaultQueueId, -1.0));
    for (uint32_t& transport : transports) {
        uint32_t listener = kNoId;
        check("connect",
              pelmoTransport_CreateNetwork(&transport, nullptr, nullptr, daemon.c_str()));
        check("listen", pelmoEvent_CreateListener(&listener, kDefaultQueueId, onMessage, transport,
                                                  "ALL.>", &transport));
    }
    say("ready");
    char byte;
    while (read(STDIN_FILENO, &byte, 1) > 0) {
    }
    for (const uint32_t transport : transports) {
        pelmoTransport_Destroy(transport);
    }
    return pelmo_Close() == kStatusSuccess ? 0 : 1;
}
