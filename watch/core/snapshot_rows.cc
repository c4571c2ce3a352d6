#include "watch/core/snapshot_rows.h"

#include <cstring>

#include "lib/containers/probe_index.h"
#include "lib/containers/subject.h"

namespace {

uint64_t hashOfSubject(const uint8_t* subject) {
    constexpr size_t kBlockBytes = 16;
    const size_t length = subjectLength(subject);
    uint64_t state = length;
    size_t at = 0;
    for (; length - at >= kBlockBytes; at += kBlockBytes) {
        state = probeMixBlock(subject + at, state ^ probeSeed.first);
    }
    return probeMix(state ^ probeSeed.first,
                    probeMixFew(subject + at, length - at) ^ probeSeed.second);
}

bool isSameSubject(const uint8_t* left, const uint8_t* right) {
    if (left == nullptr || right == nullptr) return left == right;
    const size_t length = subjectLength(left);
    return subjectLength(right) == length && std::memcmp(left, right, length) == 0;
}

}  // namespace

uint64_t rowKeyHash(const RowKey& key) {
    const uint64_t place = uint64_t{key.group} << 32 | key.host;
    const uint64_t rest = uint64_t{key.scid} << 32 | uint32_t{key.port} << 16 |
                          static_cast<uint32_t>(key.table) << 8 | (key.hasHost ? 1u : 0u);
    const uint64_t hash = probeMix(place ^ probeSeed.first, rest ^ probeSeed.second);
    if (key.subject == nullptr) return hash;
    return probeMix(hash ^ probeSeed.second, hashOfSubject(key.subject) ^ probeSeed.first);
}

bool rowKeysAreSame(const RowKey& left, const RowKey& right) {
    return left.table == right.table && left.hasHost == right.hasHost && left.port == right.port &&
           left.scid == right.scid && left.group == right.group && left.host == right.host &&
           isSameSubject(left.subject, right.subject);
}
