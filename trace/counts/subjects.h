// The counters of a subject under a net, and of its senders.
//
// Every message touches its subject's record, which is therefore small: two counters with the
// subject right after them (lib/containers/subject_map.h), for most subjects one cache line.
// Senders are counted only when a setting asks for it (TraceSettings::countSenders). A subject
// often has two to four senders, and forged packets can give it any number. They are in one growing
// array, which is searched linearly while it is short and by an index when it is long.
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

// Counters of the interval. A sender without traffic has zeros, and stays.
struct HostSubjEntry {
    uint64_t key;  // hostKey
    uint64_t msgs, bytes;
};

// The head of the array: the senders follow it, in the order in which they were first seen.
struct SubjectSenders {
    uint32_t count;
    uint32_t capacity;
    uint32_t slotMask;
    uint32_t* slots;  // the index: place + 1, or 0 for a free slot. Null while senders are few
};

// Counters of the interval; the subject is live where it has messages.
struct SubjectEntry {
    uint64_t msgs, bytes;
    SubjectSenders* senders;  // null while none is counted
};

// Creates a subject. `subject` isn't in the map yet, is well formed, and has at least one element;
// it is copied.
[[nodiscard]] SubjectEntry* subjectCreate(SubjectMap& subjects,
                                          const uint8_t* subject,
                                          uint32_t hash);

// Finds or creates the sender by its hostKey. The pointer is valid until the next sender of the
// subject is created.
[[nodiscard]] HostSubjEntry* subjectSender(SubjectEntry& subject, uint64_t key);

// Removes the subject at the place and frees it with its senders. The subject at the last place
// moves to the free place.
void subjectRemove(SubjectMap& subjects, uint32_t place);

// Frees all subjects of the map.
void subjectsClear(SubjectMap& subjects);

// The subject at a place, 0 to count - 1.
[[nodiscard]] inline SubjectEntry& subjectAt(const SubjectMap& subjects, uint32_t place) {
    return *reinterpret_cast<SubjectEntry*>(subjectMapAt(subjects, place));
}

[[nodiscard]] inline const uint8_t* packedSubject(const SubjectEntry& subject) {
    return reinterpret_cast<const uint8_t*>(&subject + 1);
}

[[nodiscard]] inline std::span<HostSubjEntry> sendersOf(const SubjectEntry& subject) {
    if (subject.senders == nullptr) return {};
    return {reinterpret_cast<HostSubjEntry*>(subject.senders + 1), subject.senders->count};
}
