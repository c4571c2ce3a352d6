// The message's record, and the library's own calls for it. Those for applications are in
// lib/msg/message.h.

#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

#include "lib/base/status.h"
#include "lib/msg/buffer.h"
#include "lib/msg/codec.h"
#include "lib/msg/field.h"
#include "lib/msg/message.h"
#include "lib/msg/wire.h"

struct Dpa;
struct EntryRing;
struct I32Map;

constexpr uint32_t kMessageDead = 0xeeeeeeee;
constexpr uint32_t kMessageDefaultBytes = 64;
constexpr uint32_t kMessageLeastBytes = 32;
constexpr uint32_t kInlineIndexEntries = 16;

// Where a field is; entries are in image order. Offsets are from the message's first byte.
struct FieldIndexEntry {
    uint32_t nameOffset;    // of the name area: one after the record's first byte
    uint32_t nameSize;      // with the NUL; 0 for no name
    uint32_t nameAreaSize;  // the name's, and 2 for an id
    uint16_t id;            // 0 for none
};

struct pelmoMsg {
    uint32_t magic;  // kMessageMagic, or kMessageDead once destroyed

    // The image: `length` bytes from `base` on, of `capacity` that may be used. The lengths written
    // in it may be out of date until the next flush.
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
    bool envelopeIsLent;  // the outer fields are another message's: see msgCreateWithin
    uint32_t sendSubjectOffset, replySubjectOffset, mtypeOffset, sourcePortOffset;

    uint32_t
        limitAdvisory;  // bit 0: an advisory about a queue limit; bit 1: says that no reply came
    FieldIndexEntry inlineIndex[kInlineIndexEntries];

    // Set when the message is posted: the event that fired, and its closure.
    uint32_t deliveryEvent;
    void* deliveryClosure;

    pelmoMsg* nextFreed;  // only while it is being freed

    void* poolOwner;  // the pool's own word, not ours to touch; null for an object from the heap
};

// The calls need a sound message unless they say otherwise.

// The pool of message objects, made before other threads run, destroyed when no object of it is in
// use. Without it they come from the heap.
[[nodiscard]] pelmoStatus msgPoolCreate();
void msgPoolDestroy();

[[nodiscard]] inline bool msgIsValid(const pelmoMsg* msg) {
    return msg != nullptr && msg->magic == kMessageMagic;
}

// A read parses the image, and keeps what it gives out until that is released: nothing that the
// application sees of the message. So the calls that read take a const one.
[[nodiscard]] inline pelmoMsg* msgForReading(const pelmoMsg* msg) {
    return const_cast<pelmoMsg*>(msg);
}

// A second object on a shared buffer, which gets one reference more; length and capacity are the
// head's. A change makes its own copy. kStatusInvalidMessage for another magic or no room for a
// head, kStatusCorruptMessage for a length below 8 or beyond the buffer.
[[nodiscard]] pelmoStatus msgCreateOverBuffer(pelmoMsg** out, Buffer* buffer, uint32_t offset);

// A second object over the same buffer, open or closed as the first, for one more listener.
[[nodiscard]] pelmoStatus msgShareCopy(pelmoMsg** out, pelmoMsg* msg);

// An empty message with one reference, parsed, the application's. For builders that write the image
// themselves: the capacity is at least `size`, the length that of a head that isn't written yet.
[[nodiscard]] pelmoStatus msgCreateRaw(pelmoMsg** out, uint32_t size);

// The message, which nobody else holds, becomes that of these bytes, as pelmoMsg_CreateFromBytes
// makes one; what reads of it returned is released. For who looks at many, one after the other. On
// failure the message is empty or unchanged.
[[nodiscard]] pelmoStatus msgTakeBytes(pelmoMsg* msg, const void* bytes);

// A message of the fields at these positions of a parsed one, with their bytes as they are.
[[nodiscard]] pelmoStatus msgCopyFields(pelmoMsg** out,
                                        const pelmoMsg* msg,
                                        std::span<const uint32_t> positions);

void msgRetain(pelmoMsg* msg);
void msgRelease(pelmoMsg* msg);  // null is ignored; a dead message isn't

