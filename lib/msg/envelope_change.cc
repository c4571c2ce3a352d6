// Changes of the envelope. The envelope's fields without "data" are copied into a small message.
// That message is changed and checked, and finally replaces the old fields before the nested
// message, which isn't touched. A message without an envelope starts with an empty one.

#include <cstring>

#include "lib/containers/subject.h"
#include "lib/msg/envelope_internal.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/message_typed.h"
#include "lib/msg/trace_ops.h"

namespace {

constexpr const char kInboxPrefix[] = "_INBOX.";

// Room for a subject and the kind, so that a new envelope takes one allocation of bytes.
constexpr uint32_t kRoomBytes = 288;

// The offset of the record "data" of an open message. Its name area may or may not have an id.
uint32_t dataRecordOffset(const pelmoMsg* msg) {
    const uint32_t plain = msg->dataOffset - static_cast<uint32_t>(sizeof kDataHead);
    return msgImage(msg)[plain] == kDataHead[0] ? plain : plain - 2;
}

pelmoStatus takeFields(const pelmoMsg* msg, HeldMessage& envelope) {
    const uint32_t end = msg->dataOffset != 0 ? dataRecordOffset(msg) : kMessageHeadBytes;
    if (end > UINT32_MAX - kRoomBytes) return kStatusNoMemory;
    pelmoMsg* made = nullptr;
    const pelmoStatus status = msgCreateRaw(&made, end + kRoomBytes);
    if (status != kStatusSuccess) return status;
    envelope.reset(made);
    std::memcpy(msgImage(made) + kMessageHeadBytes, msgImage(msg) + kMessageHeadBytes,
                end - kMessageHeadBytes);
    made->length = end;
    made->indexValid = 0;
    return kStatusSuccess;
}

// Puts the envelope's fields before "data", or wraps the whole image of a message without envelope.
pelmoStatus putFields(pelmoMsg* msg, const pelmoMsg* envelope, const EnvelopeView& view) {
    const bool fresh = msg->dataOffset == 0;
    const uint32_t oldEnd = fresh ? 0 : dataRecordOffset(msg);
    const uint32_t dataHeadBytes = fresh ? sizeof kDataHead : msg->dataOffset - oldEnd;
    const uint32_t newEnd = envelope->length;
    const uint32_t tailOffset = newEnd + (fresh ? dataHeadBytes : 0);
    if (tailOffset > oldEnd) {
        const pelmoStatus status = msgReserve(msg, tailOffset - oldEnd);
        if (status != kStatusSuccess) return status;
    }

    uint8_t* image = msgImage(msg);
    std::memmove(image + tailOffset, image + oldEnd, msg->length - oldEnd);
    std::memcpy(image, msgImage(envelope), newEnd);
    if (fresh) std::memcpy(image + newEnd, kDataHead, sizeof kDataHead);
    msg->length = msg->length - oldEnd + tailOffset;
    envelopeShow(msg, newEnd + dataHeadBytes, view);
    return kStatusSuccess;
}

// Calls `change` with the envelope's fields as a message, and puts the result in place.
template <typename Change>
pelmoStatus changeEnvelope(pelmoMsg* msg, Change change) {
    pelmoStatus status = envelopeMakeOwn(msg);
    if (status == kStatusSuccess) status = msgMakeWritable(msg);
    if (status != kStatusSuccess) return status;
    HeldMessage envelope;
    status = takeFields(msg, envelope);
    if (status == kStatusSuccess) status = change(envelope.get());
    if (status == kStatusSuccess) status = msgParse(envelope.get());
    EnvelopeView view;
    if (status == kStatusSuccess) {
        status = envelopeScan(envelope.get(), envelope->fieldCount, view);
    }
    return status == kStatusSuccess ? putFields(msg, envelope.get(), view) : status;
}

// `offset` is 0 if the envelope doesn't have the field.
pelmoStatus removeFromEnvelope(pelmoMsg* msg, const char* name, uint32_t offset) {
    if (offset == 0) return kStatusSuccess;
    return changeEnvelope(
        msg, [=](pelmoMsg* envelope) { return pelmoMsg_RemoveFieldEx(envelope, name, 0); });
}

pelmoStatus keepOwnFields(pelmoMsg* msg) {
    const pelmoStatus status = msgParse(msg);
    if (status != kStatusSuccess) return status;
    uint8_t* image = msgImage(msg);
    uint32_t kept = kMessageHeadBytes;
    for (uint32_t i = 0; i < msg->fieldCount; ++i) {
        if (!envelopeKeeps(msg, msg->index[i])) continue;
        const uint32_t begin = fieldRecordOffset(msg->index[i]);
        const uint32_t sizeBytes = fieldEndOffset(msg, i) - begin;
        std::memmove(image + kept, image + begin, sizeBytes);
        kept += sizeBytes;
    }
    msg->length = kept;
    msg->indexValid = 0;
    return kStatusSuccess;
}

}  // namespace

