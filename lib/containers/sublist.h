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
// Others may choose what stands in a list. Tables are keyed by seeded hashes, so nobody chooses
// subjects that meet in one bucket. A match of a subject without wildcards meets one node at most
// for each set of places at which the subjects held have "*" as far down as that node, however many
// there are; one with wildcards may meet every node, and `mostSteps` bounds it. Nodes can be
// charged to the account that caused them: see SublistAccount.
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
    struct SublistAccount* payer;  // borrowed; null: nobody
};

// Who pays for nodes. Owned by the caller, and in place until `nodes` is 0. What a list's values
// take isn't in it.
struct SublistAccount {
    uint64_t bytes;  // of the heap, about
    uint32_t nodes;
};

struct SubjectLevel {
    SubjectNode* star;  // these two are among the nodes
    SubjectNode* gt;
    SubjectNode* only;  // where there is one node
    Hash* table;  // else, or null for none: text with its NUL to node, keys borrowed from the nodes
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

    // The user's.
    SublistAccount* payer;            // of nodes that additions make; null: nobody
    void (*unused)(SublistAccount*);  // its last node is gone; null: no matter
    uint32_t mostSteps;               // of a match; 0: no bound
    uint32_t steps;                   // that the last match took
    uint64_t bytes;                   // that all nodes take, about

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

// Null where nothing matches. The order means nothing. A step is a node met, or eight values. Where
// `steps` comes out above `mostSteps`, values are missing.
[[nodiscard]] Dpa* sublistMatch(SubjectList* list, const uint8_t* subject);

// All values; null where there are none.
[[nodiscard]] Dpa* sublistAll(SubjectList* list);

// Each subject that has values: those above a node ahead of those below it.
void sublistVisit(SubjectList* list, SublistVisitor visitor, void* argument);

// The subject that ends at the node; it has to be shorter than `size`, else false.
[[nodiscard]] bool sublistNodeSubject(const SubjectNode* node, uint8_t* buffer, int32_t size);

[[nodiscard]] uint32_t sublistNodeValueCount(const SubjectNode* node);