// A reference that ends with its scope.
struct MessageRelease {
    void operator()(pelmoMsg* msg) const { msgRelease(msg); }
};
using HeldMessage = std::unique_ptr<pelmoMsg, MessageRelease>;

// Ends a ring of messages, which has one reference to each; null is ignored.
void msgReleaseRing(EntryRing* ring);

void msgSetOwned(pelmoMsg* msg);
void msgClearOwned(pelmoMsg* msg);

// Ahead of handing a message to several threads. Nothing needs doing today: counts are atomic, and
// a shared buffer is never written.
[[nodiscard]] pelmoStatus msgPrepareShared(pelmoMsg* msg);

void msgSetLimitAdvisory(pelmoMsg* msg);
[[nodiscard]] bool msgIsLimitAdvisory(const pelmoMsg* msg);

// An entry that takes the place of a request's reply. No queue's limit drops it.
inline void msgSetNoReply(pelmoMsg* msg) {
    msg->limitAdvisory |= 2;
}
[[nodiscard]] inline bool msgIsNoReply(const pelmoMsg* msg) {
    return (msg->limitAdvisory & 2) != 0;
}

// Closed, a message has no envelope: so a change of the outer field "sub" leaves no offset that is
// stale, and one of the application's field "sub" leaves the send subject alone. A lent envelope
// has a send subject, which comes before the nested message. Holds between any two calls.
[[nodiscard]] inline bool msgEnvelopeIsSound(const pelmoMsg* msg) {
    if (msg->dataOffset == 0) {
        return msg->sendSubjectOffset == 0 && msg->replySubjectOffset == 0 &&
               msg->mtypeOffset == 0 && !msg->envelopeIsLent;
    }
    return !msg->envelopeIsLent ||
           (msg->sendSubjectOffset >= kMessageHeadBytes &&
            msg->sendSubjectOffset < msg->dataOffset && msg->replySubjectOffset < msg->dataOffset);
}

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

// Forgets where the envelope's values are and shows the outer fields. The caller has flushed an
// open one.
void msgShowOuter(pelmoMsg* msg);

// Before every change of the image: a buffer that is shared or that reads point into is replaced by
// a copy with `extra` bytes more of room.
[[nodiscard]] pelmoStatus msgMakeWritable(pelmoMsg* msg, uint32_t extra = 0);

// The same before the image is written from scratch: its bytes are lost if others use the buffer.
[[nodiscard]] pelmoStatus msgMakeBlank(pelmoMsg* msg);

// Makes room for `need` bytes after the image of a writable message. Growing at least doubles.
[[nodiscard]] pelmoStatus msgReserve(pelmoMsg* msg, uint64_t need);

// The checks before adding; computes a size of 0.
[[nodiscard]] pelmoStatus msgCheckField(pelmoMsgField& field);

// Bytes that the record of a checked field takes at most. kStatusInvalidSize if the value is too
// long for any size prefix.
[[nodiscard]] pelmoStatus msgRecordNeed(const pelmoMsgField& field, uint64_t& need);

// Writes the record of a checked field after the image, makes room as needed and adds to `length`;
// index and id map stay as they are. The message is writable.
[[nodiscard]] pelmoStatus msgAppendRecord(pelmoMsg* msg, const pelmoMsgField& field);

// Decodes the value of a record, from its type on. Owned data is the caller's, and so is the block
// of a list; what else it points to is in the record, nested messages as their images.
[[nodiscard]] pelmoStatus msgDecodeValue(const uint8_t* type,
                                         const uint8_t* end,
                                         pelmoMsgField& field,
                                         pelmoDisposition& disposition);

// Decodes the field at a position of a parsed message, with its id and without its name. Data that
// the disposition calls owned is the caller's; a nested message is a pointer into the image.
[[nodiscard]] pelmoStatus msgDecodeField(const pelmoMsg* msg,
                                         uint32_t position,
                                         pelmoMsgField& field,
                                         pelmoDisposition& disposition);

enum class NameWanted : bool { kNo, kYes };

// Reads that field, and keeps the data that it points to.
[[nodiscard]] pelmoStatus msgReadField(pelmoMsg* msg,
                                       uint32_t position,
                                       pelmoMsgField& field,
                                       NameWanted nameWanted);

