// The envelope: how a message carries its addressing, which is its send subject, its reply subject
// and the port that it came from.
//
// On the bus a message is the field "data" of an outer message, whose other fields are the
// envelope. An application sees only its own fields, and reaches the envelope by these calls. A
// message that was made by pelmoMsg_Create has no envelope until the first setter puts one around
// it.
//
// A subject is elements separated by dots, of 1 to 127 characters each, and of 255 bytes in all: 3
// for the head, and for each element 2 more than its characters. A send subject may have 200 bytes,
// or 255 if it begins with "_INBOX."; a reply subject may have 200 characters, a dot and one more
// for the last element included.
//
// A message for several listeners is one object for each of them over the same bytes. Such an
// object doesn't know the source port: pelmoMsg_GetSource gives kStatusNotFound. Nor does it know
// whether the envelope had fields that this library doesn't make, so it is forwarded with them.
//
// Ownership: texts that a getter returns belong to the message, like what a read returns.
//
// Failure: kStatusInvalidMessage; kStatusInvalidArgument for no output; kStatusNoMemory. A setter
// that fails leaves the message as it was.
//
// Threads: as the message.

#pragma once

#include <stddef.h>
#include <stdint.h>

#include "../base/status.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct pelmoMsg pelmoMsg;

// kStatusInvalidSubject for a text that doesn't pack. Null removes the subject. The kind becomes
// "D" if there is none.
pelmoStatus pelmoMsg_SetSendSubject(pelmoMsg* msg, const char* subject);
pelmoStatus pelmoMsg_SetReplySubject(pelmoMsg* msg, const char* subject);

// The same for a text of `length` bytes, which needs no NUL.
pelmoStatus pelmoMsg_SetSendSubjectN(pelmoMsg* msg, const char* subject, size_t length);
pelmoStatus pelmoMsg_SetReplySubjectN(pelmoMsg* msg, const char* subject, size_t length);

pelmoStatus pelmoMsg_SetSourcePort(pelmoMsg* msg, uint16_t port);

// kStatusNotFound where there is none; the text is then null.
PELMO_NODISCARD pelmoStatus pelmoMsg_GetSendSubject(const pelmoMsg* msg, const char** out);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetReplySubject(const pelmoMsg* msg, const char** out);

// The same with the length, without the NUL.
PELMO_NODISCARD pelmoStatus pelmoMsg_GetSendSubjectN(const pelmoMsg* msg,
                                                     const char** out,
                                                     size_t* outLength);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetReplySubjectN(const pelmoMsg* msg,
                                                      const char** out,
                                                      size_t* outLength);

PELMO_NODISCARD pelmoStatus pelmoMsg_GetSource(const pelmoMsg* msg, uint16_t* out);

// The outer fields as one line of text on the standard error stream.
pelmoStatus pelmoMsg_PrintEnvelope(const pelmoMsg* msg);

#ifdef __cplusplus
}
#endif
