// The message: a named, typed, ordered set of fields, kept in its wire image and nowhere else.
//
// An object is a small header around a counted buffer. What comes off the network is neither copied
// nor looked at until its first field is asked for; then one walk builds the index of its fields,
// and values are decoded one by one as they are read. Objects share buffers, and the first one to
// change its image takes a copy of its own.
//
//     pelmoMsg* msg;
//     if (pelmoMsg_Create(&msg) != kStatusSuccess) return;
//     pelmoMsg_AddI32(msg, "load", 7, 0);     // lib/msg/message_typed.h
//     pelmoMsg_Destroy(msg);
//
// Whoever builds messages at a rate keeps one and empties it by pelmoMsg_Reset: object, buffer,
// index and id map stay, and in the steady state a build takes nothing from the heap. A new message
// costs its buffer's bytes; one made by pelmoMsg_CreateEx with room for all its fields costs only
// them.
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

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "lib/base/status.h"
#include "lib/msg/buffer.h"
#include "lib/msg/codec.h"
#include "lib/msg/field.h"

struct Dpa;
struct EntryRing;
struct I32Map;

constexpr uint32_t kMessageMagic = 0x9955eeaa;
constexpr uint32_t kMessageDead = 0xeeeeeeee;
constexpr uint32_t kMessageHeadBytes = 8;  // length, magic
constexpr uint32_t kMessageDefaultBytes = 64;
constexpr uint32_t kMessageLeastBytes = 32;
constexpr uint32_t kMaxNameChars = 126;
constexpr uint32_t kInlineIndexEntries = 16;
constexpr uint32_t kMostSubMessages = 1u << 18;

// Where a field stands; entries are in image order. Offsets are from the message's first byte.
struct FieldIndexEntry {
    uint32_t nameOffset;    // of the name area: one behind the record's first byte
    uint32_t nameSize;      // with the NUL; 0 for no name
    uint32_t nameAreaSize;  // the name's, and 2 for an id
    uint16_t id;            // 0 for none
};

struct pelmoMsg {
    uint32_t magic;  // kMessageMagic, or kMessageDead once destroyed

    // The image: `length` bytes from `base` on, of `capacity` that may be used. The lengths written
    // in it may lag behind until the next flush.
    Buffer* buffer;
    uint32_t base;

    std::atomic<uint32_t> refCount;
    uint32_t dataOffset;  // to the nested message whose fields show; 0: the outer one's do
    I32Map* idMap;        // field id to position; null until a field has an id

    // What reads handed out; each null until first needed.
    EntryRing* markStack;  // of ReferenceMark
    Dpa* ownedBlocks;      // heap blocks
    Dpa* heldBuffers;      // buffers that were replaced, once for each pointer into them
    Dpa* subMessages;      // message objects
    uint32_t bufferRefs;   // pointers into the present buffer

    uint32_t capacity;
    uint32_t length;  // with the envelope

    // Stale, like `idMap`, while `indexValid` is 0.
    FieldIndexEntry* index;  // `inlineIndex` or a heap block; null until first needed
    uint32_t indexCapacity;
    uint32_t fieldCount;
    uint32_t indexValid;

    uint32_t userOwned;  // 1: the application may destroy it

    // Where the envelope's values lie, while it is open; 0 for none. See lib/msg/envelope.h.
    uint8_t envelopeFlags;
    uint32_t sendSubjectOffset, replySubjectOffset, mtypeOffset, sourcePortOffset;

    uint32_t limitAdvisory;  // bit 0: the advisory that tells of a queue limit
    FieldIndexEntry inlineIndex[kInlineIndexEntries];

    // Set when the message is posted: the event that fired, and its closure.
    uint32_t deliveryEvent;
    void* deliveryClosure;

    pelmoMsg* nextFreed;  // only while it is being freed

    void* poolOwner;  // the pool's own word, not ours to touch; null for an object from the heap
};

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

// Empties the message and lets go of all that reads handed out.
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

// For the library's own floors. They want a sound message where they don't say otherwise.

// The pool of message objects, made before other threads run; nobody holds one of it when it goes.
// Without it they come from the heap.
[[nodiscard]] pelmoStatus msgPoolCreate();
void msgPoolDestroy();

[[nodiscard]] inline bool msgIsValid(const pelmoMsg* msg) {
    return msg != nullptr && msg->magic == kMessageMagic;
}

