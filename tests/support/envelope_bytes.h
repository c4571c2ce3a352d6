// Envelopes for tests: their bytes, built by hand, and what a message answers about its envelope.

#pragma once

#include <gtest/gtest.h>

#include "lib/base/bytes.h"
#include "lib/msg/buffer.h"
#include "lib/msg/envelope_internal.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/message_typed.h"
#include "lib/msg/text.h"
#include "tests/support/message_values.h"

inline const Bytes kApp = {0, 0, 0, 14, 0x99, 0x55, 0xee, 0xaa, 2, 'n', 0, 11, 1, 7};
inline const Bytes kSubAB = {4, 's', 'u', 'b', 0, 2, 121, 0, 9, 2, 3, 'A', 0, 3, 'B', 0};
inline const Bytes kReturnR = {7, 'r', 'e', 't', 'u', 'r', 'n', 0, 8, 2, 'R', 0};
inline const Bytes kMtypeD = {6, 'm', 't', 'y', 'p', 'e', 0, 8, 2, 'D', 0};
inline const Bytes kCid = {4, 'c', 'i', 'd', 0, 12, 2, 0x1d, 0x4c};
inline const Bytes kData = {5, 'd', 'a', 't', 'a', 0, 1, 122};

inline Bytes outer(const Bytes& fields) {
    return imageOf(std::vector<Bytes>{fields});
}

inline Message appMessage() {
    Message msg = newMessage();
    EXPECT_EQ(pelmoMsg_AddI8(msg.get(), "n", 7, 0), kStatusSuccess);
    return msg;
}

// The whole image as a transport sends it.
inline Bytes wireOf(pelmoMsg* msg) {
    const Buffer* buffer = msgFlushBuffer(msg);
    const uint8_t* image = buffer->data + msg->base;
    EXPECT_EQ(loadBe32At(image), msg->length);
    return Bytes(image, image + msg->length);
}

inline std::string subjectOf(pelmoMsg* msg, pelmoStatus (*get)(const pelmoMsg*, const char**)) {
    const char* text = "unset";
    const pelmoStatus status = get(msg, &text);
    EXPECT_EQ(status == kStatusNotFound, text == nullptr);
    return status == kStatusSuccess ? text : "status " + std::to_string(status);
}

inline std::string sendSubjectOf(pelmoMsg* msg) {
    return subjectOf(msg, pelmoMsg_GetSendSubject);
}

inline std::string replySubjectOf(pelmoMsg* msg) {
    return subjectOf(msg, pelmoMsg_GetReplySubject);
}

inline std::string textOf(pelmoMsg* msg) {
    const char* text = nullptr;
    EXPECT_EQ(pelmoMsg_ConvertToString(msg, &text), kStatusSuccess);
    return text != nullptr ? text : "";
}

inline std::string outerTextOf(pelmoMsg* msg) {
    pelmoMsg* copy = nullptr;
    EXPECT_EQ(msgCopyWithEnvelope(msg, &copy), kStatusSuccess);
    const std::string text = textOf(copy);
    EXPECT_EQ(pelmoMsg_Destroy(copy), kStatusSuccess);
    return text;
}

inline const std::string kNotFound = "status 35";
