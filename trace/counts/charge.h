// Charges: bus messages on their way to the records of their subject.
//
// Where a net has many subjects, a subject is two trips to memory, first for its slot and then for
// its record, and one packet has too little other work to pass the time. There a charge waits in a
// short line: the cache is asked for the slot as it enters, for the record when a few are behind
// it, and it is counted when some more are. Where a net has few subjects they lie in the cache, and
// a charge is counted at once.
//
//     newest   |    slot    |    ...    |   record   |    ...    |   counted   |   oldest
//
// Nobody but the snapshot reads what subjects count, and it settles the line first. Charges are
// counted in the order in which they came.
//
// Ownership: a waiting charge holds a copy of its subject, and borrows its net: nets stay for as
// long as the statistics that the line is part of.
//
// Failure: a charge that memory fails isn't counted, which the log tells.
//
// Threads: under `statsLock`.

#pragma once

#include <cstddef>
#include <cstdint>

#include "lib/containers/subject.h"

struct NetEntry;

struct Charge {
    NetEntry* net;
    uint32_t srcIp;  // network order, as the port
    uint16_t srcPort;
    uint32_t messageBytes;
    uint32_t subjectHash;
    uint8_t subject[kSubjectMaxBytes];  // packed; only its own length is set
};

inline constexpr uint32_t kChargesInLine = 8;  // a power of two

struct ChargeLine {
    uint32_t entered;  // ever; the place of the next one, wrapped around
    uint32_t waiting;  // the last so many that entered
    Charge places[kChargesInLine];
};

// Nets with more subjects than this have their charges wait.
inline constexpr uint32_t kCachedSubjects = 4096;

// `subject` is packed, well formed, with at least one element, and borrowed for the call. False
// where the message was to be counted at once and memory failed it.
[[nodiscard]] bool chargeMessage(
    NetEntry& net, uint32_t srcIp, uint16_t srcPort, const uint8_t* subject, uint32_t messageBytes);

// Counts all that wait.
void chargesSettle();
