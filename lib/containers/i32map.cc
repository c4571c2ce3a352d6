#include "lib/containers/i32map.h"

#include <bit>
#include <cstdlib>
#include <cstring>

namespace {

constexpr uint32_t kMostBuckets = 1u << 31;
constexpr uint32_t kFirstSpares = 4;

I32MapNode** takeBuckets(uint32_t bucketCount, const ItemPool* bucketPool) {
    if (bucketCount > 1) {
        return static_cast<I32MapNode**>(std::calloc(bucketCount, sizeof(I32MapNode*)));
    }
    auto** bucket = static_cast<I32MapNode**>(itemTake(bucketPool, sizeof(I32MapNode*)));
    if (bucket != nullptr) *bucket = nullptr;
    return bucket;
}

void giveBuckets(I32Map* map) {
    const ItemPool* pool = map->bucketCount == 1 ? map->bucketPool : nullptr;
    itemGive(pool, map->buckets, map->bucketCount * sizeof(I32MapNode*));
}

void giveNode(const I32Map* map, I32MapNode* node) {
    itemGive(map->nodePool, node, sizeof(I32MapNode));
}

I32MapNode* takeNode(I32Map* map) {
    if (map->spare != nullptr && map->spare->count > 0) {
        return static_cast<I32MapNode*>(map->spare->items[--map->spare->count]);
    }
    return static_cast<I32MapNode*>(itemTake(map->nodePool, sizeof(I32MapNode)));
}

// Keeps the node for later use if there is room to record it.
void spareNode(I32Map* map, I32MapNode* node) {
    if (map->spare == nullptr) map->spare = dpaCreate(kFirstSpares);
    if (map->spare == nullptr || !dpaAppend(map->spare, node)) giveNode(map, node);
}

// Empties all buckets, each node by way of `release`.
void emptyBuckets(I32Map* map, void (*release)(I32Map* map, I32MapNode* node)) {
    for (uint32_t i = 0; i < map->bucketCount; ++i) {
        for (I32MapNode* node = map->buckets[i]; node != nullptr;) {
            I32MapNode* next = node->next;
            release(map, node);
            node = next;
        }
        map->buckets[i] = nullptr;
    }
}

void push(I32Map* map, I32MapNode* node) {
    I32MapNode** head = &map->buckets[node->key & map->mask];
    node->next = *head;
    *head = node;
}

// Doubles the buckets. Current nodes move over; stale ones are not worth a place.
pelmoStatus grow(I32Map* map) {
    if (map->bucketCount == kMostBuckets) return kStatusNoMemory;
    I32Map grown = *map;
    grown.bucketCount = map->bucketCount * 2;
    grown.mask = grown.bucketCount - 1;
    grown.buckets = takeBuckets(grown.bucketCount, nullptr);
    if (grown.buckets == nullptr) return kStatusNoMemory;

    for (uint32_t i = 0; i < map->bucketCount; ++i) {
        for (I32MapNode* node = map->buckets[i]; node != nullptr;) {
            I32MapNode* next = node->next;
            if (node->generation == map->generation) {
                push(&grown, node);
            } else {
                giveNode(map, node);
            }
            node = next;
        }
    }
    giveBuckets(map);
    *map = grown;
    return kStatusSuccess;
}

}  // namespace

bool i32mapCreatePools(ItemPool** mapPool, ItemPool** nodePool, ItemPool** bucketPool) {
    const PoolRequest requests[] = {
        {mapPool, sizeof(I32Map) + kPoolOwnerBytes},
        {nodePool, sizeof(I32MapNode) + kPoolOwnerBytes},
        {bucketPool, sizeof(I32MapNode*) + kPoolOwnerBytes},
    };
    return poolsMake(requests);
}

I32Map* i32mapCreate(uint32_t buckets,
                     const ItemPool* mapPool,
                     const ItemPool* nodePool,
                     const ItemPool* bucketPool) {
    if (buckets == 0 || buckets > kMostBuckets) return nullptr;
    auto* map = static_cast<I32Map*>(itemTake(mapPool, sizeof(I32Map)));
    if (map == nullptr) return nullptr;

    *map = {};
    map->bucketCount = std::bit_ceil(buckets);
    map->mask = map->bucketCount - 1;
    map->mapPool = mapPool;
    map->nodePool = nodePool;
    map->bucketPool = bucketPool;
    map->buckets = takeBuckets(map->bucketCount, bucketPool);
    if (map->buckets != nullptr) return map;
    itemGive(mapPool, map, sizeof(I32Map));
    return nullptr;
}

void i32mapDestroy(I32Map* map) {
    if (map == nullptr) return;
    emptyBuckets(map, [](I32Map* owner, I32MapNode* node) { giveNode(owner, node); });
    for (uint32_t i = 0; map->spare != nullptr && i < map->spare->count; ++i) {
        giveNode(map, static_cast<I32MapNode*>(map->spare->items[i]));
    }
    dpaDestroy(map->spare);
    giveBuckets(map);
    itemGive(map->mapPool, map, sizeof(I32Map));
}

pelmoStatus i32mapClear(I32Map* map) {
    if (map == nullptr) return kStatusInvalidArgument;
    map->count = 0;
    // At the wrap no node may stay: one of a generation that begins again would pass for current.
    if (++map->generation == 0) emptyBuckets(map, spareNode);
    return kStatusSuccess;
}

pelmoStatus i32mapFind(const I32Map* map, uint32_t key, uint32_t* value) {
    if (map == nullptr) return kStatusInvalidArgument;
    const I32MapNode* node = map->buckets[key & map->mask];
    for (; node != nullptr && node->generation == map->generation; node = node->next) {
        if (node->key != key) continue;
        if (value != nullptr) *value = node->value;
        return kStatusSuccess;
    }
    return kStatusNotFound;
}

pelmoStatus i32mapSet(I32Map* map, uint32_t key, uint32_t value) {
    if (map == nullptr) return kStatusInvalidArgument;
    for (I32MapNode* node = map->buckets[key & map->mask]; node != nullptr; node = node->next) {
        if (node->generation != map->generation) {
            *node = {node->next, value, key, map->generation};
            ++map->count;
            return kStatusSuccess;
        }
        if (node->key == key) {
            node->value = value;
            return kStatusSuccess;
        }
    }

    // It may be larger: keys that found empty slots didn't ask.
    if (map->count >= map->bucketCount) {
        const pelmoStatus status = grow(map);
        if (status != kStatusSuccess) return status;
    }
    I32MapNode* node = takeNode(map);
    if (node == nullptr) return kStatusNoMemory;
    *node = {nullptr, value, key, map->generation};
    push(map, node);
    ++map->count;
    return kStatusSuccess;
}

void i32mapRemove(I32Map* map, uint32_t key) {
    if (map == nullptr) return;
    I32MapNode** link = &map->buckets[key & map->mask];
    for (; *link != nullptr && (*link)->generation == map->generation; link = &(*link)->next) {
        I32MapNode* node = *link;
        if (node->key != key) continue;
        *link = node->next;
        --map->count;
        giveNode(map, node);
        return;
    }
}
