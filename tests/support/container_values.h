// Values for tests of the containers: small numbers in place of pointers, and packed subjects.

#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "lib/containers/dpa.h"
#include "lib/containers/subject.h"

inline void* number(uintptr_t value) {
    return reinterpret_cast<void*>(value);
}

using Numbers = std::vector<uintptr_t>;

// In the array's order; none for null.
inline Numbers numbersIn(const Dpa* array) {
    Numbers all;
    for (uint32_t i = 0; array != nullptr && i < array->count; ++i) {
        all.push_back(reinterpret_cast<uintptr_t>(array->items[i]));
    }
    return all;
}

using Packed = std::vector<uint8_t>;

// A packed subject in a vector of exact size, so that the address sanitizer sees a read beyond it.
// Empty when the text is no subject.
inline Packed pack(const std::string& text) {
    uint8_t buffer[256];
    const int32_t length = subjectFromText(buffer, sizeof buffer, text.c_str());
    return length < 0 ? Packed() : Packed(buffer, buffer + length);
}

inline std::string unpack(const uint8_t* subject) {
    char text[kSubjectTextBytes];
    return subjectToText(text, sizeof text, subject) == nullptr ? "(none)" : text;
}

// A subject with the most elements possible, all of them empty.
inline Packed subjectOf126Elements() {
    Packed subject(255, 0);
    subject[1] = 255;
    subject[2] = 126;
    for (size_t i = 3; i < subject.size(); i += 2) {
        subject[i] = 2;
    }
    return subject;
}
