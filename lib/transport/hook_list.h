// Hooks: functions that a transport runs at seven points of its work, in the order in which they
// were added. This is their lists alone; when which kind runs is the transport's matter
// (lib/transport/transport_internal.h).
//
// Ownership: the lists own the hooks' records. Closures stay the caller's.
//
// Failure: kStatusNoMemory; hookListsRemove answers kStatusInvalidArgument for a hook that isn't in
// the lists. Outputs are written only on success.
//
// Threads: no lock. The transport's object lock serialises all calls but the run of a copy.

#pragma once

#include <cstdint>
#include <memory>

#include "lib/base/status.h"

struct Dpa;
struct pelmoMsg;

enum HookKind : uint32_t {
    kHookSend,        // before each message that is sent; a failure is the send's
    kHookInbound,     // at dispatch, before the callback; a failure drops the message
    kHookInterest,    // before each message about interest, to the daemon
    kHookDisconnect,  // the connection to the daemon is lost
    kHookReconnect,   // and there again
    kHookDestroy,     // first thing in a destroy
    kHookDestroyed,   // when the id is gone
    kHookKinds,
};

// A result other than success ends the run, and what it stands before. `message` is null for the
// kinds without one. A hook may put another message in its place, handing over its reference: the
// old one's is then given back. Dispatch ignores that.
using TransportHookFunction = pelmoStatus (*)(uint32_t transport,
                                              pelmoMsg** message,
                                              void* closure);

struct TransportHook {
    HookKind kind;
    uint32_t transportId;
    TransportHookFunction callback;
    void* closure;
};

// All zero: no hooks.
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

// The hooks of one kind as they were, to be run with no lock held.
class HookCopies {
  public:
    HookCopies() = default;
    HookCopies(const HookCopies&) = delete;
    HookCopies& operator=(const HookCopies&) = delete;

    [[nodiscard]] pelmoStatus take(const HookLists& hooks, HookKind kind);

    // The first failure, or success.
    [[nodiscard]] pelmoStatus run(pelmoMsg** message) const;

  private:
    static constexpr uint32_t kOnStack = 64;

    TransportHook onStack[kOnStack];
    std::unique_ptr<TransportHook[]> onHeap;  // where there are more
    TransportHook* copies = onStack;
    uint32_t count = 0;
};
