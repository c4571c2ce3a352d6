// A module with the names that are bound by: each function answers its own name, so that a
// forwarder that leads to another one shows. The version comes from the environment.

#include <cstdlib>

#include "lib/transport/socket/secure_names.h"

#define FAKE_CRYPTO_NAMES(ROW) \
    ROW(ERR_get_error)         \
    ROW(ERR_error_string)      \
    SECURE_CRYPTO_NAMES(ROW)

#define FAKE_FUNCTION(name) \
    const char* name() {    \
        return #name;       \
    }

extern "C" {
FAKE_NAMES(FAKE_FUNCTION)

#ifdef FAKE_VERSION
unsigned long OpenSSL_version_num() {
    const char* version = std::getenv("FAKE_VERSION_NUMBER");
    return version != nullptr ? std::strtoul(version, nullptr, 16) : 0;
}

const char* OpenSSL_version(int what) {
    return what == 0 ? std::getenv("FAKE_VERSION_TEXT") : "asked for something else";
}
#endif
}
