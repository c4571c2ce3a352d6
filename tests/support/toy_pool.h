// Fake pools that count, in place of the real ones, which are a floor above the containers. Each
// item is a heap block of its own, so that the sanitizers see an access beyond it or after its
// release, and so that a take can be made to fail.

#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

#include "lib/containers/pool_seam.h"
#include "tests/support/test.h"

struct ToyPool : NoCopy {
    explicit ToyPool(uint32_t payloadBytes) {
        static constexpr PoolOps kOps = {
            .take =
                [](void* pool) {
                    auto* self = static_cast<ToyPool*>(pool);
                    void* item = std::malloc(self->seam.payloadBytes);
                    if (item != nullptr) ++self->itemsHeld;
                    return item;
                },
            .give =
                [](void* pool, void* item) {
                    --static_cast<ToyPool*>(pool)->itemsHeld;
                    std::free(item);
                },
        };
        seam = {&kOps, this, payloadBytes};
    }
    ~ToyPool() { EXPECT_EQ(itemsHeld, 0u); }

    ItemPool seam{};
    size_t itemsHeld = 0;
};

// While it exists, containers can make pools of their own.
struct ToyPoolMaker : NoCopy {
    ToyPoolMaker() {
        current = this;
        poolMakerOps = {
            .create = [](uint32_t itemBytes, uint32_t itemsPerBlock) -> ItemPool* {
                EXPECT_EQ(itemsPerBlock, 100u);
                void* budget = std::malloc(1);
                std::free(budget);
                if (budget == nullptr) return nullptr;
                current->sizes.push_back(itemBytes);
                current->pools.push_back(new ToyPool(itemBytes - kPoolOwnerBytes));
                ++current->alive;
                return &current->pools.back()->seam;
            },
            .destroy =
                [](ItemPool* pool) {
                    delete static_cast<ToyPool*>(pool->pool);
                    --current->alive;
                },
        };
    }
    ~ToyPoolMaker() {
        poolMakerOps = {};
        EXPECT_EQ(alive, 0);
    }

    // Items that the pools have given out.
    std::vector<size_t> held() const {
        std::vector<size_t> all;
        for (const ToyPool* pool : pools) {
            all.push_back(pool->itemsHeld);
        }
        return all;
    }

    static inline ToyPoolMaker* current = nullptr;
    std::vector<uint32_t> sizes;  // item bytes of all pools ever made, in order
    std::vector<ToyPool*> pools;  // the same; those destroyed dangle
    int alive = 0;
};
