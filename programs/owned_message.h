// A message of the library that is destroyed with its holder.

#pragma once

#include <memory>

#include "lib/pelmo.h"

struct DestroyMessage {
    void operator()(pelmoMsg* msg) const { pelmoMsg_Destroy(msg); }
};
using OwnedMessage = std::unique_ptr<pelmoMsg, DestroyMessage>;

// Null if memory runs out.
[[nodiscard]] inline OwnedMessage messageMake() {
    pelmoMsg* msg = nullptr;
    return OwnedMessage(pelmoMsg_Create(&msg) == kStatusSuccess ? msg : nullptr);
}
