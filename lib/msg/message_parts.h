// What the sources of the message object, its envelope among them, share; nobody else includes
// this.

#pragma once

#include <cstdint>

#include "lib/msg/message.h"

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

// Writes type and value at the offset, makes room as it goes, and tells where they end. `length` is
// left alone. On failure nothing of the message has changed but the bytes behind its image.
[[nodiscard]] pelmoStatus msgEncodeAt(pelmoMsg* msg,
                                      uint32_t typeOffset,
                                      const pelmoMsgField& field,
                                      uint32_t& endOffset);

// Adds to one of the three arrays of what reads handed out, which is made on the first need.
[[nodiscard]] pelmoStatus msgListAdd(Dpa*& list, void* item);

// Makes the reads' pointers independent of the present buffer, which is about to be let go.
[[nodiscard]] pelmoStatus msgHoldBuffer(pelmoMsg* msg);

// Lets go of all that reads handed out and forgets the marks' counts; the marks themselves stay.
void msgCutBackAll(pelmoMsg* msg);

// Frees the marks and their stack.
void msgDropMarks(pelmoMsg* msg);
