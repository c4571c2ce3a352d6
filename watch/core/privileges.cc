#include "watch/core/privileges.h"

#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "lib/base/log.h"

namespace {

constexpr uint32_t kWords = _LINUX_CAPABILITY_U32S_3;
constexpr uint32_t kForCapture = 1u << CAP_NET_RAW | 1u << CAP_NET_ADMIN;

pelmoStatus refuse(const char* what) {
    logPrint("unable to give up %s: %s.", what, std::strerror(errno));
    return kStatusNotPermitted;
}

// Of those that the process has. All capabilities of `kept` are in the first word.
bool keepCapabilities(uint32_t kept) {
    __user_cap_header_struct header = {.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
    __user_cap_data_struct sets[kWords] = {};
    if (syscall(SYS_capget, &header, sets) != 0) return false;
    for (__user_cap_data_struct& set : sets) {
        set.effective = set.permitted &= kept;
        set.inheritable = 0;
        kept = 0;
    }
    return syscall(SYS_capset, &header, sets) == 0;
}

bool becomeUser() {
    const gid_t group = getgid();
    const uid_t user = getuid();
    if (group != getegid() && setresgid(group, group, group) != 0) return false;
    return user == geteuid() || setresuid(user, user, user) == 0;
}

}  // namespace

pelmoStatus privilegesForCapture() {
    return keepCapabilities(kForCapture) ? kStatusSuccess : refuse("capabilities");
}

pelmoStatus privilegesDrop() {
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return refuse("new privileges");
    if (prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0) != 0) {
        return refuse("ambient capabilities");
    }
    if (!becomeUser()) return refuse("another user's identity");
    return keepCapabilities(0) ? kStatusSuccess : refuse("capabilities");
}
