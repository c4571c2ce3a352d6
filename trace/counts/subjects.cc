#include "trace/counts/subjects.h"

#include <cstdlib>

#include "lib/base/log_pace.h"
#include "lib/containers/probe_index.h"

namespace {

constexpr uint32_t kFirstSenders = 2;
constexpr uint32_t kMostSenders = 1u << 28;
constexpr uint32_t kMostWithoutIndex = 16;
static_assert(sizeof(SubjectSenders) % alignof(HostSubjEntry) == 0);

HostSubjEntry* senderAt(const SubjectSenders& senders, uint32_t place) {
    return const_cast<HostSubjEntry*>(reinterpret_cast<const HostSubjEntry*>(&senders + 1) + place);
}

HostSubjEntry* findSender(const SubjectSenders& senders, uint64_t key) {
    if (senders.slots == nullptr) {
        for (uint32_t place = 0; place < senders.count; ++place) {
            HostSubjEntry* sender = senderAt(senders, place);
            if (sender->key == key) return sender;
        }
        return nullptr;
    }
    for (uint32_t at = probeHashKey(key);; ++at) {
        const uint32_t slot = senders.slots[at & senders.slotMask];
        if (slot == 0) return nullptr;
        HostSubjEntry* sender = senderAt(senders, slot - 1);
        if (sender->key == key) return sender;
    }
}

void enterIndex(SubjectSenders& senders, uint32_t place) {
    uint32_t at = probeHashKey(senderAt(senders, place)->key);
    while (senders.slots[at & senders.slotMask] != 0) {
        ++at;
    }
    senders.slots[at & senders.slotMask] = place + 1;
}

// The index has room for as many senders as the array, and is rebuilt when the array grows.
bool makeIndex(SubjectSenders& senders) {
    if (senders.capacity <= kMostWithoutIndex) return true;
    const uint32_t slotCount = senders.capacity * 2;
    if (senders.slots != nullptr && senders.slotMask + 1 == slotCount) return true;
    auto* slots = static_cast<uint32_t*>(std::calloc(slotCount, sizeof(uint32_t)));
    if (slots == nullptr) return false;
    std::free(senders.slots);
    senders.slots = slots;
    senders.slotMask = slotCount - 1;
    for (uint32_t place = 0; place < senders.count; ++place) {
        enterIndex(senders, place);
    }
    return true;
}

const char* const kNoFirst = "Out of memory creating subject host dictionary";
const char* const kNoRoom = "Out of memory allocating HostSubj entry";
const char* const kNoIndex = "Out of memory storing host subject entry";

// Makes room for one more sender. Null on success, else what memory ran out for.
const char* reserveSender(SubjectEntry& subject) {
    SubjectSenders* senders = subject.senders;
    if (senders == nullptr || senders->count == senders->capacity) {
        const uint32_t capacity = senders == nullptr ? kFirstSenders : senders->capacity * 2;
        if (capacity > kMostSenders) return kNoRoom;
        void* grown =
            std::realloc(senders, sizeof(SubjectSenders) + capacity * sizeof(HostSubjEntry));
        if (grown == nullptr) return senders == nullptr ? kNoFirst : kNoRoom;
        subject.senders = static_cast<SubjectSenders*>(grown);
        if (senders == nullptr) *subject.senders = {};
        subject.senders->capacity = capacity;
    }
    return makeIndex(*subject.senders) ? nullptr : kNoIndex;
}

void freeSenders(SubjectEntry& subject) {
    if (subject.senders == nullptr) return;
    std::free(subject.senders->slots);
    std::free(subject.senders);
}

}  // namespace

SubjectEntry* subjectCreate(SubjectMap& subjects, const uint8_t* subject, uint32_t hash) {
    if (!subjectMapReserve(subjects)) {
        logPaced("Out of memory storing subject entry");
        return nullptr;
    }
    uint8_t* record = subjectMapAdd(subjects, subject, hash);
    if (record == nullptr) logPaced("Out of memory allocating subject entry");
    return reinterpret_cast<SubjectEntry*>(record);
}

HostSubjEntry* subjectSender(SubjectEntry& subject, uint64_t key) {
    if (subject.senders != nullptr) {
        HostSubjEntry* found = findSender(*subject.senders, key);
        if (found != nullptr) return found;
    }
    if (const char* fault = reserveSender(subject)) {
        logPaced("%s", fault);
        return nullptr;
    }
    SubjectSenders& senders = *subject.senders;
    HostSubjEntry* sender = senderAt(senders, senders.count);
    *sender = {.key = key, .msgs = 0, .bytes = 0};
    if (senders.slots != nullptr) enterIndex(senders, senders.count);
    ++senders.count;
    return sender;
}

void subjectRemove(SubjectMap& subjects, uint32_t place) {
    freeSenders(subjectAt(subjects, place));
    subjectMapRemove(subjects, place);
}

void subjectsClear(SubjectMap& subjects) {
    for (uint32_t place = 0; place < subjects.count; ++place) {
        freeSenders(subjectAt(subjects, place));
    }
    subjectMapClear(subjects);
}
