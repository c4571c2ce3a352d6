// The messages by which a daemon learns what a client listens to.
//
//     mtype "L" (from now on) or "C" (no more), sub the subject
//
// Ownership: a message belongs to the caller.
//
// Failure: kStatusNoMemory, kStatusInvalidSubject; outputs are written only on success.
//
// Threads: pure functions.

#pragma once

#include <cstdint>

#include "lib/base/status.h"
#include "lib/containers/subject.h"

struct pelmoMsg;

// `kind` is kInterestStart or kInterestStop.
[[nodiscard]] pelmoStatus interestMessage(pelmoMsg** out, const uint8_t* subject, const char* kind);

// All inboxes of a session, packed.
[[nodiscard]] pelmoStatus interestOwnInboxes(uint8_t (&subject)[kSubjectMaxBytes],
                                             const char* session);
