// The router: who listens to what, and so who gets a message. It knows members by their records
// and nothing of connections.
//
// Members of one service and network form a realm; a message never leaves its realm. Inboxes are
// apart from all other subjects: only who listens to an inbox's own subjects gets what is sent to
// it, no listener on ">" does.
//
//     router -> realm (service, network) -> list of subjects -> members
//                                        -> list of inboxes  -> members
//                                        -> cache: subject   -> receivers
//
// Ownership: the router owns its realms, which are there while they have members; the record of a
// member is its owner's and stays in place from routerJoin to routerLeave. Receivers belong to the
// realm and are good until its interest changes or the next match in it.
//
// Failure: kStatusNoMemory, and nothing has changed. A subject is packed and sound.
//
// Threads: no lock; the owner serialises all calls.

#pragma once

#include <cstdint>
#include <span>

#include "lib/base/status.h"

struct Hash;
struct Realm;

// A member listens to at most so many subjects: more is no use, but a leak.
inline constexpr uint32_t kMostInterests = 100'000;

struct Member {
    // The owner's.
    void* owner;
    bool echo;    // gets what it sends itself
    bool hidden;  // may send on reserved subjects

    // The router's.
    Realm* realm;        // null: it has not joined
    Hash* interests;     // its packed subjects; null until the first
    uint8_t* claim;      // "_INBOX.SESSION.>", packed; null until it has a session
    uint64_t lastMatch;  // number of the realm's match that met it last
};

struct Router {
    Hash* realms;  // by service, NUL, network
};

// False when memory runs out. A router that is freed has no members.
[[nodiscard]] bool routerInit(Router* router);
void routerFree(Router* router);

// A member of no realm joins one. Texts are terminated and shorter than 512 together.
[[nodiscard]] pelmoStatus routerJoin(Router* router,
                                     Member* member,
                                     const char* service,
                                     const char* network);

// Forgets all that the member listens to. Nothing happens for one of no realm.
void routerLeave(Router* router, Member* member);

// All inboxes below "_INBOX.SESSION" become the member's; again for the same session changes
// nothing. kStatusAlreadyExists where some of them are another member's: `*holder` is the one whose
// session is exactly this, or null. kStatusInvalidArgument for a member with another session, or a
// text that doesn't pack.
[[nodiscard]] pelmoStatus routerClaim(Member* member, const char* session, Member** holder);

// Again for the same subject changes nothing. kStatusNotPermitted for an inbox that isn't the
// member's, kStatusQueueLimit for one subject too many.
[[nodiscard]] pelmoStatus routerListen(Member* member, const uint8_t* subject);
void routerUnlisten(Member* member, const uint8_t* subject);

// Those who get a message on that subject, each once; the sender is among them if it listens.
using Receivers = std::span<Member* const>;
[[nodiscard]] pelmoStatus routerMatch(Realm* realm, const uint8_t* subject, Receivers* out);
