// The envelope: how a message carries its addressing.
//
// On the bus a message is the last field, "data", of an outer message whose other fields are the
// envelope: send subject, reply subject, kind, source port. One object works with both levels in
// one image. Open, its fields are the application's, and `dataOffset` tells where they begin;
// closed, they are the outer message's, "data" among them.
//
//     0         8                                dataOffset - 8
//     | head    | sub | return | mtype | cid ... | 05 data 00 01 7A | head | fields ...          |
//     '--------- the envelope, in any order ------------------------'----- the application's ----'
//
// "data" comes last, and its size prefix is the nested message's own length: so the nested message
// grows by growing the image. A message that was made by pelmoMsg_Create has no envelope until the
// first setter puts one around what it shows; one that was made from received bytes is closed until
// msgOpenEnvelope. Setters work on what is open: a message that is closed gets an envelope,
// whatever its fields are.
//
// Opening is one pass over names. It records where the values lie, as offsets from the message's
// first byte, so that a transport reads the packed send subject in place. The offsets are good
// while the envelope is open; that of the source port stays behind a close until the next opening.
//
// Ownership: texts that a getter gives belong to the message, as what a read returns.
//
// Failure: kStatusInvalidMessage; kStatusInvalidArgument for no output; kStatusNoMemory. A setter
// that fails leaves the message as it was: it works on a copy of the envelope, which takes the old
// one's place when nothing can fail any more.
//
// Threads: as the message.

#pragma once

#include <cstdint>

#include "lib/base/status.h"
#include "lib/msg/field.h"

struct pelmoMsg;

// Bits of `envelopeFlags`. Nobody here acts on the first three.
enum EnvelopeFlag : uint8_t {
    ENV_SRC = 1,    // a field "ro" or "src"
    ENV_CMNAM = 2,  // a field "cmnam"
    ENV_PMTX = 4,   // a field "pmtx"
    ENV_FOREIGN =
        128,  // any field besides "sub", "return", "mtype", "cid", "e" and the last "data"
};

// What a subject may take, packed; an inbox's may be as long as any.
constexpr int32_t kMostSendSubjectBytes = 200;
constexpr int32_t kMostReplySubjectSize = 200;  // as subjectTextSize counts

// Of applications.

// kStatusInvalidSubject for a text that doesn't pack. Null removes the subject. The kind becomes
// "D" where there is none.
pelmoStatus pelmoMsg_SetSendSubject(pelmoMsg* msg, const char* subject);
pelmoStatus pelmoMsg_SetReplySubject(pelmoMsg* msg, const char* subject);
pelmoStatus pelmoMsg_SetSourcePort(pelmoMsg* msg, uint16_t port);

// kStatusNotFound where there is none; the text is then null.
[[nodiscard]] pelmoStatus pelmoMsg_GetSendSubject(pelmoMsg* msg, const char** out);
[[nodiscard]] pelmoStatus pelmoMsg_GetReplySubject(pelmoMsg* msg, const char** out);
[[nodiscard]] pelmoStatus pelmoMsg_GetSource(pelmoMsg* msg, uint16_t* out);

// The outer fields as one line of text on the standard error stream.
pelmoStatus pelmoMsg_PrintEnvelope(pelmoMsg* msg);

// Of the library.

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

// Has there ever been a field that this library doesn't make? Only the second call forgets it.
[[nodiscard]] bool msgHasForeign(const pelmoMsg* msg);
pelmoStatus msgClearForeign(pelmoMsg* msg);

// Takes all outer fields out but "sub", "return", "mtype" and "data".
[[nodiscard]] pelmoStatus msgStripEnvelope(pelmoMsg* msg);

// An open message with an envelope, in one allocation, for senders that know all at once. Subject
// and reply may be null. `extra` bytes, counted in `length`, stand uninitialized behind the nested
// head: the caller writes its fields there, or lowers `length`, and flushes.
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
