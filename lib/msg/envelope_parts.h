// What the sources of the envelope share among themselves; nobody else includes this.

#pragma once

#include <cstdint>
#include <memory>

#include "lib/msg/envelope.h"
#include "lib/msg/field.h"
#include "lib/msg/message.h"
#include "lib/msg/wire.h"

// The records as writers lay them down, up to where their own bytes begin: the packed subject, the
// size prefix of the reply, the nested message. The kind is whole.
constexpr uint8_t kSubHead[] = {4, 's', 'u', 'b', 0, FIELD_SUBJECT, kSizeClass16};
constexpr uint8_t kReturnHead[] = {7, 'r', 'e', 't', 'u', 'r', 'n', 0, FIELD_STRING};
constexpr uint8_t kMtypeRecord[] = {6, 'm', 't', 'y', 'p', 'e', 0, FIELD_STRING, 2, 'D', 0};
constexpr uint8_t kDataHead[] = {5, 'd', 'a', 't', 'a', 0, FIELD_MSG, kSizeClass32};

constexpr const char* kDataName = "data";

struct ReleaseMessage {
    void operator()(pelmoMsg* msg) const { msgRelease(msg); }
};
using HeldMessage = std::unique_ptr<pelmoMsg, ReleaseMessage>;

// What the envelope's fields tell, as the message keeps it.
struct EnvelopeView {
    uint8_t flags = 0;
    uint32_t sendSubjectOffset = 0;
    uint32_t replySubjectOffset = 0;
    uint32_t mtypeOffset = 0;
    uint32_t sourcePortOffset = 0;
};

// Looks at the first fields of a parsed message. kStatusCorruptMessage for a malformed subject.
[[nodiscard]] pelmoStatus envelopeScan(const pelmoMsg* msg,
                                       uint32_t fieldCount,
                                       EnvelopeView& view);

// Opens a message, of which `view` is the envelope, and brings its lengths up to date.
void envelopeShow(pelmoMsg* msg, uint32_t dataOffset, const EnvelopeView& view);

// Is the field one of those that stay when an envelope is stripped?
[[nodiscard]] bool envelopeKeeps(const pelmoMsg* msg, const FieldIndexEntry& entry);
