// Creates messages together with their envelope, in one buffer and without moving bytes.

#include <bitset>
#include <cassert>
#include <cstring>
#include <utility>

#include "lib/base/bytes.h"
#include "lib/containers/subject.h"
#include "lib/msg/envelope_internal.h"

namespace {

constexpr uint32_t kFixedBytes =
    kMessageHeadBytes + sizeof kMtypeRecord + sizeof kDataHead + kMessageHeadBytes;

constexpr uint8_t kEmptyHead[kMessageHeadBytes] = {0, 0, 0, 8, 0x99, 0x55, 0xee, 0xaa};

// Subject and reply as they are written to the image. A length of 0 means that there is none.
struct Addressing {
    const uint8_t* subject;
    uint32_t subjectBytes;
    const char* reply;
    uint32_t replyBytes;  // with the NUL
};

using PackedSubject = uint8_t[kMostSendSubjectBytes];

// `packed` gets the subject and is good for as long as the result.
pelmoStatus packAddressing(const char* subject,
                           const char* reply,
                           PackedSubject& packed,
                           Addressing& out) {
    if (subject != nullptr) {
        const int32_t length = subjectFromText(packed, kMostSendSubjectBytes, subject);
        if (length < 1) return kStatusInvalidSubject;
        out.subject = packed;
        out.subjectBytes = static_cast<uint32_t>(length);
    }
    if (reply != nullptr) {
        if (subjectTextSize(reply) > kMostReplySubjectSize) return kStatusInvalidSubject;
        out.reply = reply;
        out.replyBytes = static_cast<uint32_t>(std::strlen(reply)) + 1;
    }
    return kStatusSuccess;
}

uint64_t addressingBytes(const Addressing& addressing) {
    uint64_t bytes = 0;
    if (addressing.subjectBytes != 0) bytes += sizeof kSubHead + addressing.subjectBytes;
    if (addressing.replyBytes != 0) {
        bytes += sizeof kReturnHead + sizePrefixedLength(addressing.replyBytes);
    }
    return bytes;
}

// Writes to an image that has enough room.
struct ImageWriter {
    uint8_t* image;
    uint32_t at;

