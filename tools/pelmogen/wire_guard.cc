#include "tools/pelmogen/wire_guard.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>
#include <vector>

namespace {

// Larger than any one answer of the kernel.
constexpr size_t kAnswerBytes = 65536;

bool inMachinesOwnNamespace() {
    struct stat here;
    struct stat first;
    if (::stat("/proc/self/ns/net", &here) != 0) return true;
    // Even root may lack the right to inspect the first process.
    if (::stat("/proc/1/ns/net", &first) != 0) return false;
    return here.st_dev == first.st_dev && here.st_ino == first.st_ino;
}

// The value of an attribute in a list; empty when the list doesn't have it.
std::span<uint8_t> attribute(std::span<uint8_t> list, uint16_t type) {
    while (list.size() >= sizeof(rtattr)) {
        rtattr head;
        std::memcpy(&head, list.data(), sizeof head);
        if (head.rta_len < sizeof head || head.rta_len > list.size()) return {};
        if ((head.rta_type & NLA_TYPE_MASK) == type) {
            return list.subspan(sizeof head, head.rta_len - sizeof head);
        }
        const size_t step = RTA_ALIGN(head.rta_len);
        list = list.subspan(step < list.size() ? step : list.size());
    }
    return {};
}

bool isVeth(std::span<uint8_t> attributes) {
    const std::span<uint8_t> kind = attribute(attribute(attributes, IFLA_LINKINFO), IFLA_INFO_KIND);
    const std::string_view text(reinterpret_cast<const char*>(kind.data()), kind.size());
    return text.substr(0, text.find('\0')) == "veth";
}

// `link` is the body of the kernel's message about an interface.
bool leadsNowhere(std::span<uint8_t> link) {
    ifinfomsg about;
    if (link.size() < sizeof about) return false;
    std::memcpy(&about, link.data(), sizeof about);
    if ((about.ifi_flags & IFF_UP) == 0 || (about.ifi_flags & IFF_LOOPBACK) != 0) return true;
    const std::span<uint8_t> attributes = link.subspan(sizeof about);
    // A peer in another namespace is reported with the number of that namespace.
    return isVeth(attributes) && !attribute(attributes, IFLA_LINK).empty() &&
           attribute(attributes, IFLA_LINK_NETNSID).empty();
}

enum class Verdict { kGoOn, kAllLeadNowhere, kRefused };

// One answer holds messages about several interfaces; the very last message is NLMSG_DONE.
Verdict judge(std::span<uint8_t> answer) {
    while (answer.size() >= sizeof(nlmsghdr)) {
        nlmsghdr head;
        std::memcpy(&head, answer.data(), sizeof head);
        if (head.nlmsg_len < sizeof head || head.nlmsg_len > answer.size()) break;
        if (head.nlmsg_type == NLMSG_DONE) return Verdict::kAllLeadNowhere;
        if (head.nlmsg_type != RTM_NEWLINK) return Verdict::kRefused;
        const auto link = answer.subspan(sizeof head, head.nlmsg_len - sizeof head);
        if (!leadsNowhere(link)) return Verdict::kRefused;
        const size_t step = NLMSG_ALIGN(head.nlmsg_len);
        answer = answer.subspan(step < answer.size() ? step : answer.size());
    }
    return answer.empty() ? Verdict::kGoOn : Verdict::kRefused;
}

struct LinkRequest {
    nlmsghdr head;
    ifinfomsg body;
};

bool askForLinks(int kernel) {
    LinkRequest request{};
    request.head.nlmsg_len = sizeof request;
    request.head.nlmsg_type = RTM_GETLINK;
    request.head.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    return ::send(kernel, &request, sizeof request, 0) == static_cast<ssize_t>(sizeof request);
}

bool allLeadNowhere() {
    const int kernel = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (kernel < 0) return false;
    std::vector<uint8_t> room(kAnswerBytes);
    Verdict verdict = askForLinks(kernel) ? Verdict::kGoOn : Verdict::kRefused;
    while (verdict == Verdict::kGoOn) {
        const ssize_t count = ::recv(kernel, room.data(), room.size(), 0);
        verdict = count > 0 ? judge(std::span(room).first(static_cast<size_t>(count)))
                            : Verdict::kRefused;
    }
    ::close(kernel);
    return verdict == Verdict::kAllLeadNowhere;
}

}  // namespace

const char* wireRefusal(const char* interfaceName) {
    if (::if_nametoindex(interfaceName) == 0) return "no such interface";
    if (inMachinesOwnNamespace() || !allLeadNowhere()) {
        return "frames go out only in a network namespace that nothing leads out of";
    }
    return nullptr;
}
