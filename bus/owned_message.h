// A message that is destroyed with its holder. Null where there is no memory.

#pragma once

#include <memory>

#include "lib/pelmo.h"

struct DestroyMessage {
    void operator()(pelmoMsg* msg) const { pelmoMsg_Destroy(msg); }
};
using OwnedMessage = std::unique_ptr<pelmoMsg, DestroyMessage>;

[[nodiscard]] inline OwnedMessage messageMake() {
    pelmoMsg* msg = nullptr;
    return OwnedMessage(pelmoMsg_Create(&msg) == kStatusSuccess ? msg : nullptr);
}
