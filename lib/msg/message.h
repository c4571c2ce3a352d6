// The message: a named, typed, ordered set of fields, kept in its wire image and nowhere else.
//
// An object is a small header around a counted buffer. What comes off the network is neither copied
// nor looked at until its first field is asked for; then one walk builds the index of its fields,
// and values are decoded one by one as they are read. Objects share buffers, and the first one to
// change its image takes a copy of its own.
//
//     pelmoMsg* msg;
//     if (pelmoMsg_Create(&msg) != kStatusSuccess) return;
//     pelmoMsg_AddI32(msg, "load", 7, 0);     // message_typed.h
//     pelmoMsg_Destroy(msg);
//
// Whoever builds messages at a rate keeps one and empties it by pelmoMsg_Reset: object, buffer,
// index and id map stay, and in the steady state a build takes nothing from the heap. Neither does
// a new message whose image has at most 256 bytes; for a longer one pelmoMsg_CreateEx with room for
// all its fields takes one block of the heap and grows no more.
//
// Ownership: all that a read hands out belongs to the message: the name, text and bytes that point
// into its image, decoded arrays, nested messages. It stays good until the message is destroyed or
// reset, or a mark set ahead of the read is cleared, through all changes in between: a change
// leaves a buffer that such a pointer points into as it is, and goes on with another. The bytes of
// pelmoMsg_GetAsBytes alone end with the next change. What is added is copied.
//
// The application destroys what it made or detached. A message delivered to a callback, and one
// read from a field, isn't its to destroy.
//
// Failure: kStatusInvalidMessage for no message or a dead one, ahead of all other checks;
// kStatusInvalidArgument for no output; kStatusCorruptMessage from whatever needs the fields of an
// image that doesn't walk, again at each call; kStatusNoMemory. After a failed call the message is
// as it was. Outputs are written only on success.
//
// An image is less than 4 GiB: a value that no size prefix can tell gives kStatusInvalidSize, an
// image that would grow beyond that kStatusNoMemory.
//
// Nested messages are read as objects, each of which takes some fifty times the bytes that it may
// stand in. A message hands out kMostSubMessages of them until they are let go of; a read beyond
// gives kStatusNoMemory. Its text makes one at a time and knows no such bound.
//
// Threads: no lock; an object is used by one thread at a time. Reference counts are atomic, so that
// holders let go on any thread. Objects over one buffer may live on different threads: a shared
// buffer is only read.
//
// Byte order: numbers of a field are the host's, IP ports and addresses the network's.

#pragma once

#include <cstdint>

#include "../base/status.h"
#include "field.h"

struct pelmoMsg;

// What the longest name may have, without its NUL, and how many nested messages a message hands
// out.
constexpr uint32_t kMaxNameChars = 126;
constexpr uint32_t kMostSubMessages = 1u << 18;

// Life

// Empty, with room for 64 bytes, or for `size` and at least 32.
[[nodiscard]] pelmoStatus pelmoMsg_Create(pelmoMsg** out);
[[nodiscard]] pelmoStatus pelmoMsg_CreateEx(pelmoMsg** out, uint32_t size);

// Copies the image, as long as its head tells: the caller knows that so many bytes are there.
// kStatusInvalidMessage for no bytes or another magic, kStatusCorruptMessage for a length below 8.
[[nodiscard]] pelmoStatus pelmoMsg_CreateFromBytes(pelmoMsg** out, const void* bytes);

// A copy of the fields that show, without the envelope around them.
[[nodiscard]] pelmoStatus pelmoMsg_CreateCopy(pelmoMsg* msg, pelmoMsg** out);

// kStatusNotPermitted for a message that isn't the application's. Dead at once, although other
// holders may keep it in memory.
pelmoStatus pelmoMsg_Destroy(pelmoMsg* msg);

// Makes the library's message the application's, to destroy. kStatusNotPermitted where it is.
[[nodiscard]] pelmoStatus pelmoMsg_Detach(pelmoMsg* msg);

// Empties the message and lets go of all that reads handed out. Where others use its image it gets
// room of its own, as much as it had; nothing is copied.
pelmoStatus pelmoMsg_Reset(pelmoMsg* msg);

