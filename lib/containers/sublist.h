// Subject lists: a tree from packed subjects, wildcards allowed, to lists of values. It finds all
// values whose subjects match a given one: the listeners of a message.
//
//     list -> root level -> node "A" -> values of A
//                             '-> level -> node "B" -> values of A.B
//                                      '-> node ">" -> values of A.>
//
// A level is one set of siblings, a node is one element. A node without values and without a level
// below it is removed; a level below a node has at least one node. "*" matches one element, ">" one
// or more; a subject that is matched may hold wildcards itself.
//
// Ownership: a list owns its tree; values belong to the caller and may be in it more than once. The
// result of a match belongs to the list and is valid until the next match.
//
// Peers may choose the subjects of a list. Tables are keyed by seeded hashes, so no peer chooses
// subjects that meet in one bucket. A match of a subject without wildcards meets one node at most
// for each set of places at which the subjects held have "*" as far down as that node, however many
// there are; one with wildcards may meet every node, and `mostSteps` bounds it. Nodes can be
// charged to the account that caused them: see SublistAccount.
//
// Failure: an addition without memory returns false and changes nothing. A match that runs out of
// memory returns what it has found so far.
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
    SubjectLevel* child;  // null: no level below
    Dpa* values;          // of the subject that ends here; null: none
    SubjectNode* parent;  // null at the top
    char* text;           // own copy, with its NUL; the byte before it is the element's size
    struct SublistAccount* payer;  // borrowed; null: none
};

// The account that nodes are charged to. The caller owns it and keeps it until `nodes` is 0. The
// memory of values isn't counted.
struct SublistAccount {
    uint64_t bytes;  // of the heap, about
    uint32_t nodes;
};

struct SubjectLevel {
    SubjectNode* star;  // these two are among the nodes
    SubjectNode* gt;
    SubjectNode* only;  // if there is one node
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
    SublistAccount* payer;            // of nodes that additions make; null: none
    void (*unused)(SublistAccount*);  // called after its last node is gone; may be null
    uint32_t mostSteps;               // of a match; 0: no bound
    uint32_t steps;                   // that the last match took
    uint64_t bytes;                   // that all nodes take, about

    SublistStep path[kSublistDepth];  // of an addition or a removal under way
};

// Receives a subject, its values and the argument. Returns null, or a value to be removed from that
// subject. It must not call into the same list; `subject` and `values` are valid during the call.
using SublistVisitor = void* (*)(const uint8_t* subject, Dpa* values, void* argument);

// All from the heap, or from pools of its own. Null when memory runs out.
[[nodiscard]] SubjectList* sublistCreate();
[[nodiscard]] SubjectList* sublistCreatePooled();

// Null is allowed.
void sublistDestroy(SubjectList* list);

// False also for a null list or subject, value 0 and a subject without elements. `node` is
// optional; the node is valid until its subject's last value is removed.
[[nodiscard]] bool sublistAdd(SubjectList* list,
                              const uint8_t* subject,
                              void* value,
                              SubjectNode** node);

// The values of exactly this subject, wildcards read as plain text, or null.
[[nodiscard]] Dpa* sublistFind(SubjectList* list, const uint8_t* subject);

// Removes one value, or all of the subject where `value` is null. The number removed; `remaining`,
// optional, receives how many stay.
uint32_t sublistRemove(SubjectList* list, const uint8_t* subject, void* value, uint32_t* remaining);

// Null where nothing matches. The order has no meaning. A step is a node met, or eight values. If
// `steps` exceeds `mostSteps`, values are missing.
[[nodiscard]] Dpa* sublistMatch(SubjectList* list, const uint8_t* subject);

// All values; null if there are none.
[[nodiscard]] Dpa* sublistAll(SubjectList* list);

// Calls for each subject that has values, for those above a node before those below it.
void sublistVisit(SubjectList* list, SublistVisitor visitor, void* argument);

// The subject that ends at the node; it has to be shorter than `size`, else false.
[[nodiscard]] bool sublistNodeSubject(const SubjectNode* node, uint8_t* buffer, int32_t size);

[[nodiscard]] uint32_t sublistNodeValueCount(const SubjectNode* node);
