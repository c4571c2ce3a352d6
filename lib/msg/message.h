// The message: a named, typed, ordered set of fields, kept in its wire image and nowhere else.
//
// An object is a small header around a counted buffer. A message from the network is neither copied
// nor parsed until its first field is read; then one walk builds the index of its fields, and
// values are decoded one by one as they are read. Objects share buffers; one that changes its image
// takes its own copy first.
//
//     pelmoMsg* msg;
//     if (pelmoMsg_Create(&msg) != kStatusSuccess) return;
//     pelmoMsg_AddI32(msg, "load", 7, 0);     // message_typed.h
//     pelmoMsg_Destroy(msg);
//
// A program that builds many messages keeps one and empties it by pelmoMsg_Reset: object, buffer,
// index and id map stay, and in the steady state a build allocates no memory. Neither does a new
// message whose image has at most 256 bytes; for a longer one pelmoMsg_CreateEx with room for all
// its fields takes one block of the heap and never grows.
//
// Ownership: all that a read returns belongs to the message: names, text and bytes that point into
// its image, decoded arrays, nested messages. It stays valid until the message is destroyed or
// reset, or a mark set before the read is cleared. Changes in between don't affect it: a change
// leaves a buffer that such a pointer points into as it is, and continues with another. Only the
// bytes of pelmoMsg_GetAsBytes are invalid after the next change. Added values are copied.
//
// The application destroys the messages that it made or detached, but not one that was delivered to
// a callback or read from a field.
//
// Failure: kStatusInvalidMessage for a null or destroyed message, checked first;
// kStatusInvalidArgument for no output; kStatusCorruptMessage at each call that needs the fields of
// a malformed image; kStatusNoMemory. After a failed call the message is as it was. Outputs are
// written only on success.
//
// An image is less than 4 GiB: a value too large for any size prefix gives kStatusInvalidSize, an
// image that would grow beyond the limit kStatusNoMemory.
//
// Nested messages are read as objects, each of which may take fifty times the bytes of its image. A
// message returns kMostSubMessages of them until they are released; a further read gives
// kStatusNoMemory. Converting to text makes one at a time and has no such bound.
//
// Threads: no lock; an object is used by one thread at a time, for reads too: a read of a const
// message leaves it as it reads, but keeps what it returns. Reference counts are atomic, so that
// holders may release on any thread. Objects over one buffer may live on different threads: a
// shared buffer is only read.
//
// Byte order: numbers of a field are the host's, IP ports and addresses the network's.

#pragma once

#include <stddef.h>
#include <stdint.h>

#include "../base/status.h"
#include "field.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct pelmoMsg pelmoMsg;

// The longest name, without its NUL, and how many nested messages reads of one message may return.
enum PELMO_UNDERLYING(uint32_t) { kMaxNameChars = 126 };
enum PELMO_UNDERLYING(uint32_t) { kMostSubMessages = 1u << 18 };

// Life

// Empty, with room for 64 bytes, or for `size` and at least 32.
PELMO_NODISCARD pelmoStatus pelmoMsg_Create(pelmoMsg** out);
PELMO_NODISCARD pelmoStatus pelmoMsg_CreateEx(pelmoMsg** out, uint32_t size);

// Copies the image, of the length in its head: the caller knows that so many bytes exist.
// kStatusInvalidMessage for null or another magic, kStatusCorruptMessage for a length below 8.
PELMO_NODISCARD pelmoStatus pelmoMsg_CreateFromBytes(pelmoMsg** out, const void* bytes);

// The same, where `length` bytes exist: kStatusCorruptMessage where the head says that there are
// more. What follows the image is left alone.
PELMO_NODISCARD pelmoStatus pelmoMsg_CreateFromBytesN(pelmoMsg** out,
                                                      const void* bytes,
                                                      size_t length);

// A copy of the application's fields, without the envelope around them.
PELMO_NODISCARD pelmoStatus pelmoMsg_CreateCopy(const pelmoMsg* msg, pelmoMsg** out);

// kStatusNotPermitted for a message that isn't the application's. Dead at once, although other
// holders may keep it in memory.
pelmoStatus pelmoMsg_Destroy(pelmoMsg* msg);

// Makes the library's message the application's, which then has to destroy it. kStatusNotPermitted
// if it is the application's already.
PELMO_NODISCARD pelmoStatus pelmoMsg_Detach(pelmoMsg* msg);

// Of a message that came from a queue, by a callback or a poll: the event that it is for, and that
// event's closure. kStatusNotFound for other messages.
PELMO_NODISCARD pelmoStatus pelmoMsg_GetEvent(const pelmoMsg* msg, uint32_t* out);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetClosure(const pelmoMsg* msg, void** out);

