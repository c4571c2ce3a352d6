// The clients of a server: which of them has to go where there are too many. It decides, and knows
// neither socket nor lock.
//
// A client is silent while it asks for nothing, and while it takes nothing of its answer for
// kCrowdTakeSeconds. Where a newcomer finds all places taken, or those of its address, the client
// goes that was silent longest. Where none is silent the newcomer stays as an extra: it has no
// place, and may ask only for what must always be answered (RouteKind::kMetrics and kHealth). There
// are at most kCrowdExtras of these; of more the oldest goes, so that a request which comes in one
// piece is answered whatever the others do.
//
// Ownership: members are the caller's; the crowd links them.
//
// Threads: no lock; the owner serialises. Times are of one steady clock, in seconds.

#pragma once

#include <array>
#include <cstdint>

inline constexpr double kCrowdTakeSeconds = 2;
inline constexpr uint32_t kCrowdExtras = 32;

enum class CrowdPhase : uint8_t {
    kRequest,  // its head is awaited
    kAnswer,
    kEvents,
    kIdle,  // between two requests
};

// Of IPv6; one of IPv4 is mapped into it.
using CrowdAddress = std::array<uint8_t, 16>;

struct CrowdMember {
    CrowdMember *previous, *next;
    CrowdAddress address;
    CrowdPhase phase;
    double sinceSeconds;  // of the phase
    double takenSeconds;  // of the last byte that it took of an answer or an event
    uint64_t takenBytes;  // since it came
    bool hasToTake;       // it has an answer or an event that it hasn't taken whole
    bool isExtra;
    bool isCut;  // it is going, and counts no more
};

struct Crowd {
    uint32_t most;               // constant; half of them may follow events
    CrowdMember* members;        // the newest first
    uint32_t count, eventCount;  // with a place
};

// An address has at most three quarters of the places, and of those for events.
[[nodiscard]] uint32_t crowdMostOfAddress(uint32_t most);

// Enters a member, whose address is set. Returns the one that has to go, with isCut set, or null.
CrowdMember* crowdEnter(Crowd& crowd, CrowdMember& newcomer, double nowSeconds);

void crowdLeave(Crowd& crowd, CrowdMember& member);

// It is going: its place is free. False if it was going before.
bool crowdCut(Crowd& crowd, CrowdMember& member);

void crowdSetPhase(Crowd& crowd, CrowdMember& member, CrowdPhase phase, double nowSeconds);

// The member has taken so many bytes since it came.
void crowdTook(CrowdMember& member, uint64_t takenBytes, double nowSeconds);

// May it follow events?
[[nodiscard]] bool crowdHasRoomForEvents(const Crowd& crowd, const CrowdMember& member);
