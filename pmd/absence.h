// Absent sessions: a client whose connection has ended without a close notice gets kAbsenceSeconds
// to come back before the others are informed that it has gone. Meanwhile its session and its
// client id stay reserved; a client that opens that session from the same process and address
// resumes it.
//
// Ownership: the records are the list's own; each holds a peer of the exchange.
//
// Failure: without memory for a record a session isn't kept. Beyond kMostAbsent the longest absent
// one is reported early.
//
// Threads: no lock; the owner serialises all calls.
//
// Units: seconds by the steady clock.

#pragma once

#include <cstdint>

#include "pmd/exchange.h"

inline constexpr double kAbsenceSeconds = 10.0;
inline constexpr uint32_t kMostAbsent = 4096;

struct Absent;

struct Absences {
    Exchange* exchange;
    Absent *first, *last;  // by the time of their report
    uint32_t count;
};

// "client TEXT has gone" to the others of the peer's service and network.
void absenceTell(Exchange* exchange, const Peer* peer, const char* text);

// The peer leaves the exchange. False, and it has not left, if it has no session to keep.
// `text` is the client's, for the report.
[[nodiscard]] bool absenceKeep(Absences* absences, Peer* peer, const char* text, double now);

// Tells of those whose time is over.
void absenceSettle(Absences* absences, double now);

// The exchange has made it leave, since its session goes on elsewhere.
void absenceEnd(Absences* absences, const Member* member);

// All leave without a report.
void absenceFree(Absences* absences);
