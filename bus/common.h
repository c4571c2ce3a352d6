// What the program says on the standard error stream, a line at a time.
//
// Threads: any.

#pragma once

#include <memory>
#include <string>

#include "lib/pelmo.h"

// "pelmobus: WHAT: STATUS TEXT (STATUS)"
void complain(const std::string& what, pelmoStatus status);

// "pelmobus: WHAT"
void complain(const std::string& what);

// The line alone.
void announce(const std::string& line);

// A message that is destroyed with its holder. Null if memory runs out.

struct DestroyMessage {
    void operator()(pelmoMsg* msg) const { pelmoMsg_Destroy(msg); }
};
using OwnedMessage = std::unique_ptr<pelmoMsg, DestroyMessage>;

[[nodiscard]] inline OwnedMessage messageMake() {
    pelmoMsg* msg = nullptr;
    return OwnedMessage(pelmoMsg_Create(&msg) == kStatusSuccess ? msg : nullptr);
}
