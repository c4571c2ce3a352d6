#include "lib/containers/sublist.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "lib/containers/probe_index.h"

namespace {

constexpr uint32_t kFirstMatches = 4;
constexpr uint32_t kTextItemBytes = 32;

// The smallest table. A level gets one with its second node.
constexpr uint32_t kLevelBuckets = 2;

// What a node takes besides its text: itself, and its level or its place in one.
constexpr uint32_t kNodeBytes = 112;
constexpr uint32_t kHeapHeadBytes = 8;
constexpr uint32_t kHeapUnitBytes = 16;

// Eight values cost as much as a node that isn't in the cache.
constexpr uint32_t kValuesPerStep = 8;

SubjectLevel* createLevel(const SublistPools& pools) {
    auto* level = static_cast<SubjectLevel*>(itemTake(pools.level, sizeof(SubjectLevel)));
    if (level == nullptr) return nullptr;
    *level = {};
    return level;
}

// An empty level.
void giveLevel(const SublistPools& pools, SubjectLevel* level) {
    hashDestroy(level->table);
    itemGive(pools.level, level, sizeof(SubjectLevel));
}

// A node keeps its whole element, size and all, so that its subject can be rebuilt to the byte.
char* copyElement(const SublistPools& pools, const uint8_t* element) {
    auto* copy = static_cast<char*>(itemTake(pools.text, element[0]));
    if (copy == nullptr) return nullptr;
    std::memcpy(copy, element, element[0]);
    return copy + 1;
}

uint8_t elementSize(const SubjectNode* node) {
    return static_cast<uint8_t>(node->text[-1]);
}

// A node that has neither values nor a level below.
void giveNode(const SublistPools& pools, SubjectNode* node) {
    itemGive(pools.text, node->text - 1, elementSize(node));
    itemGive(pools.node, node, sizeof(SubjectNode));
}

// Keys of a level's table: the text with its NUL.
uint32_t keyLength(uint32_t elementBytes) {
    return elementBytes - 1;
}

// Seeded, and never 0, which would ask the table for its own.
uint32_t keyHash(const char* text, uint32_t elementBytes) {
    const auto* key = reinterpret_cast<const uint8_t*>(text);
    const uint32_t hash = probeHashBytes(key, keyLength(elementBytes));
    return hash == 0 ? 1 : hash;
}

bool isElement(const SubjectNode* node, const uint8_t* element) {
    return elementSize(node) == element[0] &&
           std::memcmp(node->text, element + 1, element[0] - 1u) == 0;
}

bool levelIsEmpty(const SubjectLevel* level) {
    return level->only == nullptr && level->table == nullptr;
}

bool tablePut(Hash* table, SubjectNode* node, void* value) {
    const uint32_t size = elementSize(node);
    return hashPut(table, node->text, keyLength(size), keyHash(node->text, size), false, value);
}

// The second node brings the table.
bool makeTable(const SublistPools& pools, SubjectLevel* level, SubjectNode* node) {
    Hash* table =
        hashCreateWithPools(kLevelBuckets, pools.table, pools.entry, nullptr, pools.bucket);
    if (table == nullptr) return false;
    if (!tablePut(table, level->only, level->only) || !tablePut(table, node, node)) {
        hashDestroy(table);
        return false;
    }
    level->table = table;
    level->only = nullptr;
    return true;
}

bool putNode(const SublistPools& pools, SubjectLevel* level, SubjectNode* node) {
    if (level->table != nullptr) return tablePut(level->table, node, node);
    if (level->only != nullptr) return makeTable(pools, level, node);
    level->only = node;
    return true;
}

// The last node but one takes the table with it.
void takeNode(SubjectLevel* level, SubjectNode* node) {
    if (level->only == node) {
        level->only = nullptr;
        return;
    }
    tablePut(level->table, node, nullptr);
    if (level->table->count > 1) return hashFit(level->table);
    HashIterator iterator;
    hashIterInit(level->table, &iterator);
    void* last = nullptr;
    (void)hashIterNext(&iterator, nullptr, nullptr, &last);
    hashDestroy(level->table);
    level->table = nullptr;
    level->only = static_cast<SubjectNode*>(last);
}

// The nodes of a level, in turn; the one last given may be taken out.
struct LevelWalk {
    SubjectLevel* level;
    HashIterator iterator;  // of its table, where it has one
    bool isOver;
};

LevelWalk walkOf(SubjectLevel* level) {
    LevelWalk walk = {.level = level, .iterator = {}, .isOver = false};
    if (level->table != nullptr) hashIterInit(level->table, &walk.iterator);
    return walk;
}

SubjectNode* nextNode(LevelWalk& walk) {
    if (walk.level->table == nullptr) {
        return std::exchange(walk.isOver, true) ? nullptr : walk.level->only;
    }
    void* node = nullptr;
    return hashIterNext(&walk.iterator, nullptr, nullptr, &node) ? static_cast<SubjectNode*>(node)
                                                                 : nullptr;
}

// A table stays until the walk is over.
void takeWalked(LevelWalk& walk) {
    if (walk.level->table == nullptr) {
        walk.level->only = nullptr;
    } else {
        hashIterRemove(&walk.iterator);
    }
}

void endWalk(LevelWalk& walk) {
    Hash* table = walk.level->table;
    if (table == nullptr || table->count != 0) return;
    hashDestroy(table);
    walk.level->table = nullptr;
}

uint32_t nodeBytes(const SubjectNode* node) {
    const uint32_t held = elementSize(node) + kHeapHeadBytes + kHeapUnitBytes - 1;
    return kNodeBytes + std::max(held / kHeapUnitBytes * kHeapUnitBytes, 2 * kHeapUnitBytes);
}

void charge(SubjectList* list, SubjectNode* node) {
    list->bytes += nodeBytes(node);
    node->payer = list->payer;
    if (node->payer == nullptr) return;
    node->payer->bytes += nodeBytes(node);
    ++node->payer->nodes;
}

// Frees a node that was charged for.
void dropNode(SubjectList* list, SubjectNode* node) {
    SublistAccount* payer = node->payer;
    list->bytes -= nodeBytes(node);
    if (payer != nullptr) payer->bytes -= nodeBytes(node);
    giveNode(list->pools, node);
    if (payer != nullptr && --payer->nodes == 0 && list->unused != nullptr) list->unused(payer);
}

SubjectNode* findNode(const SubjectLevel* level, const uint8_t* element) {
    if (subjectElementIs(element, '*')) return level->star;
    if (subjectElementIs(element, '>')) return level->gt;
    if (level->table == nullptr) {
        return level->only != nullptr && isElement(level->only, element) ? level->only : nullptr;
    }
    const auto* text = reinterpret_cast<const char*>(element + 1);
    return static_cast<SubjectNode*>(
        hashFind(level->table, text, keyLength(element[0]), keyHash(text, element[0])));
}

SubjectNode* createNode(SubjectList* list,
                        SubjectLevel* level,
                        SubjectNode* parent,
                        const uint8_t* element) {
    const SublistPools& pools = list->pools;
    auto* node = static_cast<SubjectNode*>(itemTake(pools.node, sizeof(SubjectNode)));
    if (node == nullptr) return nullptr;
    *node = {.child = nullptr,
             .values = nullptr,
             .parent = parent,
             .text = copyElement(pools, element),
             .payer = nullptr};
    if (node->text == nullptr) {
        itemGive(pools.node, node, sizeof(SubjectNode));
        return nullptr;
    }
    if (!putNode(pools, level, node)) {
        giveNode(pools, node);
        return nullptr;
    }
    charge(list, node);
    if (subjectElementIs(element, '*')) level->star = node;
    if (subjectElementIs(element, '>')) level->gt = node;
    return node;
}

void forgetWildcard(SubjectLevel* level, const SubjectNode* node) {
    if (level->star == node) level->star = nullptr;
    if (level->gt == node) level->gt = nullptr;
}

// Frees the level at this depth of the path if it is empty and not the root.
bool pruneLevel(SubjectList* list, uint32_t depth) {
    SubjectLevel* level = list->path[depth].level;
    if (depth == 0 || !levelIsEmpty(level)) return false;
    giveLevel(list->pools, level);
    list->path[depth - 1].node->child = nullptr;
    return true;
}

// Frees what the path's end no longer needs, from this depth upwards.
void pruneNodes(SubjectList* list, uint32_t depth) {
    for (;; --depth) {
        const SublistStep& step = list->path[depth];
        if (step.node->child != nullptr || step.node->values != nullptr) return;
        takeNode(step.level, step.node);
        forgetWildcard(step.level, step.node);
        dropNode(list, step.node);
        if (!pruneLevel(list, depth)) return;
    }
}

// Finds or makes the nodes of a subject. Null when memory runs out; no new node stays then.
SubjectNode* makePath(SubjectList* list, const uint8_t* subject) {
    const uint32_t count = subjectElementCount(subject);
    const uint8_t* element = subjectFirst(subject);
    SubjectLevel* level = list->root;
    SubjectNode* parent = nullptr;
    for (uint32_t depth = 0;; ++depth) {
        SubjectNode* node = findNode(level, element);
        if (node == nullptr) node = createNode(list, level, parent, element);
        list->path[depth] = {element, node, level};
        if (node == nullptr) {
            if (pruneLevel(list, depth)) pruneNodes(list, depth - 1);
            return nullptr;
        }
        if (depth + 1 == count) return node;

        if (node->child == nullptr) node->child = createLevel(list->pools);
        if (node->child == nullptr) {
            pruneNodes(list, depth);
            return nullptr;
        }
        level = node->child;
        parent = node;
        element = subjectNext(element);
    }
}

// Notes the path of a subject that is there; null where it breaks.
SubjectNode* findPath(SubjectList* list, const uint8_t* subject) {
    const uint32_t count = subjectElementCount(subject);
    if (count == 0 || count > kSublistDepth) return nullptr;
    const uint8_t* element = subjectFirst(subject);
    SubjectLevel* level = list->root;
    for (uint32_t depth = 0; level != nullptr; ++depth) {
        SubjectNode* node = findNode(level, element);
        list->path[depth] = {element, node, level};
        if (node == nullptr || depth + 1 == count) return node;
        level = node->child;
        element = subjectNext(element);
    }
    return nullptr;
}

// Removes one value; values that this leaves empty go with it.
uint32_t removeValue(SubjectList* list, SubjectNode* node, const void* value) {
    if (dpaRemoveValue(node->values, value) < 0) return 0;
    --list->valueCount;
    if (node->values->count == 0) node->values = dpaDestroy(node->values);
    return 1;
}

uint32_t removeAllValues(SubjectList* list, SubjectNode* node) {
    const uint32_t removed = node->values->count;
    list->valueCount -= removed;
    node->values = dpaDestroy(node->values);
    return removed;
}

// One more node is met. False where that is too many.
bool step(SubjectList* list) {
    return ++list->steps <= list->mostSteps || list->mostSteps == 0;
}

void appendValues(SubjectList* list, const SubjectNode* node) {
    if (node == nullptr || node->values == nullptr) return;
    list->steps += node->values->count / kValuesPerStep;
    (void)dpaAppendAll(list->matches, node->values);  // what memory can't hold is left out
}

// All values at a level and below.
void collect(SubjectList* list, SubjectLevel* level) {
    LevelWalk walk = walkOf(level);
    while (const SubjectNode* node = nextNode(walk)) {
        if (!step(list)) return;
        appendValues(list, node);
        if (node->child != nullptr) collect(list, node->child);
    }
}

void matchFrom(SubjectList* list, SubjectLevel* level, const uint8_t* element, uint32_t left);

// A "*" in the subject: each node of the level in turn.
void matchAnyNode(SubjectList* list, SubjectLevel* level, const uint8_t* element, uint32_t left) {
    LevelWalk walk = walkOf(level);
    while (const SubjectNode* node = nextNode(walk)) {
        if (!step(list)) return;
        if (left == 1 || node == level->gt) {
            appendValues(list, node);
        } else if (node->child != nullptr) {
            matchFrom(list, node->child, subjectNext(element), left - 1);
        }
    }
}

// Matches the `left` elements that begin at `element`. No node is met twice, so the work is bounded
// by the tree, and the depth of the recursion by the subject.
void matchFrom(SubjectList* list, SubjectLevel* level, const uint8_t* element, uint32_t left) {
    for (;; element = subjectNext(element), --left) {
        if (subjectElementIs(element, '>')) return collect(list, level);
        if (subjectElementIs(element, '*')) return matchAnyNode(list, level, element, left);
        if (!step(list)) return;

        appendValues(list, level->gt);
        SubjectNode* node = findNode(level, element);
        SubjectNode* star = level->star;
        if (left == 1) {
            appendValues(list, node);
            appendValues(list, star);
            return;
        }

        const bool starLeadsOn = star != nullptr && star->child != nullptr;
        if (node != nullptr && node->child != nullptr) {
            if (starLeadsOn) matchFrom(list, star->child, subjectNext(element), left - 1);
            level = node->child;
        } else {
            if (!starLeadsOn) return;
            level = star->child;
        }
    }
}

// One visit over a list.
struct Visit {
    SubjectList* list;
    SublistVisitor visitor;
    void* argument;
    uint8_t subject[kSubjectMaxBytes + 1];
};

void visitLevel(Visit& visit, SubjectLevel* level);

void visitNode(Visit& visit, SubjectNode* node) {
    if (node->values != nullptr) {
        void* unwanted = visit.visitor(visit.subject, node->values, visit.argument);
        if (unwanted != nullptr) removeValue(visit.list, node, unwanted);
    }
    if (node->child == nullptr) return;
    visitLevel(visit, node->child);
    if (!levelIsEmpty(node->child)) return;
    giveLevel(visit.list->pools, node->child);
    node->child = nullptr;
}

void visitLevel(Visit& visit, SubjectLevel* level) {
    uint8_t head[kSubjectHeadBytes];
    std::memcpy(head, visit.subject, sizeof head);

    LevelWalk walk = walkOf(level);
    while (SubjectNode* node = nextNode(walk)) {
        const size_t length = elementSize(node) - size_t{2};
        if (subjectAppendBytes(visit.subject, sizeof visit.subject, node->text, length) < 0)
            continue;
        visitNode(visit, node);
        if (node->values == nullptr && node->child == nullptr) {
            takeWalked(walk);
            forgetWildcard(level, node);
            dropNode(visit.list, node);
        }
        std::memcpy(visit.subject, head, sizeof head);
    }
    endWalk(walk);
}

void destroyLevel(const SublistPools& pools, SubjectLevel* level) {
    LevelWalk walk = walkOf(level);
    while (SubjectNode* node = nextNode(walk)) {
        if (node->child != nullptr) destroyLevel(pools, node->child);
        dpaDestroy(node->values);
        takeWalked(walk);  // the entry's key lies in the node
        giveNode(pools, node);
    }
    giveLevel(pools, level);
}

void unmakePools(const SublistPools& pools) {
    for (ItemPool* pool : {pools.level, pools.node, pools.text, pools.table, pools.entry,
                           pools.bucket, pools.array, pools.slot}) {
        poolUnmake(pool);
    }
}

SubjectList* createWith(const SublistPools& pools) {
    auto* list = static_cast<SubjectList*>(std::calloc(1, sizeof(SubjectList)));
    if (list == nullptr) return nullptr;
    list->pools = pools;
    list->matches = dpaCreate(kFirstMatches);
    if (list->matches != nullptr) list->root = createLevel(pools);
    if (list->root != nullptr) return list;
    dpaDestroy(list->matches);
    std::free(list);
    return nullptr;
}

}  // namespace

