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

#include "../base/status.h"

struct pelmoMsg;

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
