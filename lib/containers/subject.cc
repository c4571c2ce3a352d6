#include "lib/containers/subject.h"

#include <cstring>

namespace {

constexpr uint8_t kSizeClass16 = 0x79;
constexpr size_t kElementMaxCharacters = 127;

// What an element takes beyond its characters.
constexpr size_t kElementExtraBytes = 2;

void storeHead(uint8_t* subject, size_t totalLength, uint32_t elementCount) {
    subject[0] = static_cast<uint8_t>(totalLength >> 8);
    subject[1] = static_cast<uint8_t>(totalLength);
    subject[2] = static_cast<uint8_t>(elementCount);
}

void storeElement(uint8_t* at, const void* characters, size_t length) {
    at[0] = static_cast<uint8_t>(length + kElementExtraBytes);
    if (length != 0) std::memcpy(at + 1, characters, length);
    at[1 + length] = 0;
}

}  // namespace

bool subjectIsValid(const uint8_t* wire) {
    const size_t totalLength = subjectLength(wire);
    if (totalLength < kSubjectHeadBytes || totalLength > kSubjectMaxBytes) return false;

    size_t position = kSubjectHeadBytes;
    uint32_t elements = 0;
    while (position < totalLength) {
        const size_t size = wire[position];
        if (size < kElementExtraBytes || size > totalLength - position) return false;
        position += size;
        if (wire[position - 1] != 0) return false;
        ++elements;
    }
    return elements == subjectElementCount(wire);
}

bool subjectFieldIsValid(const uint8_t* field) {
    return field[0] == kSizeClass16 && subjectIsValid(field + 1);
}

int32_t subjectFromText(uint8_t* buffer, int32_t size, const char* text) {
    if (size < 0 || text == nullptr) return -1;
    const size_t limit =
        static_cast<size_t>(size) < kSubjectMaxBytes ? static_cast<size_t>(size) : kSubjectMaxBytes;
    size_t position = kSubjectHeadBytes;
    uint32_t elements = 0;
    bool restMatched = false;
    for (;;) {
        const size_t length = std::strcspn(text, ".");
        if (length == 0 || length > kElementMaxCharacters || restMatched) return -1;
        if (position + length + kElementExtraBytes > limit) return -1;

        storeElement(buffer + position, text, length);
        restMatched = subjectElementIs(buffer + position, '>');
        position += length + kElementExtraBytes;
        ++elements;
        if (text[length] == 0) break;
        text += length + 1;
    }
    storeHead(buffer, position, elements);
    return static_cast<int32_t>(position);
}

// Elements are a few characters: a loop is done sooner than two calls of the C library.
char* subjectWriteText(char* at, const uint8_t* subject) {
    const uint8_t* element = subjectFirst(subject);
    for (uint32_t left = subjectElementCount(subject); left > 0; --left) {
        for (const uint8_t* from = element + 1; *from != 0; ++from) {
            *at++ = static_cast<char>(*from);
        }
        if (left > 1) *at++ = '.';
        element = subjectNext(element);
    }
    return at;
}

char* subjectToText(char* buffer, size_t size, const uint8_t* subject) {
    if (subjectLength(subject) > size) return nullptr;
    *subjectWriteText(buffer, subject) = 0;
    return buffer;
}

int32_t subjectInit(uint8_t* buffer, int32_t size) {
    if (size < static_cast<int32_t>(kSubjectHeadBytes)) return -1;
    storeHead(buffer, kSubjectHeadBytes, 0);
    return static_cast<int32_t>(kSubjectHeadBytes);
}

const char* subjectElement(const uint8_t* subject, uint32_t index) {
    if (index == 0 || index > subjectElementCount(subject)) return nullptr;
    const uint8_t* element = subjectFirst(subject);
    while (--index > 0) {
        element = subjectNext(element);
    }
    return reinterpret_cast<const char*>(element + 1);
}

int32_t subjectAppend(uint8_t* subject, int32_t size, const char* text) {
    return subjectAppendBytes(subject, size, text, std::strlen(text));
}

int32_t subjectAppendBytes(uint8_t* subject, int32_t size, const void* characters, size_t length) {
    if (length > kSubjectMaxBytes) return -1;
    const size_t oldLength = subjectLength(subject);
    const size_t newLength = oldLength + length + kElementExtraBytes;
    if (newLength > kSubjectMaxBytes || static_cast<int64_t>(newLength) >= size) return -1;

    storeElement(subject + oldLength, characters, length);
    storeHead(subject, newLength, subjectElementCount(subject) + 1);
    return static_cast<int32_t>(newLength);
}

int32_t subjectCopyElements(
    uint8_t* target, int32_t size, const uint8_t* source, uint32_t first, uint32_t last) {
    int32_t result = 0;
    for (uint32_t index = first; index <= last; ++index) {
        const char* text = subjectElement(source, index);
        if (text == nullptr) break;
        const size_t elementSize = static_cast<uint8_t>(text[-1]);
        result = subjectAppendBytes(target, size, text, elementSize - kElementExtraBytes);
        if (result < 0) break;
    }
    return result;
}

bool subjectHasWildcard(const uint8_t* subject) {
    const uint8_t* element = subjectFirst(subject);
    for (uint32_t left = subjectElementCount(subject); left > 0; --left) {
        if (subjectElementIs(element, '*') || subjectElementIs(element, '>')) return true;
        element = subjectNext(element);
    }
    return false;
}

int32_t subjectTextSize(const char* text) {
    if (text == nullptr) return -1;
    size_t size = 1;
    for (; *text != 0; ++text) {
        size += *text == '.' ? 2 : 1;
        if (size > INT32_MAX) return INT32_MAX;
    }
    return static_cast<int32_t>(size);
}

int subjectCompare(const uint8_t* left, const uint8_t* right) {
    const uint32_t leftCount = subjectElementCount(left);
    const uint32_t rightCount = subjectElementCount(right);
    const uint8_t* leftElement = subjectFirst(left);
    const uint8_t* rightElement = subjectFirst(right);
    for (uint32_t both = leftCount < rightCount ? leftCount : rightCount; both > 0; --both) {
        const int order = std::strcmp(reinterpret_cast<const char*>(leftElement + 1),
                                      reinterpret_cast<const char*>(rightElement + 1));
        if (order != 0) return order;
        leftElement = subjectNext(leftElement);
        rightElement = subjectNext(rightElement);
    }
    return static_cast<int>(leftCount) - static_cast<int>(rightCount);
}
