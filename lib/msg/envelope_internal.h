// The library's own calls for envelopes. Those for applications are in lib/msg/envelope.h.
//
// On the bus a message is the last field, "data", of an outer message whose other fields are the
// envelope: send subject, reply subject, kind, source port. One object works with both levels in
// one image. Open, its fields are the application's, and `dataOffset` is where they begin; closed,
// they are the outer message's, "data" among them.
//
//     0         8                                dataOffset - 8
//     | head    | sub | return | mtype | cid ... | 05 data 00 01 7A | head | fields ...          |
//     '--------- the envelope, in any order ------------------------'----- the application's ----'
//
// "data" comes last, and its size prefix is the nested message's own length: so the nested message
// grows by growing the image. A message that was made by pelmoMsg_Create has no envelope until the
// first setter puts one around its fields; one that was made from received bytes is closed until
// msgOpenEnvelope. Setters work on what is open: a message that is closed gets an envelope,
// whatever its fields are.
//
// Opening is one pass over names. It records where the values lie, as offsets from the message's
// first byte, so that a transport reads the packed send subject in place. The offsets are good
// while the envelope is open; that of the source port also after a close, until the next opening.
//
// Failure: as of the calls for applications. A setter works on a copy of the envelope, which takes
// the old one's place once no step can fail any more.

#pragma once

#include <cstdint>
#include <span>

#include "lib/base/status.h"
#include "lib/msg/envelope.h"
#include "lib/msg/field.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/wire.h"

// Bits of `envelopeFlags`. Nobody here acts on the first three.
enum EnvelopeFlag : uint8_t {
    ENV_SRC = 1,    // a field "ro" or "src"
    ENV_CMNAM = 2,  // a field "cmnam"
    ENV_PMTX = 4,   // a field "pmtx"

    // Any field besides "sub", "return", "mtype", "cid", "e" and the last "data".
    ENV_FOREIGN = 128,
};

// What a subject may take, packed; an inbox's may be as long as any.
constexpr int32_t kMostSendSubjectBytes = 200;
constexpr int32_t kMostReplySubjectSize = 200;  // as subjectTextSize counts

// Is the last field a message "data", as in every message with an envelope? False where the fields
// can't be separated, and for one that is open.
[[nodiscard]] bool msgHasEnvelope(pelmoMsg* msg);

// Opens. A message without fields stays closed. "data" is brought to the end, made up where there
// is none, and wrapped into a message, as its field "_data_", where it isn't one.
// kStatusCorruptMessage for fields that don't walk, a "sub", "return" or "data" that is malformed;
// kStatusInvalidMessage for a "data" that can't be wrapped. The message then stays closed; "data"
// may have moved.
[[nodiscard]] pelmoStatus msgOpenEnvelope(pelmoMsg* msg);
pelmoStatus msgCloseEnvelope(pelmoMsg* msg);

// The kind, a short text. kStatusInvalidArgument for none.
[[nodiscard]] pelmoStatus msgSetMtype(pelmoMsg* msg, const char* text);

// A closed object over the same buffer.
[[nodiscard]] pelmoStatus msgCopyWithEnvelope(pelmoMsg* msg, pelmoMsg** out);

// Has there ever been a field that this library doesn't make, as where the envelope is lent? Only
// the second call forgets it.
[[nodiscard]] bool msgHasForeign(const pelmoMsg* msg);
pelmoStatus msgClearForeign(pelmoMsg* msg);

// Takes all outer fields out but "sub", "return", "mtype" and "data".
[[nodiscard]] pelmoStatus msgStripEnvelope(pelmoMsg* msg);

// An open message with an envelope, in one allocation, for senders that know all its parts. Subject
// and reply may be null. `extra` bytes, counted in `length`, follow the nested head uninitialized:
// the caller writes its fields there, or lowers `length`, and flushes.
[[nodiscard]] pelmoStatus msgCreateEnveloped(pelmoMsg** out,
                                             const char* subject,
                                             const char* reply,
                                             uint32_t extra);

// The same with these fields. Fails as adding them one by one does; kStatusIdInUse for an id that
// two of them have.
[[nodiscard]] pelmoStatus msgCreateWithFields(pelmoMsg** out,
                                              const char* subject,
                                              const char* reply,
                                              const pelmoMsgField* fields,
                                              uint32_t count);

// The same with one field, of empty name, that holds the bytes.
[[nodiscard]] pelmoStatus msgCreateWithOpaque(
    pelmoMsg** out, const char* subject, const char* reply, const void* bytes, uint32_t size);

// An open message within the image of another, whose buffer it shares: its fields are those of the
// sound nested message at `data`. Its addressing is at the given places: a well-formed packed
// subject, and a terminated text of at most 255 bytes or 0 for none. The other message's outer
// fields are only lent: they aren't sent with this one, and an envelope of its own replaces them
// before any call that would show or change them. A nested message that isn't the last of the image
// is copied. kStatusCorruptMessage if its fields are malformed, kStatusInvalidArgument without a
// subject.
struct EnvelopePlaces {
    uint32_t subject;
    uint32_t reply;
    uint32_t data;
};
[[nodiscard]] pelmoStatus msgCreateWithin(pelmoMsg** out,
                                          pelmoMsg* carrier,
                                          const EnvelopePlaces& places);

// Only for the sources of the envelope.

// The records as writers write them, up to their own bytes: the packed subject, the size prefix of
// the reply, the nested message. The kind is a whole record.
constexpr uint8_t kSubHead[] = {4, 's', 'u', 'b', 0, FIELD_SUBJECT, kSizeClass16};
constexpr uint8_t kReturnHead[] = {7, 'r', 'e', 't', 'u', 'r', 'n', 0, FIELD_STRING};
constexpr uint8_t kMtypeRecord[] = {6, 'm', 't', 'y', 'p', 'e', 0, FIELD_STRING, 2, 'D', 0};
constexpr uint8_t kDataHead[] = {5, 'd', 'a', 't', 'a', 0, FIELD_MSG, kSizeClass32};

constexpr const char* kDataName = "data";

// What the envelope's fields say, as the message keeps it.
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

// What msgHasEnvelope and msgOpenEnvelope find in an image with a sound head, without an object.
// Returns where the nested message begins; 0 where one of the two would refuse.
[[nodiscard]] uint32_t envelopeRead(std::span<const uint8_t> image, EnvelopeView& view);

// Opens a message, of which `view` is the envelope, and brings its lengths up to date.
void envelopeShow(pelmoMsg* msg, uint32_t dataOffset, const EnvelopeView& view);

// Puts an envelope of the message's own in the place of one that is lent; nothing else changes.
[[nodiscard]] pelmoStatus envelopeMakeOwn(pelmoMsg* msg);

// Is the field one of those that stay when an envelope is stripped?
[[nodiscard]] bool envelopeKeeps(const pelmoMsg* msg, const FieldIndexEntry& entry);
