// The messages that begin a session with a daemon, and the session's name.
//
//     client                                            daemon
//     start: mtype "I", who we are, what we want    ->
//                                                   <-  reply: mtype "R", data {...}
//     start once more, now with the session's name  ->
//
// The name is part of our inboxes: the daemon's address, the port at which we are reached directly
// ("P") or our number at the daemon ("U"), and a text that no other client has. It is made from the
// first reply and kept for later sessions.
//
//     7F000001.U1A2B.3C5D...    address and number in hexadecimal digits, as people read them
//
// Ownership: messages belong to the caller; a reply that was read points to nothing.
//
// Failure: as said at each call; outputs are written only on success.
//
// Threads: pure functions over the records that they are given.

#pragma once

#include <cstdint>

#include "lib/base/status.h"
#include "lib/transport/transport_links.h"

struct pelmoMsg;

// The version that we speak as.
inline constexpr DaemonVersion kOwnVersion = {8, 5, 2};

struct SessionStart {
    const char* userName;
    const char* session;  // empty before the first reply
    const char* service;
    const char* network;
    uint32_t pid;
    bool resume;
    uint32_t localAddress;    // in network order; 0: not known
    const char* description;  // null: none
    const char* httpAddress;  // null: none
    bool echo;
    bool hide;
    double reliabilitySeconds;  // negative: not asked for
};

// kStatusNoMemory.
[[nodiscard]] pelmoStatus sessionStartMessage(pelmoMsg** out, const SessionStart& start);

inline constexpr uint32_t kGobBytes = kMostSessionChars + 2;  // a longer one makes no session

struct SessionReply {
    uint32_t address;  // numbers, not in network order
    uint16_t port;
    uint16_t clientId;  // 0: none
    DaemonVersion version;
    bool isRouting;       // a daemon of the type "ZOK"
    char gob[kGobBytes];  // cut; empty: none
};

// kStatusInitFailed for a message that is no reply, kStatusNetworkNotFound without an address,
// kStatusServiceNotFound without a port, any status that the daemon answers.
[[nodiscard]] pelmoStatus sessionReadReply(SessionReply* out, pelmoMsg* message);

// The last part of a name, if the daemon gives none: of no more than 24 characters.
struct SessionMaker {
    const void* link;
    int64_t createSeconds;
    uint32_t pid;
};
void sessionMakeGob(char (&gob)[kGobBytes], const SessionMaker& maker);

struct SessionParts {
    uint32_t address;
    uint16_t directPort;  // 0: none
    uint16_t clientId;    // 0: none
    const char* gob;
};

// kStatusInitFailed for a name that is too long for an inbox, or that is no subject.
[[nodiscard]] pelmoStatus sessionName(char (&session)[kMostSessionChars + 1],
                                      const SessionParts& parts);
