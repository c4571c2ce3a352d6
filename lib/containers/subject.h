// Packed subjects: the form in which a subject such as A.B.C is sent and stored. Code that doesn't
// look inside treats one as a block whose first two bytes are its size.
//
//     0              2       3
//     | totalLength  | count | element | element | ...
//
//     0      1                    size - 1
//     | size | characters ...     | NUL |
//
// totalLength is big-endian and counts all bytes, its own included: 3 to 255. An element's size
// counts all of the element. A.B is 00 09 02 03 41 00 03 42 00, the empty subject 00 03 00.
//
// Text gives elements of 1 to 127 characters. Bytes from outside may have others: none at all, or a
// NUL among them, which then ends the element's text.
//
// Ownership: all calls work in place on the caller's buffers and allocate no memory.
//
// Failure: -1, or null; a buffer may then hold part of a subject after subjectFromText, and is
// unchanged after the other calls.
//
// Bytes from outside go through subjectIsValid first; all other calls need a well-formed subject.

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "lib/base/bytes.h"
#include "lib/containers/probe_index.h"

constexpr size_t kSubjectHeadBytes = 3;
constexpr size_t kSubjectMaxBytes = 255;

// Room for the text of any subject.
constexpr size_t kSubjectTextBytes = 256;

[[nodiscard]] inline size_t subjectLength(const uint8_t* subject) {
    return loadBe16At(subject);
}

[[nodiscard]] inline uint32_t subjectElementCount(const uint8_t* subject) {
    return subject[2];
}

// The first element, and from one to the next: for walks bounded by subjectElementCount.
[[nodiscard]] inline const uint8_t* subjectFirst(const uint8_t* subject) {
    return subject + kSubjectHeadBytes;
}

[[nodiscard]] inline const uint8_t* subjectNext(const uint8_t* element) {
    return element + element[0];
}

// "*" for one element, ">" for the rest.
[[nodiscard]] inline bool subjectElementIs(const uint8_t* element, char wildcard) {
    return element[0] == 3 && element[1] == static_cast<uint8_t>(wildcard);
}

// Is the form sound? Reads at most its totalLength bytes, those of the length included; the caller
// has checked that these exist.
[[nodiscard]] bool subjectIsValid(const uint8_t* wire);

// The same for a message field: `field` is the byte before the form, the size class, which has to
// be that of a 16-bit length.
[[nodiscard]] bool subjectFieldIsValid(const uint8_t* field);

// Length of the packed subject, or -1: an element is empty or too long, something follows a ">", or
// the buffer or the form is too small.
[[nodiscard]] int32_t subjectFromText(uint8_t* buffer, int32_t size, const char* text);

// The subject as dotted text without a NUL, shorter than its totalLength; an element ends at its
// first NUL. Returns the end of the text.
[[nodiscard]] char* subjectWriteText(char* at, const uint8_t* subject);

// The same with its NUL. The buffer, or null where `size` is below the subject's totalLength.
char* subjectToText(char* buffer, size_t size, const uint8_t* subject);

// Writes the empty subject: 3, or -1.
int32_t subjectInit(uint8_t* buffer, int32_t size);

// Text of an element, terminated; the index counts from 1. Null beyond the last.
[[nodiscard]] const char* subjectElement(const uint8_t* subject, uint32_t index);

// Adds an element at the end. The new totalLength, which stays below `size`, or -1.
[[nodiscard]] int32_t subjectAppend(uint8_t* subject, int32_t size, const char* text);
[[nodiscard]] int32_t subjectAppendBytes(uint8_t* subject,
                                         int32_t size,
                                         const void* characters,
                                         size_t length);

// Appends the source's elements `first` to `last`, as many as there are, up to the first failure.
// The last append's result; 0 if there was none.
[[nodiscard]] int32_t subjectCopyElements(
    uint8_t* target, int32_t size, const uint8_t* source, uint32_t first, uint32_t last);

[[nodiscard]] bool subjectHasWildcard(const uint8_t* subject);

// Characters and elements of a text that isn't parsed: 4 less than its packed form would have. -1
// for no text.
[[nodiscard]] int32_t subjectTextSize(const char* text);

// The order of reports: element by element, each by unsigned bytes up to its NUL; the subject that
// ends first comes first. Negative, 0 or positive.
[[nodiscard]] int subjectCompare(const uint8_t* left, const uint8_t* right);

using SubjectBlock [[gnu::vector_size(16)]] = uint64_t;  // SSE2 and NEON: every machine has it

[[nodiscard]] inline SubjectBlock subjectBlockAt(const uint8_t* at) {
    SubjectBlock block;
    std::memcpy(&block, at, sizeof block);
    return block;
}

// Is `subject`, `length` bytes, the one that is held? Nothing beyond `length` is read, and of a
// shorter subject no more than eight bytes, since its own length is among them. Subjects of a usual
// length are compared in four blocks that may overlap, which takes no branch that depends on it.
[[nodiscard]] inline bool subjectIs(const uint8_t* held, const uint8_t* subject, size_t length) {
    constexpr size_t kBlockBytes = sizeof(SubjectBlock);
    const auto wordDiffers = [held, subject](size_t at) {
        return probeLoad64(held + at) != probeLoad64(subject + at);
    };
    const auto difference = [held, subject](size_t at) {
        return subjectBlockAt(held + at) ^ subjectBlockAt(subject + at);
    };
    if (length < 8) return std::memcmp(held, subject, length) == 0;
    if (wordDiffers(0)) return false;
    if (length < kBlockBytes) return !wordDiffers(length - 8);
    if (length > 4 * kBlockBytes) return std::memcmp(held, subject, length) == 0;
    const size_t last = length - kBlockBytes;
    const SubjectBlock differences = difference(0) | difference(std::min(kBlockBytes, last)) |
                                     difference(std::min(2 * kBlockBytes, last)) | difference(last);
    return (differences[0] | differences[1]) == 0;
}

// For tables; differs from process to process.
[[nodiscard]] inline uint32_t subjectHash(const uint8_t* subject) {
    return probeHashBytes(subject, subjectLength(subject));
}
