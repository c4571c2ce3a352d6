#include "lib/transport/daemon/connects.h"

#include "lib/transport/daemon/link_seams.h"
#include "lib/transport/ipq/ipq.h"
#include "lib/transport/socket/socket.h"

namespace {

struct Connects {
    Lock lock = PELMO_LOCK_READY(LockRank::kConnects);
    Connect* first PELMO_GUARDED_BY(lock) = nullptr;
};
constinit Connects connects;

void interruptLocked(Connect* connect) PELMO_REQUIRES(connects.lock) {
    connect->isInterrupted = true;
    Cond_Signal(&connect->wake);
    if (connect->socket != nullptr) socketInterrupt(connect->socket);
    if (connect->ipq != nullptr) ipqInterrupt(connect->ipq);
}

}  // namespace

pelmoStatus connectEnter(Connect* connect, const DaemonLink* link) {
    connect->link = link;
    if (Cond_Init(&connect->wake) != kStatusSuccess) return kStatusNoMemory;
    const LockGuard guard(connects.lock);
    connect->next = connects.first;
    connect->place = &connects.first;
    if (connect->next != nullptr) connect->next->place = &connect->next;
    connects.first = connect;
    return kStatusSuccess;
}

void connectLeave(Connect* connect) {
    {
        const LockGuard guard(connects.lock);
        *connect->place = connect->next;
        if (connect->next != nullptr) connect->next->place = connect->place;
    }
    Cond_Destroy(&connect->wake);
}

bool connectWatch(Connect* connect, Socket* socket, Ipq* ipq) {
    const LockGuard guard(connects.lock);
    connect->socket = socket;
    connect->ipq = ipq;
    return !connect->isInterrupted;
}

bool connectIsInterrupted(Connect* connect) {
    const LockGuard guard(connects.lock);
    return connect->isInterrupted;
}

bool connectSleep(Connect* connect, double seconds) {
    const LockGuard guard(connects.lock);
    // Nobody signals the condition but an interrupt.
    if (!connect->isInterrupted) (void)linkSeams.wait(&connect->wake, &connects.lock, seconds);
    return !connect->isInterrupted;
}

void connectsInterrupt(const DaemonLink* link) {
    const LockGuard guard(connects.lock);
    for (Connect* connect = connects.first; connect != nullptr; connect = connect->next) {
        if (link == nullptr || connect->link == link) interruptLocked(connect);
    }
}
