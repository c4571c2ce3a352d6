// A list of messages of which a send holds a reference each, to its end.

#pragma once

#include <cstdint>
#include <cstdlib>
#include <span>

#include "lib/msg/message_internal.h"

class HeldMessages {
  public:
    HeldMessages() = default;
    ~HeldMessages() {
        for (pelmoMsg* message : all()) {
            msgRelease(message);
        }
        std::free(items_);
    }
    HeldMessages(const HeldMessages&) = delete;
    HeldMessages& operator=(const HeldMessages&) = delete;

    // Called once, before the first message is added. False when memory ran out.
    [[nodiscard]] bool makeRoom(size_t count) {
        items_ = static_cast<pelmoMsg**>(std::malloc(count * sizeof(pelmoMsg*)));
        return items_ != nullptr;
    }

    void add(HeldMessage message) { items_[count_++] = message.release(); }

    [[nodiscard]] std::span<pelmoMsg* const> all() const { return {items_, count_}; }

  private:
    pelmoMsg** items_ = nullptr;
    uint32_t count_ = 0;
};
