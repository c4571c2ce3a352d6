// Subject lists: a tree from packed subjects, wildcards allowed, to lists of values. It finds all
// values whose subjects match a given one: the listeners of a message.
//
//     list -> root level -> node "A" -> values of A
//                             '-> level -> node "B" -> values of A.B
//                                      '-> node ">" -> values of A.>
//
// A level is one set of siblings, a node is one element. A node has values or a level below it, or
// it is gone; a level below a node has at least one node. "*" matches one element, ">" one or more;
// a subject that is matched may hold wildcards itself.
//
// Ownership: a list owns its tree; values belong to the caller and may stand in it more than once.
// What a match gives belongs to the list and is good until the next match.
//
// Failure: an addition that memory fails gives false and leaves no trace. A match that memory cuts
// short gives what it had gathered.
//
// Threads: no lock. Every call, look-ups included, writes to the list: the owner serialises all.
//
// Subjects are packed and well formed (subject.h). One without elements can't be stored and must
// not be passed to sublistFind or sublistRemove.

#pragma once

#include <cstdint>

#include "lib/containers/dpa.h"
#include "lib/containers/hash.h"
#include "lib/containers/subject.h"

struct SubjectLevel;

struct SubjectNode {
    SubjectLevel* child;  // null: nothing below
    Dpa* values;          // of the subject that ends here; null: none
    SubjectNode* parent;  // null at the top
    char* text;           // own copy, with its NUL; the byte ahead of it is the element's size
};

struct SubjectLevel {
    SubjectNode* star;  // these two stand in `table` as well
    SubjectNode* gt;
    Hash* table;  // element text, its NUL counted, to node; keys are borrowed from the nodes
};

// The pools of a list; each may be null.
struct SublistPools {
    ItemPool *level, *node, *text;
    ItemPool *table, *entry, *bucket;
    ItemPool *array, *slot;
};

// A form of 255 bytes holds at most 126 elements.
constexpr uint32_t kSublistDepth = 127;

struct SublistStep {
    const uint8_t* element;
    SubjectNode* node;
    SubjectLevel* level;
};

struct SubjectList {
    SubjectLevel* root;
    Dpa* matches;         // reused by each match
    uint32_t valueCount;  // values in the list
    bool ownsPools;
    SublistPools pools;
    SublistStep path[kSublistDepth];  // of an addition or a removal under way
};

// Receives a subject, its values and the argument. Returns null, or a value to be removed from that
// subject. It must not call into the same list; `subject` and `values` are good for the call.
using SublistVisitor = void* (*)(const uint8_t* subject, Dpa* values, void* argument);

// All from the heap, or from pools of its own. Null when memory runs out.
[[nodiscard]] SubjectList* sublistCreate();
[[nodiscard]] SubjectList* sublistCreatePooled();

// Nothing happens for no list.
void sublistDestroy(SubjectList* list);

// False also for no list, no subject, value 0 and a subject without elements. `node` is optional;
// the node is good until its subject's last value is removed.
[[nodiscard]] bool sublistAdd(SubjectList* list,
                              const uint8_t* subject,
                              void* value,
                              SubjectNode** node);

// The values of exactly this subject, wildcards read as plain text, or null.
[[nodiscard]] Dpa* sublistFind(SubjectList* list, const uint8_t* subject);

// Removes one value, or all of the subject where `value` is null. The number removed; `remaining`,
// optional, receives how many stay.
uint32_t sublistRemove(SubjectList* list, const uint8_t* subject, void* value, uint32_t* remaining);

// Null where nothing matches. The order means nothing.
[[nodiscard]] Dpa* sublistMatch(SubjectList* list, const uint8_t* subject);

// All values; null where there are none.
[[nodiscard]] Dpa* sublistAll(SubjectList* list);

// Each subject that has values: those above a node ahead of those below it.
void sublistVisit(SubjectList* list, SublistVisitor visitor, void* argument);

// The subject that ends at the node; it has to be shorter than `size`, else false.
[[nodiscard]] bool sublistNodeSubject(const SubjectNode* node, uint8_t* buffer, int32_t size);

[[nodiscard]] uint32_t sublistNodeValueCount(const SubjectNode* node);
