// What a network transport's daemon and service arguments say: where the daemon is, whether one may
// be started, and whether the transport wants a port of its own.
//
//     daemon
//     null, ""      "7500"
//     7500, :7500   that port of this host; a daemon may be started there
//     HOST:7500     that port of another host; no daemon is started
//     tcp:REST      as REST
//     ssl:REST      as REST, over a secure connection; no daemon is started
//
//     service
//     7500          no port of its own
//     7500:7501     a UDP port of its own for inboxes; ":" and more may follow
//     7500:         any port
//
// A host is a dotted number or a name, a port a decimal number or the name of a service.
//
// Ownership: what is parsed points into the argument.
//
// Failure: as said at each call; outputs are written only on success.
//
// Byte order: addresses and ports are in network order.

#pragma once

#include <cstdint>

#include "lib/base/status.h"

inline constexpr uint32_t kMostHostChars = 127;

// How names become numbers. Each answers false for a name that isn't known.
struct NameResolver {
    bool (*host)(const char* name, uint32_t* out);  // its first address
    bool (*service)(const char* name, const char* protocol, uint16_t* out);
};

struct DaemonSpecification {
    const char* text;  // the whole argument, or the default
    bool isSecure;
    bool namesHost;
    char host[kMostHostChars + 1];
    const char* port;
};

// kStatusNotPermitted for one that begins like an option of the daemon's command line,
// kStatusInvalidArgument for a form that isn't listed above.
[[nodiscard]] pelmoStatus specificationParse(DaemonSpecification* out, const char* argument);

struct DaemonAddress {
    uint32_t address;  // 0: none was named
    uint16_t port;
};

// 127.0.0.1 as a number.
inline constexpr uint32_t kLoopbackAddress = 0x7f000001;

// kStatusInvalidArgument if a name isn't known.
[[nodiscard]] pelmoStatus specificationResolve(DaemonAddress* out,
                                               const DaemonSpecification& specification,
                                               const NameResolver& resolver);

struct DirectPort {
    bool isWanted;
    uint16_t port;  // 0: any
};

// kStatusNotPermitted if the port is the service itself, kStatusServiceNotFound for a port that
// isn't known.
[[nodiscard]] pelmoStatus specificationDirectPort(DirectPort* out,
                                                  const char* service,
                                                  const NameResolver& resolver);
