// The router: which members listen to what, and so which get a message. It knows members by their
// records and nothing of connections.
//
// Members of one service and network form a realm; a message never leaves its realm. Inboxes are
// apart from all other subjects: only a member that listens to an inbox's own subjects gets
// what is sent to it; a listener on ">" doesn't.
//
//     router -> realm (service, network) -> list of subjects -> members
//                                        -> list of inboxes  -> members
//                                        -> cache: subject   -> receivers
//
// Members choose what they listen to, so what one of them costs the others has bounds. Memory: the
// interest of each and of all is counted in bytes, nodes of the lists included, which are charged
// to the client that caused them for as long as they exist. Work: a match meets as many nodes at
// most as the patterns of all have places of "*", by which members are charged as well: a pattern's
// shape is what is left of it with "x" for each other element, and the nodes of the tree of a
// member's shapes are counted. Time: the interest of a member that has left is taken down in
// pieces. A match of a subject that has wildcards itself is given up if it takes too long.
//
// Ownership: the router owns its realms, which are there while they have members or interest of
// members that left; the record of a member is its owner's and stays in place from routerJoin to
// routerLeave. Receivers belong to the realm and are good until its interest changes or the next
// match in it.
//
// Failure: kStatusNoMemory, and nothing has changed. A subject is packed and sound.
//
// Threads: no lock; the owner serialises all calls.

#pragma once

#include <cstdint>
#include <span>

#include "lib/base/status.h"

struct Hash;
struct Listener;
struct Realm;

// A member listens to at most so many subjects: more is no use, but a leak.
inline constexpr uint32_t kMostInterests = 100'000;

// Bytes that the interest of a member and of all may take. 100,000 subjects that share their first
// elements take 32 MB. A member may always have its part, whatever the others take.
inline constexpr uint64_t kMostInterestBytes = 32 << 20;
inline constexpr uint64_t kMostInterestBytesOfAll = 256 << 20;
inline constexpr uint64_t kOwnInterestBytes = 64 << 10;

// Nodes of the shapes of a member's patterns, and of all.
inline constexpr uint32_t kMostShapes = 256;
inline constexpr uint32_t kMostShapesOfAll = 4096;
inline constexpr uint32_t kOwnShapes = 16;

// Steps (sublist.h) of matches of subjects that have wildcards themselves, between two calls of
// routerBeginBatch.
inline constexpr uint32_t kMostWildcardSteps = 32'768;

// Nodes that are taken down in one call of routerSweep, about.
inline constexpr uint32_t kSweepNodes = 8192;

struct Member {
    // The owner's.
    void* owner;
    bool echo;    // gets what it sends itself
    bool hidden;  // may send on reserved subjects

    // The router's.
    Realm* realm;        // null: it has not joined
    Listener* listener;  // its interest, there while it is in a realm
    uint8_t* claim;      // "_INBOX.SESSION.>", packed; null until it has a session
};

struct Router {
    Hash* realms;            // by service, NUL, network
    Listener* leaving;       // those whose members have left, with interest to be taken down
    uint64_t bytes;          // of all interest
    uint32_t shapes;         // nodes of all shapes
    uint32_t lastSteps;      // of the last match that was computed again
    uint32_t wildcardSteps;  // left in this batch
};

// False when memory runs out. A router that is freed has no members; it stays in place.
[[nodiscard]] bool routerInit(Router* router);
void routerFree(Router* router);

// A member of no realm joins one. Texts are terminated and shorter than 512 together.
[[nodiscard]] pelmoStatus routerJoin(Router* router,
                                     Member* member,
                                     const char* service,
                                     const char* network);

// Nothing comes to the member from here on; routerSweep takes down what it listened to. Nothing
// happens for one of no realm.
void routerLeave(Router* router, Member* member);

// Takes down some of the interest of members that have left. True: there is more.
bool routerSweep(Router* router);

// All inboxes below "_INBOX.SESSION" become the member's; again for the same session changes
// nothing. kStatusAlreadyExists if some of them are another member's: `*holder` is the one whose
// session is exactly this, or null. kStatusInvalidArgument for a member with another session, or a
// text that doesn't pack.
[[nodiscard]] pelmoStatus routerClaim(Member* member, const char* session, Member** holder);

// Again for the same subject changes nothing. kStatusNotPermitted for an inbox that isn't the
// member's, kStatusQueueLimit for one subject, or byte, or shape too many.
[[nodiscard]] pelmoStatus routerListen(Member* member, const uint8_t* subject);
void routerUnlisten(Member* member, const uint8_t* subject);

// The messages that follow, of one sender, may take kMostWildcardSteps again.
void routerBeginBatch(Router* router);

// The members that get a message on that subject, each once; the sender is among them if it
// listens. kStatusQueueLimit for a subject with wildcards whose match takes too many steps.
using Receivers = std::span<Member* const>;
[[nodiscard]] pelmoStatus routerMatch(Realm* realm, const uint8_t* subject, Receivers* out);
