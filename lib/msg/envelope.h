// The envelope: how a message carries its addressing, which is its send subject, its reply subject
// and the port that it came from.
//
// On the bus a message is the field "data" of an outer message, whose other fields are the
// envelope. An application sees its own fields alone, and reaches the envelope by these calls. A
// message that was made by pelmoMsg_Create has no envelope until the first setter puts one around
// it.
//
// A subject is elements with dots between them: 1 to 127 characters each, and 255 bytes in all, of
// which 3 are the head and each element takes 2 beside its characters. A send subject may have 200
// of them, 255 where it begins with "_INBOX."; a reply subject 200 characters, a dot and one more
// for the last element counted among them.
//
// A message that several listeners get is one object for each over the same bytes. Such an object
// doesn't know the source port, and pelmoMsg_GetSource gives kStatusNotFound; nor does it know
// whether the envelope had fields that this library doesn't make, so that it is sent on with them.
//
// Ownership: texts that a getter gives belong to the message, as what a read returns.
//
// Failure: kStatusInvalidMessage; kStatusInvalidArgument for no output; kStatusNoMemory. A setter
// that fails leaves the message as it was.
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
