#include "trace/run/capabilities.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "lib/base/log.h"
#include "trace/settings.h"

namespace {

constexpr uint32_t kWords = _LINUX_CAPABILITY_U32S_3;

bool keep(uint32_t kept) {
    __user_cap_header_struct header = {.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
    __user_cap_data_struct sets[kWords] = {};
    if (syscall(SYS_capget, &header, sets) != 0) return false;
    for (__user_cap_data_struct& set : sets) {
        set.effective = set.permitted &= kept;
        set.inheritable &= kept;
        kept = 0;
    }
    return syscall(SYS_capset, &header, sets) == 0;
}

}  // namespace

pelmoStatus capabilitiesKeep(uint32_t kept) {
    if (keep(kept)) return kStatusSuccess;
    logPrint("unable to give up capabilities: %s.", std::strerror(errno));
    return kStatusNotPermitted;
}

pelmoStatus capabilitiesKeepOfTool() {
    const bool rotates = traceSettings.captureLimitBytes != 0 || traceSettings.logLimitBytes != 0;
    uint32_t kept = traceSettings.liveCapture ? kCapabilitiesOfCapture : 0;
    if (rotates) kept |= 1u << CAP_DAC_OVERRIDE;
    return capabilitiesKeep(kept);
}