    void put(const void* bytes, uint32_t sizeBytes) {
        std::memcpy(image + at, bytes, sizeBytes);
        at += sizeBytes;
    }
    void putPrefix(uint32_t value) {
        pelmoWriteCursor cursor{image + at, image + at + kMostPrefixBytes};
        if (writeSizePrefix(&cursor, value) == kStatusSuccess) {
            at = static_cast<uint32_t>(cursor.at - image);
        }
    }
};

// Returns the offset of the nested message.
uint32_t writeEnvelope(uint8_t* image, const Addressing& addressing, EnvelopeView& view) {
    ImageWriter writer{image, kMessageHeadBytes};
    if (addressing.subjectBytes != 0) {
        writer.put(kSubHead, sizeof kSubHead);
        view.sendSubjectOffset = writer.at;
        writer.put(addressing.subject, addressing.subjectBytes);
    }
    if (addressing.replyBytes != 0) {
        writer.put(kReturnHead, sizeof kReturnHead);
        writer.putPrefix(addressing.replyBytes);
        view.replySubjectOffset = writer.at;
        writer.put(addressing.reply, addressing.replyBytes);
    }
    writer.put(kMtypeRecord, sizeof kMtypeRecord);
    view.mtypeOffset = writer.at - 2;
    writer.put(kDataHead, sizeof kDataHead);
    writer.put(kEmptyHead, sizeof kEmptyHead);  // a flush compares before writing
    return writer.at - kMessageHeadBytes;
}

pelmoStatus createPacked(pelmoMsg** out, const Addressing& addressing, uint64_t extra) {
    const uint64_t need = extra + kFixedBytes + addressingBytes(addressing);
    if (need > UINT32_MAX) return kStatusNoMemory;
    pelmoMsg* msg = nullptr;
    const pelmoStatus status = msgCreateRaw(&msg, static_cast<uint32_t>(need));
    if (status != kStatusSuccess) return status;

    EnvelopeView view;
    const uint32_t dataOffset = writeEnvelope(msgImage(msg), addressing, view);
    msg->length = static_cast<uint32_t>(need);
    envelopeShow(msg, dataOffset, view);
    *out = msg;
    return kStatusSuccess;
}

pelmoStatus createOpen(pelmoMsg** out, const char* subject, const char* reply, uint64_t extra) {
    PackedSubject packed;
    Addressing addressing{};
    const pelmoStatus status = packAddressing(subject, reply, packed, addressing);
    return status == kStatusSuccess ? createPacked(out, addressing, extra) : status;
}

// The offset of a field is beyond the head; 0 means none, and there is no addressing without a
// subject.
bool placesAreSound(const EnvelopePlaces& places) {
    return places.subject >= kMessageHeadBytes;
}

// A message of its own, made of what an image has at these places.
pelmoStatus createOfPlaces(pelmoMsg** out,
                           const uint8_t* image,
                           const EnvelopePlaces& places,
                           uint32_t nestedBytes) {
    if (!placesAreSound(places)) return kStatusInvalidArgument;
    Addressing addressing{};
    addressing.subject = image + places.subject;
    addressing.subjectBytes = static_cast<uint32_t>(subjectLength(addressing.subject));
    if (places.reply != 0) {
        addressing.reply = reinterpret_cast<const char*>(image + places.reply);
        addressing.replyBytes = static_cast<uint32_t>(std::strlen(addressing.reply)) + 1;
    }
    const pelmoStatus status = createPacked(out, addressing, nestedBytes - kMessageHeadBytes);
    if (status != kStatusSuccess) return status;
    std::memcpy(msgImage(*out) + (*out)->dataOffset, image + places.data, nestedBytes);
    return kStatusSuccess;
}

// The nested message grows by growing the image, and so has to be the last of it.
pelmoStatus createLent(pelmoMsg** out, pelmoMsg* carrier, const EnvelopePlaces& places) {
    if (!placesAreSound(places)) return kStatusInvalidArgument;
    const pelmoStatus status = msgShareCopy(out, carrier);
    if (status != kStatusSuccess) return status;
    EnvelopeView view;
    view.sendSubjectOffset = places.subject;
    view.replySubjectOffset = places.reply;
    envelopeShow(*out, places.data, view);
    (*out)->envelopeIsLent = true;
    return kStatusSuccess;
}

// Adds up the most that the records can take.
pelmoStatus measureFields(const pelmoMsgField* fields, uint32_t count, uint64_t& sum) {
    for (uint32_t i = 0; i < count; ++i) {
        pelmoMsgField field = fields[i];
        uint64_t need = 0;
        pelmoStatus status = msgCheckField(field);
        if (status == kStatusSuccess) status = msgRecordNeed(field, need);
        if (status != kStatusSuccess) return status;
        sum += need;
    }
    return kStatusSuccess;
}

bool idsRepeat(const pelmoMsgField* fields, uint32_t count) {
    std::bitset<UINT16_MAX + 1> seen;
    for (uint32_t i = 0; i < count; ++i) {
        const uint16_t id = fields[i].id;
        if (id != 0 && seen.test(id)) return true;
        seen.set(id);
    }
    return false;
}

pelmoStatus appendFields(pelmoMsg* msg, const pelmoMsgField* fields, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) {
        pelmoMsgField field = fields[i];
        pelmoStatus status = msgCheckField(field);
        if (status == kStatusSuccess) status = msgAppendRecord(msg, field);
        if (status != kStatusSuccess) return status;
    }
    return kStatusSuccess;
}

}  // namespace

pelmoStatus msgCreateEnveloped(pelmoMsg** out,
                               const char* subject,
                               const char* reply,
                               uint32_t extra) {
    if (out == nullptr) return kStatusInvalidArgument;
    return createOpen(out, subject, reply, extra);
}

