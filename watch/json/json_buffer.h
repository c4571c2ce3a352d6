// The memory that JSON is written into. It grows as it has to, or is drained whenever it holds
// much, and never throws.
//
// Ownership: the buffer owns its memory, and keeps it when it is emptied. Neither copied nor moved.
//
// Failure: where memory runs out, or the drain fails, `failed` is set and all that follows is
// dropped, until the buffer is emptied.

#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string_view>

struct JsonBuffer {
    using Ch = char;  // the writer asks for it

    char* bytes = nullptr;
    size_t usedBytes = 0;
    size_t capacityBytes = 0;
    bool failed = false;

    // Takes what there is, anywhere in a line, so that large lines take little memory. False where
    // it can't. Null: the buffer grows instead.
    bool (*drain)(std::string_view text) = nullptr;

    JsonBuffer() = default;
    ~JsonBuffer() { std::free(bytes); }
    JsonBuffer(const JsonBuffer&) = delete;
    JsonBuffer& operator=(const JsonBuffer&) = delete;

    // Makes room for so many bytes. False where they are to be dropped.
    bool reserve(size_t sizeBytes) {
        return sizeBytes <= capacityBytes - usedBytes || makeRoom(sizeBytes);
    }

    void append(std::string_view text) {
        if (reserve(text.size())) usedBytes += text.copy(bytes + usedBytes, text.size());
    }

    // What the writer calls an output stream.
    void Put(char character) {
        if (reserve(1)) bytes[usedBytes++] = character;
    }
    void Flush() {}

    [[nodiscard]] std::string_view text() const { return {bytes, usedBytes}; }

    void clear() {
        usedBytes = 0;
        failed = false;
    }

  private:
    static constexpr size_t kFirstBytes = 256 << 10;

    bool makeRoom(size_t sizeBytes) {
        if (drain != nullptr && usedBytes != 0) {
            if (!failed && !drain(text())) failed = true;
            usedBytes = 0;
        }
        if (failed) return false;
        if (sizeBytes <= capacityBytes - usedBytes) return true;
        const size_t wanted = std::max({kFirstBytes, 2 * capacityBytes, usedBytes + sizeBytes});
        void* const block = std::realloc(bytes, wanted);
        if (block == nullptr) {
            failed = true;
            return false;
        }
        bytes = static_cast<char*>(block);
        capacityBytes = wanted;
        return true;
    }
};