// A second object on a shared buffer, which gets one reference more; length and capacity are the
// head's. The bytes are borrowed by nobody: a change makes its own copy. kStatusInvalidMessage for
// another magic or no room for a head, kStatusCorruptMessage for a length below 8 or beyond the
// buffer.
[[nodiscard]] pelmoStatus msgCreateOverBuffer(pelmoMsg** out, Buffer* buffer, uint32_t offset);

// A second object over the same buffer, open or closed as the first, for one more listener.
[[nodiscard]] pelmoStatus msgShareCopy(pelmoMsg** out, pelmoMsg* msg);

// An empty message with one reference, parsed, the application's. For builders that write the image
// themselves: the capacity is at least `size`, the length that of a head that isn't written yet.
[[nodiscard]] pelmoStatus msgCreateRaw(pelmoMsg** out, uint32_t size);

void msgRetain(pelmoMsg* msg);
void msgRelease(pelmoMsg* msg);  // null is ignored; a dead message isn't
void msgSetOwned(pelmoMsg* msg);
void msgClearOwned(pelmoMsg* msg);

// Ahead of handing a message to several threads. Nothing needs doing today: counts are atomic, and
// a shared buffer is never written.
[[nodiscard]] pelmoStatus msgPrepareShared(pelmoMsg* msg);

void msgSetLimitAdvisory(pelmoMsg* msg);
[[nodiscard]] bool msgIsLimitAdvisory(const pelmoMsg* msg);

// First byte of the image. It moves with every change.
[[nodiscard]] inline uint8_t* msgImage(const pelmoMsg* msg) {
    return msg->buffer->data + msg->base;
}

// Brings the lengths in the image up to date. Writes nothing where they are: so a buffer, once
// shared, is only read.
void msgFlush(pelmoMsg* msg);

// The buffer with the whole image at `base`, flushed. Null for null.
[[nodiscard]] Buffer* msgFlushBuffer(pelmoMsg* msg);

// Builds the index unless it is valid.
[[nodiscard]] pelmoStatus msgParse(pelmoMsg* msg);

// Forgets where the envelope's values lie and shows the outer fields; whoever opened it has
// flushed.
void msgShowOuter(pelmoMsg* msg);

// Ahead of every change of the image: a buffer that is shared or that reads point into is replaced
// by a copy with `extra` bytes more of room.
[[nodiscard]] pelmoStatus msgMakeWritable(pelmoMsg* msg, uint32_t extra = 0);

// Makes room for `need` bytes behind the image of a writable message. Growing at least doubles.
[[nodiscard]] pelmoStatus msgReserve(pelmoMsg* msg, uint64_t need);

// The checks ahead of adding; works out a size of 0.
[[nodiscard]] pelmoStatus msgCheckField(pelmoMsgField& field);

// Bytes that the record of a checked field takes at most. kStatusInvalidSize where no size prefix
// can tell the value's length.
[[nodiscard]] pelmoStatus msgRecordNeed(const pelmoMsgField& field, uint64_t& need);

// Writes the record of a checked field behind the image, makes room as it goes and adds to
// `length`; index and id map stay as they are. The message is writable.
[[nodiscard]] pelmoStatus msgAppendRecord(pelmoMsg* msg, const pelmoMsgField& field);

// Decodes the field at a position of a parsed message, with its id and without its name. What the
// disposition tells to be owned is the caller's; a nested message is a pointer into the image.
[[nodiscard]] pelmoStatus msgDecodeField(const pelmoMsg* msg,
                                         uint32_t position,
                                         pelmoMsgField& field,
                                         Disposition& disposition);

enum class NameWanted : bool { kNo, kYes };

// Reads that field, and keeps what is behind it.
[[nodiscard]] pelmoStatus msgReadField(pelmoMsg* msg,
                                       uint32_t position,
                                       pelmoMsgField& field,
                                       NameWanted nameWanted);

// Position of the field with that name and id, in a parsed message.
[[nodiscard]] pelmoStatus msgFind(const pelmoMsg* msg,
                                  const char* name,
                                  uint16_t id,
                                  uint32_t& position);

// Keeps a heap block for as long as reads are kept. On failure the block is freed.
[[nodiscard]] pelmoStatus msgKeepBlock(pelmoMsg* msg, void* block);

// How far reads had come, to be cut back to. On the stack of a call that writes nothing, or on that
// of the message.
struct ReferenceMark {
    uint32_t ownedBlocks;
    uint32_t heldBuffers;
    uint32_t subMessages;
    uint32_t bufferRefs;
};

[[nodiscard]] ReferenceMark msgMark(const pelmoMsg* msg);
void msgCutBack(pelmoMsg* msg, const ReferenceMark& mark);