pelmoStatus pelmoMsg_SetSendSubject(pelmoMsg* msg, const char* subject) {
    traceLine(kTraceMsg, "pelmoMsg_SetSendSubject(%p, \"%s\")", tracePointer(msg),
              traceText(subject));
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (subject == nullptr) return removeFromEnvelope(msg, "sub", msg->sendSubjectOffset);

    const bool isInbox = std::strncmp(subject, kInboxPrefix, sizeof kInboxPrefix - 1) == 0;
    uint8_t packed[kSubjectMaxBytes];
    const int32_t limit = isInbox ? int32_t{kSubjectMaxBytes} : kMostSendSubjectBytes;
    if (subjectFromText(packed, limit, subject) < 1) return kStatusInvalidSubject;
    const bool hasMtype = msg->mtypeOffset != 0;
    return changeEnvelope(msg, [&](pelmoMsg* envelope) {
        const pelmoStatus status = pelmoMsg_UpdateSubject(envelope, "sub", packed, 0);
        if (status != kStatusSuccess || hasMtype) return status;
        return pelmoMsg_UpdateString(envelope, "mtype", "D", 0);
    });
}

pelmoStatus pelmoMsg_SetReplySubject(pelmoMsg* msg, const char* subject) {
    traceLine(kTraceMsg, "pelmoMsg_SetReplySubject(%p, \"%s\")", tracePointer(msg),
              traceText(subject));
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (subject == nullptr) return removeFromEnvelope(msg, "return", msg->replySubjectOffset);
    if (*subject == 0 || subjectTextSize(subject) > kMostReplySubjectSize) {
        return kStatusInvalidSubject;
    }
    return changeEnvelope(msg, [=](pelmoMsg* envelope) {
        return pelmoMsg_UpdateString(envelope, "return", subject, 0);
    });
}

pelmoStatus pelmoMsg_SetSourcePort(pelmoMsg* msg, uint16_t port) {
    traceLine(kTraceMsg, "pelmoMsg_SetSourcePort(%p, \"%u\")", tracePointer(msg), port);
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    return changeEnvelope(
        msg, [=](pelmoMsg* envelope) { return pelmoMsg_UpdateU16(envelope, "cid", port, 0); });
}

pelmoStatus msgSetMtype(pelmoMsg* msg, const char* text) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (text == nullptr) return kStatusInvalidArgument;
    return changeEnvelope(
        msg, [=](pelmoMsg* envelope) { return pelmoMsg_UpdateString(envelope, "mtype", text, 0); });
}

pelmoStatus msgStripEnvelope(pelmoMsg* msg) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (msg->dataOffset != 0) return changeEnvelope(msg, keepOwnFields);
    const pelmoStatus status = msgMakeWritable(msg);
    return status == kStatusSuccess ? keepOwnFields(msg) : status;
}

namespace {

using TextSetter = pelmoStatus (*)(pelmoMsg* msg, const char* subject);

// No subject has room for a text that is longer, or for a NUL within.
pelmoStatus setWithLength(TextSetter set, pelmoMsg* msg, const char* subject, size_t length) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (subject == nullptr) return length == 0 ? set(msg, nullptr) : kStatusInvalidArgument;
    char text[kSubjectTextBytes];
    if (length >= sizeof text || std::memchr(subject, '\0', length) != nullptr) {
        return kStatusInvalidSubject;
    }
    std::memcpy(text, subject, length);
    text[length] = '\0';
    return set(msg, text);
}

}  // namespace

pelmoStatus pelmoMsg_SetSendSubjectN(pelmoMsg* msg, const char* subject, size_t length) {
    return setWithLength(pelmoMsg_SetSendSubject, msg, subject, length);
}

pelmoStatus pelmoMsg_SetReplySubjectN(pelmoMsg* msg, const char* subject, size_t length) {
    return setWithLength(pelmoMsg_SetReplySubject, msg, subject, length);
}