SubjectList* sublistCreate() {
    return createWith({});
}

SubjectList* sublistCreatePooled() {
    SublistPools pools = {};
    const PoolRequest requests[] = {
        {&pools.level, sizeof(SubjectLevel) + kPoolOwnerBytes},
        {&pools.node, sizeof(SubjectNode) + kPoolOwnerBytes},
        {&pools.text, kTextItemBytes},
        {&pools.table, kHashTableItemBytes},
        {&pools.entry, kHashEntryItemBytes},
        {&pools.bucket, kHashBucketItemBytes},
        {&pools.array, sizeof(Dpa) + kPoolOwnerBytes},
        {&pools.slot, sizeof(void*) + kPoolOwnerBytes},
    };
    if (!poolsMake(requests)) return nullptr;
    SubjectList* list = createWith(pools);
    if (list == nullptr) {
        unmakePools(pools);
        return nullptr;
    }
    list->ownsPools = true;
    return list;
}

void sublistDestroy(SubjectList* list) {
    if (list == nullptr) return;
    destroyLevel(list->pools, list->root);
    dpaDestroy(list->matches);
    if (list->ownsPools) unmakePools(list->pools);
    std::free(list);
}

bool sublistAdd(SubjectList* list, const uint8_t* subject, void* value, SubjectNode** node) {
    if (list == nullptr || subject == nullptr || value == nullptr) return false;
    const uint32_t count = subjectElementCount(subject);
    if (count == 0 || count > kSublistDepth) return false;

    SubjectNode* last = makePath(list, subject);
    if (last == nullptr) return false;
    if (last->values == nullptr) {
        last->values = dpaCreateWithPools(1, list->pools.array, list->pools.slot);
    }
    if (last->values == nullptr || !dpaAppend(last->values, value)) {
        pruneNodes(list, count - 1);
        return false;
    }
    ++list->valueCount;
    if (node != nullptr) *node = last;
    return true;
}