// Empties the message and releases all that reads returned. If others use its image, it gets a new
// buffer of the same size; no bytes are copied.
pelmoStatus pelmoMsg_Reset(pelmoMsg* msg);

// Bytes

// The image of the application's fields, with its lengths brought up to date. Valid until the next
// change.
PELMO_NODISCARD pelmoStatus pelmoMsg_GetAsBytes(const pelmoMsg* msg, const void** out);

// The same, and how many bytes they are.
PELMO_NODISCARD pelmoStatus pelmoMsg_GetAsBytesN(const pelmoMsg* msg,
                                                 const void** out,
                                                 size_t* outLength);

// kStatusInsufficientBuffer where destSize is below the byte size.
PELMO_NODISCARD pelmoStatus pelmoMsg_GetAsBytesCopy(const pelmoMsg* msg,
                                                    void* dest,
                                                    uint32_t destSize);

PELMO_NODISCARD pelmoStatus pelmoMsg_GetByteSize(const pelmoMsg* msg, uint32_t* out);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetNumFields(const pelmoMsg* msg, uint32_t* out);

// Adds to the capacity, or with a negative number takes from its unused part;
// kStatusInvalidArgument for more than that.
pelmoStatus pelmoMsg_Expand(pelmoMsg* msg, int32_t additional);

// Fields. A null record gives kStatusInvalidField. A null name means the field without a name.
// Names may repeat, and their fields are distinguished by instance, from 1 in image order; ids may
// not repeat.
//
// A field is looked up by its id if a field has it, else by its name: kStatusNotFound for none,
// kStatusIdConflict if the field found has another id.

// kStatusInvalidType (no encoder), kStatusInvalidName (above 126 characters), kStatusNotPermitted
// (an id without a name; a message within itself), kStatusInvalidFieldCount (0), kStatusIdInUse,
// kStatusInvalidArgument (no data, or none that can be written), kStatusInvalidSize (0, for a type
// that has no size of its own). For messages, texts and their arrays a size of 0 is computed.
PELMO_NODISCARD pelmoStatus pelmoMsg_AddField(pelmoMsg* msg, const pelmoMsgField* field);

// Rewrites the value of the field found, or adds one. kStatusInvalidType for another type.
PELMO_NODISCARD pelmoStatus pelmoMsg_UpdateField(pelmoMsg* msg, const pelmoMsgField* field);

// kStatusInvalidType for a wire code without a decoder, else the decoder's status.
PELMO_NODISCARD pelmoStatus pelmoMsg_GetFieldEx(const pelmoMsg* msg,
                                                const char* name,
                                                pelmoMsgField* field,
                                                uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetFieldByIndex(const pelmoMsg* msg,
                                                     pelmoMsgField* field,
                                                     uint32_t index);

// The field as it is in the image, for values that have no decoder or that a decoder refuses: name,
// id, the code in the image as `type`, and `size` bytes at `data.pointer`, null for none, which are
// what follows the size prefix. A code may be one that the application's types fold into (see
// lib/msg/field.h); of a message and a packed subject the prefix takes the length they begin with.
// Where the value has no sound size prefix the bytes are all that follow the code. A later field
// takes no longer. kStatusNotFound beyond the last field.
PELMO_NODISCARD pelmoStatus pelmoMsg_GetFieldBytes(const pelmoMsg* msg,
                                                   pelmoMsgField* field,
                                                   uint32_t index);

// Instance 0 gives kStatusInvalidInstance here, kStatusInvalidArgument on removal.
PELMO_NODISCARD pelmoStatus pelmoMsg_GetFieldInstance(const pelmoMsg* msg,
                                                      const char* name,
                                                      pelmoMsgField* field,
                                                      uint32_t instance);

pelmoStatus pelmoMsg_RemoveFieldEx(pelmoMsg* msg, const char* name, uint16_t id);
pelmoStatus pelmoMsg_RemoveFieldInstance(pelmoMsg* msg, const char* name, uint32_t instance);

// Enclose a sequence of reads: the clear releases all that was read since the mark, and keeps what
// was read before it. Marks nest. kStatusInvalidMessage for a clear if no mark was ever made,
// kStatusNotPermitted if none is left.
PELMO_NODISCARD pelmoStatus pelmoMsg_MarkReferences(pelmoMsg* msg);
pelmoStatus pelmoMsg_ClearReferences(pelmoMsg* msg);

#ifdef __cplusplus
}
#endif
