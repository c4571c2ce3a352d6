#include "lib/containers/item_pool.h"

PoolMakerOps poolMakerOps = {};

namespace {

constexpr uint32_t kItemsPerBlock = 100;
constexpr size_t kMostRequests = 8;

}  // namespace

bool poolsMake(std::span<const PoolRequest> requests) {
    if (poolMakerOps.create == nullptr || requests.size() > kMostRequests) return false;

    ItemPool* made[kMostRequests] = {};
    for (size_t i = 0; i < requests.size(); ++i) {
        if (requests[i].out == nullptr) continue;
        made[i] = poolMakerOps.create(requests[i].itemBytes, kItemsPerBlock);
        if (made[i] != nullptr) continue;
        while (i-- > 0) {
            poolUnmake(made[i]);
        }
        return false;
    }
    for (size_t i = 0; i < requests.size(); ++i) {
        if (requests[i].out != nullptr) *requests[i].out = made[i];
    }
    return true;
}

void poolUnmake(ItemPool* pool) {
    if (pool != nullptr) poolMakerOps.destroy(pool);
}
