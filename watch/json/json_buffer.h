// The memory that JSON is written into: it grows as it has to, and never throws.
//
// Ownership: the buffer owns its memory, and keeps it when it is emptied. Neither copied nor moved.
//
// Failure: where memory runs out, `failed` is set and what follows is dropped, until the buffer is
// emptied.

#pragma once

#include <cstdlib>
#include <string_view>

struct JsonBuffer {
    using Ch = char;  // the writer asks for it

    char* bytes = nullptr;
    size_t usedBytes = 0;
    size_t capacityBytes = 0;
    bool failed = false;

    JsonBuffer() = default;
    ~JsonBuffer() { std::free(bytes); }
    JsonBuffer(const JsonBuffer&) = delete;
    JsonBuffer& operator=(const JsonBuffer&) = delete;

    // What the writer calls an output stream.
    void Put(char character) {
        if (usedBytes < capacityBytes || grow()) bytes[usedBytes++] = character;
    }
    void Flush() {}

    [[nodiscard]] std::string_view text() const { return {bytes, usedBytes}; }

    void clear() {
        usedBytes = 0;
        failed = false;
    }

  private:
    bool grow() {
        constexpr size_t kFirstBytes = 64 << 10;
        const size_t wanted = capacityBytes == 0 ? kFirstBytes : 2 * capacityBytes;
        void* const block = failed ? nullptr : std::realloc(bytes, wanted);
        if (block == nullptr) {
            failed = true;
            return false;
        }
        bytes = static_cast<char*>(block);
        capacityBytes = wanted;
        return true;
    }
};
