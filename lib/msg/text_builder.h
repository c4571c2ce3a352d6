// A text in the making, in a heap block that grows about threefold at a time.
//
// Ownership: the builder frees its block unless it was released.
//
// Failure: false when memory runs out, or at 2 GiB; the text stays as it was.

#pragma once

#include <cstddef>
#include <cstdlib>
#include <cstring>

class TextBuilder {
  public:
    TextBuilder() = default;
    ~TextBuilder() { std::free(block); }
    TextBuilder(const TextBuilder&) = delete;
    TextBuilder& operator=(const TextBuilder&) = delete;

    [[nodiscard]] bool add(const char* bytes, size_t sizeBytes) {
        if (sizeBytes > capacity - used && !grow(sizeBytes)) return false;
        std::memcpy(block + used, bytes, sizeBytes);
        used += sizeBytes;
        return true;
    }

    [[nodiscard]] bool add(const char* text) { return add(text, std::strlen(text)); }

    size_t sizeBytes() const { return used; }

    // Back to what it was at that size.
    void cutTo(size_t sizeBytes) { used = sizeBytes; }

    // The last byte becomes another one.
    void replaceLast(char byte) { block[used - 1] = byte; }

    // The block is the caller's from here on, to be freed.
    char* release() {
        char* released = block;
        block = nullptr;
        used = capacity = 0;
        return released;
    }

  private:
    static constexpr size_t kFirstBytes = 32;
    static constexpr size_t kMostBytes = 0x7fffffff;

    bool grow(size_t needBytes) {
        if (needBytes > kMostBytes - used) return false;
        const size_t step = 2 * capacity > needBytes ? 2 * capacity : needBytes;
        const size_t wanted =
            capacity == 0 && needBytes < kFirstBytes ? kFirstBytes : capacity + step;
        void* grown = std::realloc(block, wanted);
        if (grown == nullptr) return false;
        block = static_cast<char*>(grown);
        capacity = wanted;
        return true;
    }

    char* block = nullptr;
    size_t used = 0;
    size_t capacity = 0;
};
