// What a message from a client is to the daemon: its kind, and the subject that it goes by. It is
// read straight off the wire image, without an object and without a copy.
//
// Every field is walked to the end, so that no message is delivered whose fields are malformed;
// values other than the two that matter aren't looked at.
//
// Threads: pure functions.

#pragma once

#include <cstdint>
#include <span>

enum class IncomingKind : uint8_t {
    kCorrupt,  // fields or a subject that don't walk
    kData,
    kStart,
    kListen,
    kUnlisten,
    kControl,
    kOther,  // a kind that clients don't send, or data without a subject
};

struct Incoming {
    IncomingKind kind;
    const uint8_t* subject;  // packed and sound, within the image; null for none
};

// `image` is a whole message, its head included.
[[nodiscard]] Incoming incomingRead(std::span<const uint8_t> image);
