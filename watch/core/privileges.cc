#include "watch/core/privileges.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <seccomp.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "lib/base/log.h"
#include "lib/base/sanitizer.h"
#include "trace/run/capabilities.h"

namespace {

constexpr uint32_t kForIdentity = 1u << CAP_SETUID | 1u << CAP_SETGID;
constexpr uint32_t kNobody = 65534;  // where the system has no user of that name

#ifdef PELMO_ADDRESS_SANITIZER
constexpr bool kIsSanitized = true;
#else
constexpr bool kIsSanitized = false;
#endif

struct Identity {
    uid_t user;
    gid_t group;
};

pelmoStatus refuse(const char* what) {
    logPrint("unable to give up %s: %s.", what, std::strerror(errno));
    return kStatusNotPermitted;
}

// Started by root, and not only with root's rights by another user.
bool isRoot() {
    return getuid() == 0 && geteuid() == 0;
}

// An id of an ordinary user or group in the environment; false where there is none.
bool idOfEnvironment(const char* name, uint32_t* out) {
    const char* const text = std::getenv(name);
    if (text == nullptr || *text < '0' || *text > '9') return false;
    char* end = nullptr;
    errno = 0;
    const unsigned long long id = std::strtoull(text, &end, 10);
    if (*end != '\0' || errno != 0 || id == 0 || id >= UINT32_MAX) return false;
    *out = static_cast<uint32_t>(id);
    return true;
}

Identity ordinaryIdentity() {
    Identity identity = {kNobody, kNobody};
    if (idOfEnvironment("SUDO_UID", &identity.user) &&
        idOfEnvironment("SUDO_GID", &identity.group)) {
        return identity;
    }
    const passwd* const nobody = getpwnam("nobody");
    if (nobody == nullptr || nobody->pw_uid == 0 || nobody->pw_gid == 0) return {kNobody, kNobody};
    return {nobody->pw_uid, nobody->pw_gid};
}

bool leaveRoot() {
    const auto [user, group] = ordinaryIdentity();
    if (setresgid(group, group, group) != 0) return errno == EINVAL;  // unknown to this namespace
    return setgroups(0, nullptr) == 0 && setresuid(user, user, user) == 0;
}

bool becomeUser() {
    if (isRoot()) return leaveRoot();
    const gid_t group = getgid();
    const uid_t user = getuid();
    if (group != getegid() && setresgid(group, group, group) != 0) return false;
    return user == geteuid() || setresuid(user, user, user) == 0;
}

constexpr int kSocketTypes = 0xf;  // beside SOCK_CLOEXEC and its like

struct Refusal {
    int call;
    scmp_arg_cmp argument;  // every call where `op` is 0
};

// The kernel reads the low half of such an argument; a filter sees the whole. Flags of an open are
// its second argument, of an openat its third.
scmp_arg_cmp flagIs(unsigned argument, int mask, int value) {
    return {argument, SCMP_CMP_MASKED_EQ, static_cast<uint32_t>(mask),
            static_cast<uint32_t>(value)};
}

// Errors and not an end of the process: what a library tries without needing it just fails.
bool addRefusals(scmp_filter_ctx filter) {
    const Refusal refusals[] = {
        {SCMP_SYS(execve), {}},
        {SCMP_SYS(execveat), {}},
        {SCMP_SYS(creat), {}},
        {SCMP_SYS(open), flagIs(1, O_ACCMODE, O_WRONLY)},
        {SCMP_SYS(open), flagIs(1, O_ACCMODE, O_RDWR)},
        {SCMP_SYS(open), flagIs(1, O_CREAT, O_CREAT)},
        {SCMP_SYS(openat), flagIs(2, O_ACCMODE, O_WRONLY)},
        {SCMP_SYS(openat), flagIs(2, O_ACCMODE, O_RDWR)},
        {SCMP_SYS(openat), flagIs(2, O_CREAT, O_CREAT)},
        {SCMP_SYS(open), flagIs(1, O_TRUNC, O_TRUNC)},
        {SCMP_SYS(openat), flagIs(2, O_TRUNC, O_TRUNC)},
        {SCMP_SYS(truncate), {}},
        {SCMP_SYS(socket), flagIs(0, -1, AF_PACKET)},
        {SCMP_SYS(socket), flagIs(1, kSocketTypes, SOCK_PACKET)},  // an older way to one
        {SCMP_SYS(ptrace), {}},
        {SCMP_SYS(process_vm_readv), {}},
        {SCMP_SYS(process_vm_writev), {}},
        {SCMP_SYS(bpf), {}},
        {SCMP_SYS(perf_event_open), {}},
    };
    // Their arguments lie in memory, where a filter doesn't see them; libraries fall back.
    const int unseen[] = {SCMP_SYS(openat2), SCMP_SYS(io_uring_setup), SCMP_SYS(open_by_handle_at)};
    bool isWhole = true;
    for (const auto& [call, argument] : refusals) {
        const unsigned count = argument.op != 0 ? 1 : 0;
        isWhole &=
            seccomp_rule_add_array(filter, SCMP_ACT_ERRNO(EPERM), call, count, &argument) == 0;
    }
    for (const int call : unseen) {
        isWhole &= seccomp_rule_add_array(filter, SCMP_ACT_ERRNO(ENOSYS), call, 0, nullptr) == 0;
    }
    return isWhole;
}

// A kernel without such filters leaves the process as it is.
bool filterCalls() {
    scmp_filter_ctx filter = seccomp_init(SCMP_ACT_ALLOW);
    if (filter == nullptr) return false;
    errno = ENOMEM;
    bool isDone = addRefusals(filter);
    if (isDone) {
        const int result = seccomp_load(filter);
        isDone = result == 0 || result == -EINVAL || result == -ENOSYS;
        errno = -result;
    }
    seccomp_release(filter);
    return isDone;
}

}  // namespace

pelmoStatus privilegesForCapture() {
    return capabilitiesKeep(kCapabilitiesOfCapture | (isRoot() ? kForIdentity : 0));
}

pelmoStatus privilegesDrop() {
    const bool wasRoot = isRoot();
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return refuse("new privileges");
    if (prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0) != 0) {
        return refuse("ambient capabilities");
    }
    if (!becomeUser()) return refuse("the identity of root or another user");
    const pelmoStatus status = capabilitiesKeep(0);
    if (status != kStatusSuccess) return status;
    if (kIsSanitized) {
        prctl(PR_SET_DUMPABLE, 1, 0, 0,
              0);  // the check for leaks attaches to the process at its end
        return kStatusSuccess;
    }
    return !wasRoot || filterCalls() ? kStatusSuccess : refuse("calls of the system");
}
