// Charges: bus messages on their way to the records of their subject and of its sender.
//
// Only well-formed subjects have records. So a subject is looked up first, as it is in the
// packet, and its form is tested only where it has no record yet.
//
// On a bus with many subjects, each subject takes two memory accesses, first to its slot and then
// to its record, and one packet has too little other work to hide them. So a charge waits in
// a short pipeline: its slot is prefetched when it enters, its record when a few others have
// entered after it, and it is counted when some more have. While subjects are few they fit into the
// cache, and a charge is counted at once.
//
//     newest   |    slot    |    ...    |   record   |    ...    |   counted   |   oldest
//
// Only the snapshot reads the counters of subjects, and it first counts all waiting charges.
// Charges are counted in the order of their arrival.
//
// Ownership: a waiting charge holds a copy of its subject.
//
// Failure: a charge for which memory runs out isn't counted, and that is logged.
//
// Threads: under `statsLock`.

#pragma once

#include <cstdint>
#include <span>

#include "trace/counts/statistics.h"

// Charges wait once the subjects fill so many slabs.
inline constexpr uint32_t kCachedSlabs = 8;

enum class ChargeResult {
    kDone,      // counted, waiting, or nothing to count: the subject has no elements
    kInvalid,   // the subject isn't well formed
    kNoMemory,  // only for a message that is counted at once
};

// `subject` is a packed subject whose first word is the span's length, or fewer than two bytes; it
// is borrowed for the call. `sender` is a hostKey.
[[nodiscard]] ChargeResult chargeMessage(NetEntry& net,
                                         uint64_t sender,
                                         std::span<const uint8_t> subject,
                                         uint32_t messageBytes);

// Counts all waiting charges.
void chargesSettle();
