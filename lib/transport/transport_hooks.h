// Hooks: functions that a transport runs at seven points of its work. A result other than success
// ends the run, and what it stands before.
//
// Ownership: a hook belongs to its transport and goes with it; the handle isn't used afterwards.
// Closures stay the caller's.
//
// Failure: kStatusInvalidTransport, kStatusNoMemory.
//
// Threads: any. Hooks run with the transport unlocked, on a copy of the list: one that is removed
// meanwhile on another thread may run once more.

#pragma once

#include <cstdint>

#include "lib/base/status.h"

struct pelmoMsg;
struct Transport;

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

// `message` is null for the kinds without one. A hook may put another message in its place, handing
// over its reference: the old one's is then given back. Dispatch ignores that.
using TransportHookFunction = pelmoStatus (*)(uint32_t transport,
                                              pelmoMsg** message,
                                              void* closure);

struct TransportHook {
    HookKind kind;
    uint32_t transportId;
    TransportHookFunction callback;
    void* closure;
};

[[nodiscard]] pelmoStatus Transport_AddHook(TransportHook** out,
                                            HookKind kind,
                                            uint32_t transport,
                                            TransportHookFunction callback,
                                            void* closure);
pelmoStatus Transport_RemoveHook(TransportHook* hook);

// The caller holds the object lock once, which is left meanwhile, and a reference. kStatusNoMemory
// where so many hooks as there are can't be copied.
[[nodiscard]] pelmoStatus Transport_RunHooks(Transport* transport,
                                             HookKind kind,
                                             pelmoMsg** message);

// The caller holds the object lock.
[[nodiscard]] bool transportHasHooks(const Transport* transport, HookKind kind);

// What transportOps.runInboundHooks does.
[[nodiscard]] bool Transport_RunInboundHooks(uint32_t transport, pelmoMsg* message);

// For the destructor.
void transportFreeHooks(Transport* transport);