// Bytes

// The image of what shows, its lengths brought up to date. Good until the next change.
[[nodiscard]] pelmoStatus pelmoMsg_GetAsBytes(pelmoMsg* msg, const void** out);

// kStatusInsufficientBuffer where destSize is below the byte size.
[[nodiscard]] pelmoStatus pelmoMsg_GetAsBytesCopy(pelmoMsg* msg, void* dest, uint32_t destSize);

[[nodiscard]] pelmoStatus pelmoMsg_GetByteSize(pelmoMsg* msg, uint32_t* out);
[[nodiscard]] pelmoStatus pelmoMsg_GetNumFields(pelmoMsg* msg, uint32_t* out);

// Adds to the capacity, or takes from what isn't used of it; kStatusInvalidArgument for more.
pelmoStatus pelmoMsg_Expand(pelmoMsg* msg, int32_t additional);

// Fields. No record gives kStatusInvalidField. A null name is the field without a name. Names may
// repeat and their fields are told apart by instance, from 1 in image order; ids may not.
//
// A field is looked up by its id if that is known, else by its name: kStatusNotFound for none,
// kStatusIdConflict for one with another id than asked for.

// kStatusInvalidType (no encoder), kStatusInvalidName (above 126 characters), kStatusNotPermitted
// (an id without a name; a message within itself), kStatusInvalidFieldCount (0), kStatusIdInUse,
// kStatusInvalidArgument (no data, or none that can be written), kStatusInvalidSize (0, and the
// type doesn't tell). A size of 0 is worked out for messages, texts and their arrays.
[[nodiscard]] pelmoStatus pelmoMsg_AddField(pelmoMsg* msg, const pelmoMsgField* field);

// Rewrites the value of the field found, or adds one. kStatusInvalidType for another type.
[[nodiscard]] pelmoStatus pelmoMsg_UpdateField(pelmoMsg* msg, const pelmoMsgField* field);

// kStatusInvalidType for a wire code that nobody decodes, and whatever its decoder reports.
[[nodiscard]] pelmoStatus pelmoMsg_GetFieldEx(pelmoMsg* msg,
                                              const char* name,
                                              pelmoMsgField* field,
                                              uint16_t id);
[[nodiscard]] pelmoStatus pelmoMsg_GetFieldByIndex(pelmoMsg* msg,
                                                   pelmoMsgField* field,
                                                   uint32_t index);

// The field as it stands in the image, for values that nobody decodes, or that a decoder refuses:
// name, id, the code in the image as `type`, and `size` bytes at `data.pointer`, null for none,
// which are what follows the size prefix. A code may be one that the application's types fold into
// (see lib/msg/field.h); of a message and a packed subject the prefix takes the length they begin
// with. Where the value has no sound size prefix the bytes are all that follow the code. Takes no
// longer for a later field. kStatusNotFound beyond the last field.
[[nodiscard]] pelmoStatus pelmoMsg_GetFieldBytes(pelmoMsg* msg,
                                                 pelmoMsgField* field,
                                                 uint32_t index);

// Instance 0 gives kStatusInvalidInstance here, kStatusInvalidArgument on removal.
[[nodiscard]] pelmoStatus pelmoMsg_GetFieldInstance(pelmoMsg* msg,
                                                    const char* name,
                                                    pelmoMsgField* field,
                                                    uint32_t instance);

pelmoStatus pelmoMsg_RemoveFieldEx(pelmoMsg* msg, const char* name, uint16_t id);
pelmoStatus pelmoMsg_RemoveFieldInstance(pelmoMsg* msg, const char* name, uint32_t instance);

// Bracket a stretch of reads: the clear lets go of all that was read since the mark, and of nothing
// that was read ahead of it. Marks nest. kStatusInvalidMessage for a clear where no mark was ever
// made, kStatusNotPermitted where none is left.
[[nodiscard]] pelmoStatus pelmoMsg_MarkReferences(pelmoMsg* msg);
pelmoStatus pelmoMsg_ClearReferences(pelmoMsg* msg);
