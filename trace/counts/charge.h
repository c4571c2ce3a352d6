// Charges: bus messages on their way to the records of their subject and of its sender.
//
// Only well-formed subjects have records. So a subject is looked up first, as it stands in the
// packet, and its form is tested only where it has no record yet.
//
// On a bus with many subjects, a subject is two trips to memory, first for its slot and then for
// its record, and one packet has too little other work to pass the time. There a charge waits in a
// short line: the cache is asked for the slot as it enters, for the record when a few are behind
// it, and it is counted when some more are. While subjects are few they lie in the cache, and a
// charge is counted at once.
//
//     newest   |    slot    |    ...    |   record   |    ...    |   counted   |   oldest
//
// Nobody but the snapshot reads what subjects count, and it settles the line first. Charges are
// counted in the order in which they came.
//
// Ownership: a waiting charge holds a copy of its subject.
//
// Failure: a charge that memory fails isn't counted, which the log tells.
//
// Threads: under `statsLock`.

#pragma once

#include <cstdint>
#include <span>

#include "trace/counts/statistics.h"

// Charges wait from then on that subjects fill so many slabs.
inline constexpr uint32_t kCachedSlabs = 8;

enum class ChargeResult {
    kDone,      // counted, on its way, or nothing to count: the subject has no elements
    kInvalid,   // the subject isn't well formed
    kNoMemory,  // the message was to be counted at once
};

// `subject` is the packed subject with the length that it gives itself, or fewer than two bytes;
// it is borrowed for the call. `sender` is a hostKey.
[[nodiscard]] ChargeResult chargeMessage(NetEntry& net,
                                         uint64_t sender,
                                         std::span<const uint8_t> subject,
                                         uint32_t messageBytes);

// Counts all that wait.
void chargesSettle();
