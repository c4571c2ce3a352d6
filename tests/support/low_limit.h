// A limit of the process, as low as told while the object exists: RLIMIT_NOFILE to give no more
// descriptors, RLIMIT_FSIZE to stand for a full disk.

#pragma once

#include <sys/resource.h>

#include <csignal>

struct LowLimit {
    LowLimit(__rlimit_resource_t what, rlim_t most) : resource(what) {
        std::signal(SIGXFSZ, SIG_IGN);  // a write past the limit shall fail and not end the tests
        getrlimit(resource, &former);
        const rlimit low = {most, former.rlim_max};
        setrlimit(resource, &low);
    }
    ~LowLimit() { setrlimit(resource, &former); }
    LowLimit(const LowLimit&) = delete;
    LowLimit& operator=(const LowLimit&) = delete;

    const __rlimit_resource_t resource;
    rlimit former;
};
