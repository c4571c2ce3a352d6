// Sessions: what a client tells of itself in a start message, and what the daemon answers.
//
//     client -> daemon   {mtype="I" userid session service network vmaj vmin vupd pid rc ...}
//     daemon -> client   {mtype="R" data={ipaddr ipport cid vmaj vmin vupd gob dtyp}}
//                        {mtype="R" data={error}}
//
// A client sends its start message twice on each connection, ahead of the answer and behind it: the
// answer lets it make up its session name, the second message carries that name and gets no answer.
// One that reconnects carries it in both. The name begins every inbox of the client:
//
//     7F000001.U0005.2FB41B20C7E3D40000001     address, client id, the daemon's `gob`
//
// so the daemon chooses address, id and gob such that no two clients get the same.
//
// Threads: no lock; the owner serialises all calls.

#pragma once

#include <bitset>
#include <cstdint>

#include "lib/base/status.h"

struct pelmoMsg;

// Texts, with their NUL. What is longer is refused, but for what only the log shows: that is cut.
inline constexpr uint32_t kSessionTextBytes = 64;
inline constexpr uint32_t kServiceTextBytes = 64;
inline constexpr uint32_t kNetworkTextBytes = 256;
inline constexpr uint32_t kShownTextBytes = 48;

struct StartMessage {
    char session[kSessionTextBytes];  // empty for none
    char service[kServiceTextBytes];  // the default where the client gives none
    char network[kNetworkTextBytes];
    char user[kShownTextBytes];  // all but printable ASCII is escaped
    char description[kShownTextBytes];
    int32_t pid;
    bool echo;
    bool hide;
    double reliabilitySeconds;  // negative: not asked for
};

// kStatusInvalidArgument for a field that is missing or of another type, or a session that could
// be nobody's; kStatusServiceNotFound and kStatusNetworkNotFound for texts that are too long.
[[nodiscard]] pelmoStatus startMessageRead(pelmoMsg* msg, StartMessage* out);

// Client ids, 1 to 65535; 0 is none.
struct ClientIds {
    std::bitset<65536> taken;
    uint16_t last;  // given out; the next is the first free one behind it
};

// `wanted` if that is free, else another; 0 where all are taken.
[[nodiscard]] uint16_t clientIdTake(ClientIds* ids, uint16_t wanted);
void clientIdGive(ClientIds* ids, uint16_t id);

// The client id within a session name; 0 for none.
[[nodiscard]] uint16_t sessionClientId(const char* session);

// What is the same in all answers of one daemon.
struct SessionGround {
    uint64_t startMilliseconds;  // of the daemon, since 1970
    uint32_t processId;
    uint32_t address;  // network order
    uint16_t port;     // network order
};

// Is it a name of the kind that clients make up from this daemon's answers?
[[nodiscard]] bool sessionIsOf(const SessionGround& ground, const char* session);

// An answer, to be sent as it stands and released. `serial` counts the daemon's clients.
// kStatusNoMemory.
[[nodiscard]] pelmoStatus sessionAnswerMake(pelmoMsg** out,
                                            const SessionGround& ground,
                                            uint16_t clientId,
                                            uint32_t serial);
[[nodiscard]] pelmoStatus sessionRefusalMake(pelmoMsg** out, pelmoStatus error);