// Position of the field with that name and id, in a parsed message.
[[nodiscard]] pelmoStatus msgFind(const pelmoMsg* msg,
                                  const char* name,
                                  uint16_t id,
                                  uint32_t& position);

// Name of the field at a position of a parsed message; empty for none.
[[nodiscard]] inline std::string_view msgEntryName(const pelmoMsg* msg,
                                                   const FieldIndexEntry& entry) {
    const auto* name = reinterpret_cast<const char*>(msgImage(msg) + entry.nameOffset);
    return {name, entry.nameSize != 0 ? entry.nameSize - 1 : 0};
}

[[nodiscard]] inline std::string_view msgFieldName(const pelmoMsg* msg, uint32_t position) {
    return msgEntryName(msg, msg->index[position]);
}

// The records of the fields that show, one after the other.
[[nodiscard]] inline std::span<const uint8_t> msgRecords(const pelmoMsg* msg) {
    const uint8_t* const image = msgImage(msg);
    return {image + msg->dataOffset + kMessageHeadBytes, image + msg->length};
}

// The text of a field: "" for one of no bytes, which pelmoMsg_GetString gives as null; null where
// there is no field that reads as text.
[[nodiscard]] const char* msgText(pelmoMsg* msg, const char* name);

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

// For the sources of the message and of its envelope alone.

// Makes room for one more entry. The first growth moves the index to the heap.
[[nodiscard]] pelmoStatus msgIndexReserve(pelmoMsg* msg);

// Makes the id map unless there is one.
[[nodiscard]] pelmoStatus msgIdMapReserve(pelmoMsg* msg);

// Position of the instance, from 1, of a name in a parsed message.
[[nodiscard]] pelmoStatus msgFindInstance(const pelmoMsg* msg,
                                          const char* name,
                                          uint32_t instance,
                                          uint32_t& position);

[[nodiscard]] inline uint32_t fieldTypeOffset(const FieldIndexEntry& entry) {
    return entry.nameOffset + entry.nameAreaSize;
}

[[nodiscard]] inline uint32_t fieldRecordOffset(const FieldIndexEntry& entry) {
    return entry.nameOffset - 1;
}

// Where the record of that position ends and the next one begins.
[[nodiscard]] inline uint32_t fieldEndOffset(const pelmoMsg* msg, uint32_t position) {
    return position + 1 < msg->fieldCount ? fieldRecordOffset(msg->index[position + 1])
                                          : msg->length;
}

// Grows the buffer, which is the message's alone, and the capacity.
[[nodiscard]] pelmoStatus msgGrow(pelmoMsg* msg, uint64_t additional);

// Bytes that the value takes, without its size prefix, at most.
[[nodiscard]] uint64_t fieldValueBytes(const pelmoMsgField& field);

// A value that is longer than this has no size prefix.
constexpr uint64_t kMaxValueBytes = UINT32_MAX - 4;

// Byte size of a message that becomes a value. kStatusInvalidArgument for one that isn't sound.
[[nodiscard]] pelmoStatus fieldMessageSize(pelmoMsg* value, uint32_t& size);

// Works out a size of 0 by the type.
[[nodiscard]] pelmoStatus fieldWorkOutSize(pelmoMsgField& field);

// A message may not contain itself.
[[nodiscard]] bool fieldContains(const pelmoMsgField& field, const pelmoMsg* msg);

// Writes type and value at the offset, makes room as needed, and returns where they end. `length`
// stays. On failure only the bytes after the image have changed.
[[nodiscard]] pelmoStatus msgEncodeAt(pelmoMsg* msg,
                                      uint32_t typeOffset,
                                      const pelmoMsgField& field,
                                      uint32_t& endOffset);

// Adds to one of the three arrays of what reads returned, which is made on first use.
[[nodiscard]] pelmoStatus msgListAdd(Dpa*& list, void* item);

// Makes the reads' pointers independent of the present buffer, which is about to be released.
[[nodiscard]] pelmoStatus msgHoldBuffer(pelmoMsg* msg);

// Releases all that reads returned and forgets the marks' counts; the marks themselves stay.
void msgCutBackAll(pelmoMsg* msg);

// Frees the marks and their stack.
void msgDropMarks(pelmoMsg* msg);