Dpa* sublistFind(SubjectList* list, const uint8_t* subject) {
    const SubjectNode* node = findPath(list, subject);
    return node == nullptr ? nullptr : node->values;
}

uint32_t sublistRemove(SubjectList* list,
                       const uint8_t* subject,
                       void* value,
                       uint32_t* remaining) {
    SubjectNode* node = findPath(list, subject);
    uint32_t removed = 0;
    if (node != nullptr && node->values != nullptr) {
        removed = value == nullptr ? removeAllValues(list, node) : removeValue(list, node, value);
    }
    if (remaining != nullptr) *remaining = node == nullptr ? 0 : sublistNodeValueCount(node);
    if (removed != 0) pruneNodes(list, subjectElementCount(subject) - 1);
    return removed;
}

Dpa* sublistMatch(SubjectList* list, const uint8_t* subject) {
    list->matches->count = 0;
    list->steps = 0;
    const uint32_t count = subjectElementCount(subject);
    if (count != 0) matchFrom(list, list->root, subjectFirst(subject), count);
    return list->matches->count == 0 ? nullptr : list->matches;
}

Dpa* sublistAll(SubjectList* list) {
    list->matches->count = 0;
    list->steps = 0;
    const uint32_t most = std::exchange(list->mostSteps, 0);
    collect(list, list->root);
    list->mostSteps = most;
    return list->matches->count == 0 ? nullptr : list->matches;
}

void sublistVisit(SubjectList* list, SublistVisitor visitor, void* argument) {
    Visit visit = {.list = list, .visitor = visitor, .argument = argument, .subject = {}};
    (void)subjectInit(visit.subject, sizeof visit.subject);
    visitLevel(visit, list->root);
}

bool sublistNodeSubject(const SubjectNode* node, uint8_t* buffer, int32_t size) {
    if (subjectInit(buffer, size) < 0) return false;
    const SubjectNode* path[kSublistDepth];
    uint32_t depth = 0;
    for (; node != nullptr && depth < kSublistDepth; node = node->parent) {
        path[depth++] = node;
    }
    while (depth > 0) {
        const SubjectNode* step = path[--depth];
        const size_t length = elementSize(step) - size_t{2};
        if (subjectAppendBytes(buffer, size, step->text, length) < 0) return false;
    }
    return true;
}

uint32_t sublistNodeValueCount(const SubjectNode* node) {
    return node->values == nullptr ? 0 : node->values->count;
}
