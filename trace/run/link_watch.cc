#include "trace/run/link_watch.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <utility>

#include "lib/base/log.h"
#include "lib/runtime/event.h"
#include "lib/runtime/fixed_ids_internal.h"

namespace {

constexpr size_t kMessagesBytes = 16384;  // the system sends no more at once

struct LinkWatch {
    // Constant after the start.
    int socket = -1;  // while there is a watch: to the end of the process
    char name[IFNAMSIZ] = "";
    void (*onChange)(LinkChange change) = nullptr;

    std::atomic<int> index = 0;

    std::atomic<bool> isUp = false;
};

LinkWatch watch;

bool isUpBy(unsigned flags) {
    return (flags & IFF_UP) != 0 && (flags & IFF_RUNNING) != 0;
}

void report(LinkChange change) {
    if (watch.onChange != nullptr) watch.onChange(change);
}

void setUp(bool isUp) {
    if (watch.isUp.exchange(isUp) == isUp) return;
    logPrint(isUp ? "interface %s is up again." : "interface %s is down.", watch.name);
    report(isUp ? LinkChange::kUp : LinkChange::kDown);
}

// Asked at the start, and where the system had no room for all of its messages.
bool askIsUp() {
    ifreq request = {};
    std::memcpy(request.ifr_name, watch.name, sizeof request.ifr_name);
    if (ioctl(watch.socket, SIOCGIFFLAGS, &request) != 0) return false;
    return isUpBy(static_cast<unsigned short>(request.ifr_flags));
}

void followMessages(const nlmsghdr* message, size_t sizeBytes) {
    for (; NLMSG_OK(message, sizeBytes); message = NLMSG_NEXT(message, sizeBytes)) {
        const bool isGone = message->nlmsg_type == RTM_DELLINK;
        if (message->nlmsg_type != RTM_NEWLINK && !isGone) continue;
        if (message->nlmsg_len < NLMSG_LENGTH(sizeof(ifinfomsg))) continue;
        ifinfomsg link;
        std::memcpy(&link, NLMSG_DATA(message), sizeof link);
        if (link.ifi_index != watch.index) continue;
        if (isGone) {
            report(LinkChange::kGone);
        } else {
            setUp(isUpBy(link.ifi_flags));
        }
    }
}

void onLinkEvent(uint32_t, pelmoMsg*, void*) {
    alignas(nlmsghdr) char messages[kMessagesBytes];
    for (;;) {
        sockaddr_nl sender = {};
        socklen_t senderBytes = sizeof sender;
        const ssize_t got = recvfrom(watch.socket, messages, sizeof messages, MSG_DONTWAIT,
                                     reinterpret_cast<sockaddr*>(&sender), &senderBytes);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0 && errno == ENOBUFS) {
            setUp(askIsUp());
            continue;
        }
        if (got <= 0) return;
        const bool isOfTheSystem = sender.nl_pid == 0;
        if (!isOfTheSystem) continue;
        followMessages(reinterpret_cast<const nlmsghdr*>(messages), static_cast<size_t>(got));
    }
}

bool openSocket() {
    watch.socket = socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_ROUTE);
    sockaddr_nl own = {};
    own.nl_family = AF_NETLINK;
    own.nl_groups = RTMGRP_LINK;
    return watch.socket >= 0 &&
           bind(watch.socket, reinterpret_cast<const sockaddr*>(&own), sizeof own) == 0;
}

bool startEvent() {
    watch.isUp = askIsUp();
    if (!watch.isUp) report(LinkChange::kDown);
    uint32_t event = kNoId;
    return pelmoEvent_CreateIO(&event, kFirstIoQueueId, onLinkEvent, watch.socket, kIoRead,
                               nullptr) == kStatusSuccess;
}

}  // namespace

void linkWatchFollow() {
    if (watch.socket < 0) return;
    watch.index = static_cast<int>(if_nametoindex(watch.name));
    watch.isUp = askIsUp();
    report(watch.isUp ? LinkChange::kUp : LinkChange::kDown);
}

void linkWatchStart(const char* interfaceName, void (*onChange)(LinkChange change)) {
    watch.onChange = onChange;
    watch.index = static_cast<int>(if_nametoindex(interfaceName));
    if (watch.index == 0) return;
    std::strncpy(watch.name, interfaceName, sizeof watch.name - 1);
    if (openSocket() && startEvent()) return;
    if (watch.socket >= 0) close(std::exchange(watch.socket, -1));
}
