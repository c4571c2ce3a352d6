// Hooks: functions that a transport runs at seven points of its work, in the order in which they
// were added. This module only keeps the lists; the transport decides when each kind runs
// (lib/transport/transport_internal.h).
//
// Ownership: the lists own the hooks' records. Closures belong to the caller.
//
// Failure: kStatusNoMemory; hookListsRemove answers kStatusInvalidArgument for a hook that isn't in
// the lists. Outputs are written only on success.
//
// Threads: this module takes no lock. The transport's object lock serialises all calls except the
// run of a copy.

#pragma once

#include <cstdint>
#include <memory>

#include "lib/base/status.h"

struct Dpa;
struct pelmoMsg;

enum HookKind : uint32_t {
    kHookSend,        // before each message that is sent; a failure makes the send fail
    kHookInbound,     // at dispatch, before the callback; a failure drops the message
    kHookInterest,    // before each message about interest, to the daemon
    kHookDisconnect,  // the connection to the daemon is lost
    kHookReconnect,   // the connection is established again
    kHookDestroy,     // first thing in a destroy
    kHookDestroyed,   // when the id is gone
    kHookKinds,
};

// A result other than success ends the run and cancels the step that the hooks precede. `message`
// is null for kinds without a message. A hook may put another message in its place and hands its
// reference over; the reference to the old one is then released. Dispatch ignores a replacement.
using TransportHookFunction = pelmoStatus (*)(uint32_t transport,
                                              pelmoMsg** message,
                                              void* closure);

struct TransportHook {
    HookKind kind;
    uint32_t transportId;
    TransportHookFunction callback;
    void* closure;
};

// A zeroed record has no hooks.
struct HookLists {
    Dpa* lists[kHookKinds];  // of TransportHook; null: none yet
};

[[nodiscard]] pelmoStatus hookListsAdd(HookLists& hooks,
                                       const TransportHook& hook,
                                       TransportHook** out);

// Frees the record.
pelmoStatus hookListsRemove(HookLists& hooks, TransportHook* hook);

[[nodiscard]] uint32_t hookListsCount(const HookLists& hooks, HookKind kind);

void hookListsFree(HookLists& hooks);

// A copy of the hooks of one kind, which can be run with no lock held.
class HookCopies {
  public:
    HookCopies() = default;
    HookCopies(const HookCopies&) = delete;
    HookCopies& operator=(const HookCopies&) = delete;

    [[nodiscard]] pelmoStatus take(const HookLists& hooks, HookKind kind);

    // Runs the hooks in order. Returns the first failure, or success.
    [[nodiscard]] pelmoStatus run(pelmoMsg** message) const;

  private:
    static constexpr uint32_t kOnStack = 64;

    TransportHook onStack[kOnStack];
    std::unique_ptr<TransportHook[]> onHeap;  // used when there are more
    TransportHook* copies = onStack;
    uint32_t count = 0;
};
