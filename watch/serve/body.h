// The bytes of an answer: written once, then shared by all clients that get them, so that many
// clients take no more memory than one.
//
// Ownership: a body has holders and is freed with the last one. BodyHold is one of them.
//
// Failure: null where there is no memory for one; where its text found none, buffer.failed.
//
// Threads: one writes, before all others; then any may read, hold and drop.

#pragma once

#include <atomic>
#include <new>
#include <utility>

#include "watch/json/json_buffer.h"

// All bytes of texts that are held.
inline std::atomic<size_t> bodyBytesHeld = 0;
[[nodiscard]] inline size_t bodyBytes() {
    return bodyBytesHeld.load(std::memory_order_relaxed);
}

struct Body {
    JsonBuffer buffer;
    std::atomic<uint32_t> holders = 1;
    size_t countedBytes = 0;

    ~Body() { bodyBytesHeld.fetch_sub(countedBytes, std::memory_order_relaxed); }

    // Its text is whole: from now on it counts.
    void count() {
        countedBytes = buffer.usedBytes;
        bodyBytesHeld.fetch_add(countedBytes, std::memory_order_relaxed);
    }
};

class BodyHold {
  public:
    BodyHold() = default;
    ~BodyHold() { drop(); }
    BodyHold(const BodyHold& other) : body(other.body) {
        if (body != nullptr) body->holders.fetch_add(1, std::memory_order_relaxed);
    }
    BodyHold(BodyHold&& other) noexcept : body(std::exchange(other.body, nullptr)) {}
    BodyHold& operator=(BodyHold other) noexcept {
        std::swap(body, other.body);
        return *this;
    }

    // Empty where there is no memory.
    [[nodiscard]] static BodyHold make() {
        BodyHold hold;
        hold.body = new (std::nothrow) Body;
        return hold;
    }

    // Gives the hold away, to be taken back by adopt: for C's pointers.
    [[nodiscard]] Body* release() { return std::exchange(body, nullptr); }
    [[nodiscard]] static BodyHold adopt(Body* body) {
        BodyHold hold;
        hold.body = body;
        return hold;
    }

    explicit operator bool() const { return body != nullptr; }
    [[nodiscard]] JsonBuffer& buffer() const { return body->buffer; }
    [[nodiscard]] std::string_view text() const { return body->buffer.text(); }

    void count() const { body->count(); }

    // To be compared only.
    [[nodiscard]] const Body* address() const { return body; }

    // Does anybody else hold it?
    [[nodiscard]] bool isShared() const {
        return body->holders.load(std::memory_order_acquire) > 1;
    }

  private:
    Body* body = nullptr;

    // The last holder sees all that others did with the body.
    void drop() {
        if (body != nullptr && body->holders.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            delete body;
        }
    }
};
