// Any bytes as a row of packed subjects: those that pass the structure test go through the codec
// and a subject list, and come back from both as they went in.

#include <cstring>
#include <vector>

#include "lib/containers/subject.h"
#include "lib/containers/sublist.h"
#include "tests/fuzz/fuzz.h"

namespace {

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

void enterList(SubjectList* list, const uint8_t* subject) {
    if (subjectElementCount(subject) == 0) return;
    SubjectNode* node = nullptr;
    require(sublistAdd(list, subject, list, &node));
    uint8_t rebuilt[kSubjectMaxBytes + 1];
    require(sublistNodeSubject(node, rebuilt, sizeof rebuilt));
    require(sameSubject(rebuilt, subject));
    require(dpaIndexOf(sublistFind(list, subject), list) >= 0);
    const Dpa* matches = sublistMatch(list, subject);
    if (!subjectHasWildcard(subject)) require(matches != nullptr);
}

// A subject from outside lies in a block of its own length, so that a read too far is seen.
void trySubject(SubjectList* list, const std::vector<uint8_t>& subject) {
    if (!subjectIsValid(subject.data())) return;
    checkText(subject.data());
    checkCopy(subject.data());
    enterList(list, subject.data());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<std::vector<uint8_t>> subjects;
    while (size >= kSubjectHeadBytes) {
        const size_t declared = subjectLength(data);
        const size_t length = declared < kSubjectHeadBytes || declared > size ? 2 : declared;
        if (length == declared) subjects.emplace_back(data, data + length);
        data += length;
        size -= length;
    }
    SubjectList* list = sublistCreate();
    for (const auto& subject : subjects) {
        trySubject(list, subject);
    }
    for (const auto& subject : subjects) {
        if (!subjectIsValid(subject.data()) || subjectElementCount(subject.data()) == 0) continue;
        sublistRemove(list, subject.data(), nullptr, nullptr);
    }
    require(list->valueCount == 0 && list->root->only == nullptr && list->root->table == nullptr &&
            sublistAll(list) == nullptr);
    sublistDestroy(list);
    return 0;
}