pelmoStatus msgCreateWithFields(pelmoMsg** out,
                                const char* subject,
                                const char* reply,
                                const pelmoMsgField* fields,
                                uint32_t count) {
    if (out == nullptr || (fields == nullptr && count > 0)) return kStatusInvalidArgument;
    uint64_t sum = 0;
    pelmoStatus status = measureFields(fields, count, sum);
    if (status != kStatusSuccess) return status;
    if (idsRepeat(fields, count)) return kStatusIdInUse;

    // One byte more than needed, because an image that would be exactly full grows.
    const uint64_t extra = sum + 1;
    pelmoMsg* made = nullptr;
    status = createOpen(&made, subject, reply, extra);
    if (status != kStatusSuccess) return status;
    HeldMessage msg(made);
    msg->length -= static_cast<uint32_t>(extra);
    status = appendFields(msg.get(), fields, count);
    if (status != kStatusSuccess) return status;
    msgFlush(msg.get());
    *out = msg.release();
    return kStatusSuccess;
}

pelmoStatus msgCreateWithOpaque(
    pelmoMsg** out, const char* subject, const char* reply, const void* bytes, uint32_t size) {
    constexpr uint8_t kHead[] = {1, 0, FIELD_OPAQUE};
    if (out == nullptr || (bytes == nullptr && size > 0)) return kStatusInvalidArgument;
    pelmoMsg* msg = nullptr;
    const pelmoStatus status =
        createOpen(&msg, subject, reply, sizeof kHead + sizePrefixedLength(size));
    if (status != kStatusSuccess) return status;
    ImageWriter writer{msgImage(msg), msg->dataOffset + kMessageHeadBytes};
    writer.put(kHead, sizeof kHead);
    writer.putPrefix(size);
    if (size != 0) writer.put(bytes, size);
    *out = msg;
    return kStatusSuccess;
}

pelmoStatus msgCreateWithin(pelmoMsg** out, pelmoMsg* carrier, const EnvelopePlaces& places) {
    if (!msgIsValid(carrier)) return kStatusInvalidMessage;
    if (out == nullptr) return kStatusInvalidArgument;
    const uint8_t* const image = msgImage(carrier);
    const uint32_t nestedBytes = loadBe32At(image + places.data);
    const bool isLast = places.data + nestedBytes == carrier->length;
    pelmoMsg* made = nullptr;
    pelmoStatus status = isLast ? createLent(&made, carrier, places)
                                : createOfPlaces(&made, image, places, nestedBytes);
    if (status != kStatusSuccess) return status;
    HeldMessage msg(made);
    status = msgParse(made);
    if (status == kStatusSuccess) *out = msg.release();
    return status;
}

pelmoStatus envelopeMakeOwn(pelmoMsg* msg) {
    assert(msgEnvelopeIsSound(msg));
    if (!msg->envelopeIsLent) return kStatusSuccess;
    const EnvelopePlaces places = {msg->sendSubjectOffset, msg->replySubjectOffset,
                                   msg->dataOffset};
    pelmoMsg* made = nullptr;
    pelmoStatus status =
        createOfPlaces(&made, msgImage(msg), places, msg->length - msg->dataOffset);
    if (status != kStatusSuccess) return status;
    const HeldMessage own(made);
    status = msgHoldBuffer(msg);
    if (status != kStatusSuccess) return status;
    std::swap(msg->buffer, made->buffer);  // the old one goes with `own`
    msg->base = made->base;
    msg->capacity = made->capacity;
    msg->length = made->length;
    msg->envelopeIsLent = false;
    EnvelopeView view;
    view.sendSubjectOffset = made->sendSubjectOffset;
    view.replySubjectOffset = made->replySubjectOffset;
    view.mtypeOffset = made->mtypeOffset;
    envelopeShow(msg, made->dataOffset, view);
    return kStatusSuccess;
}
