// Any bytes as a row of packed subjects: those that pass the structure test go through the codec, a
// subject list and a subject map, and come back from all three as they went in.

#include <cstdlib>
#include <cstring>
#include <vector>

#include "lib/containers/subject.h"
#include "lib/containers/subject_map.h"
#include "lib/containers/sublist.h"

namespace {

void require(bool holds) {
    if (!holds) std::abort();
}

// What is under test, and what it has to hold.
struct Bench {
    LinePool pool{};
    SubjectMap map{};
    SubjectList* list = sublistCreate();
};

bool sameSubject(const uint8_t* left, const uint8_t* right) {
    const size_t length = subjectLength(left);
    return length == subjectLength(right) && std::memcmp(left, right, length) == 0;
}

// Text that parses again gives a subject of the same text; it is another subject only where bytes
// from outside held what text can't.
void checkText(const uint8_t* subject) {
    char text[kSubjectTextBytes];
    require(subjectToText(text, sizeof text, subject) == text);
    require(std::strlen(text) < subjectLength(subject));

    uint8_t parsed[kSubjectMaxBytes];
    if (subjectFromText(parsed, sizeof parsed, text) < 0) return;
    char again[kSubjectTextBytes];
    require(subjectIsValid(parsed));
    require(std::strcmp(subjectToText(again, sizeof again, parsed), text) == 0);
    require(subjectTextSize(text) == static_cast<int32_t>(subjectLength(parsed)) - 4);
    if (subjectElementCount(parsed) == subjectElementCount(subject)) {
        require(subjectCompare(parsed, subject) == 0);
        require(subjectHasWildcard(subject) <= subjectHasWildcard(parsed));
    }
}

void checkCopy(const uint8_t* subject) {
    const uint32_t count = subjectElementCount(subject);
    uint8_t copy[kSubjectMaxBytes + 1];
    require(subjectInit(copy, sizeof copy) == 3);
    const int32_t result = subjectCopyElements(copy, sizeof copy, subject, 1, count);
    require(result == (count == 0 ? 0 : static_cast<int32_t>(subjectLength(subject))));
    require(sameSubject(copy, subject));
    require(subjectElement(subject, count + 1) == nullptr);
}

void enterMap(Bench& bench, const uint8_t* subject) {
    const size_t length = subjectLength(subject);
    const uint32_t hash = subjectHash(subject);
    const uint8_t* held = subjectMapFind(bench.map, subject, length, hash);
    if (held != nullptr) return require(sameSubject(held + bench.map.headBytes, subject));
    require(subjectMapReserve(bench.map));
    const uint8_t* record = subjectMapAdd(bench.map, subject, hash);
    require(record != nullptr && sameSubject(record + bench.map.headBytes, subject));
    require(subjectMapFind(bench.map, subject, length, hash) == record);
}

void enterList(Bench& bench, const uint8_t* subject) {
    if (subjectElementCount(subject) == 0) return;
    SubjectNode* node = nullptr;
    require(sublistAdd(bench.list, subject, &bench, &node));
    uint8_t rebuilt[kSubjectMaxBytes + 1];
    require(sublistNodeSubject(node, rebuilt, sizeof rebuilt));
    require(sameSubject(rebuilt, subject));
    require(dpaIndexOf(sublistFind(bench.list, subject), &bench) >= 0);
    const Dpa* matches = sublistMatch(bench.list, subject);
    if (!subjectHasWildcard(subject)) require(matches != nullptr);
}

// A subject from outside lies in a block of its own length, so that a read too far is seen.
void trySubject(Bench& bench, const uint8_t* bytes, size_t length) {
    std::vector<uint8_t> subject(bytes, bytes + length);
    if (!subjectIsValid(subject.data())) return;
    checkText(subject.data());
    checkCopy(subject.data());
    enterMap(bench, subject.data());
    enterList(bench, subject.data());
}

// Everything goes; what is left is empty.
void takeDown(Bench& bench) {
    while (bench.map.count != 0) {
        const uint32_t last = bench.map.count - 1;
        const uint8_t* subject = subjectMapAt(bench.map, last) + bench.map.headBytes;
        if (subjectElementCount(subject) != 0) {
            require(sublistRemove(bench.list, subject, nullptr, nullptr) > 0);
        }
        subjectMapRemove(bench.map, last);
    }
    require(bench.list->valueCount == 0);
    require(bench.list->root->table->count == 0);
    require(sublistAll(bench.list) == nullptr);
    subjectMapClear(bench.map);
    linePoolClear(bench.pool);
    sublistDestroy(bench.list);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Bench bench;
    bench.map.pool = &bench.pool;
    while (size >= kSubjectHeadBytes) {
        const size_t declared = subjectLength(data);
        const size_t length = declared < kSubjectHeadBytes || declared > size ? 2 : declared;
        if (length == declared) trySubject(bench, data, length);
        data += length;
        size -= length;
    }
    takeDown(bench);
    return 0;
}
