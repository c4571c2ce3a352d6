// What is counted of a subject under a net, and of its senders.
//
// Every message touches its subject's record, which therefore holds little: two counters, and the
// subject right behind them (lib/containers/subject_map.h), one cache line in all for most. Senders
// are counted only where somebody shows them (TraceSettings::countSenders). A subject often has two
// to four of them, and whoever forges packets can give it any number. They stand in one array that
// grows: it is searched from end to end while it is short, and by an index from then on.
//
// Ownership: a subject lives until it is removed, and its senders with it.
//
// Failure: null when memory runs out, after logging what it was for; nothing half-made stays.
//
// Threads: under `statsLock`.

#pragma once

#include <cstdint>
#include <span>

#include "lib/containers/subject_map.h"

// Counters of the interval. A sender that was silent in it has none, and stays.
struct SubjectSender {
    uint64_t key;  // hostKey
    uint64_t msgs, bytes;
};

// Ahead of the array: the senders stand right behind this, in the order in which they were first
// seen.
struct SubjectSenders {
    uint32_t count;
    uint32_t capacity;
    uint32_t slotMask;
    uint32_t* slots;  // of the index: places + 1, 0 where free. Null while senders are few
};

// Counters of the interval; the subject is live where it has messages.
struct SubjectEntry {
    uint64_t msgs, bytes;
    SubjectSenders* senders;  // null while none is counted
};

// `subject` isn't in the map yet, is well formed, and has at least one element; it is copied.
[[nodiscard]] SubjectEntry* subjectCreate(SubjectMap& subjects,
                                          const uint8_t* subject,
                                          uint32_t hash);

// Finds or creates the sender, a hostKey. Good until the next sender of the subject is created.
[[nodiscard]] SubjectSender* subjectSender(SubjectEntry& subject, uint64_t key);

// Takes the subject at the place out and frees it with all that is counted under it. The subject at
// the last place moves to the place that falls free.
void subjectRemove(SubjectMap& subjects, uint32_t place);

// Frees all of them.
void subjectsClear(SubjectMap& subjects);

// The subject at a place, 0 to count - 1.
[[nodiscard]] inline SubjectEntry& subjectAt(const SubjectMap& subjects, uint32_t place) {
    return *reinterpret_cast<SubjectEntry*>(subjectMapAt(subjects, place));
}

[[nodiscard]] inline const uint8_t* packedSubject(const SubjectEntry& subject) {
    return reinterpret_cast<const uint8_t*>(&subject + 1);
}

[[nodiscard]] inline std::span<SubjectSender> sendersOf(const SubjectEntry& subject) {
    if (subject.senders == nullptr) return {};
    return {reinterpret_cast<SubjectSender*>(subject.senders + 1), subject.senders->count};
}
