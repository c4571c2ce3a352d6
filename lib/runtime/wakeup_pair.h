// A wake-up pair: any thread, or a signal handler, wakes a thread that waits for sockets. A byte
// written to one end of a connection over the loopback interface fires an IO event on the other.
//
// A pair whose connection breaks, or that a wake-up finds stuck, makes itself a new one; when that
// fails, onFail is called, and the owner tries again with wakeupPairRemake.
//
// Ownership: the creator owns the pair until wakeupPairDestroy. The object exists until none of its
// callbacks is running.
//
// Failure: kStatusNoMemory, kStatusSocketLimit when the system makes no connection, and any status
// of pelmoEvent_CreateIO.
//
// Threads: any. onWake and onFail run on the thread that dispatches the queue, with no lock held,
// and may call back into the pair. Wake-ups aren't counted: one call of onWake may stand for
// several.

#pragma once

#include <netinet/in.h>

#include <cstdint>

#include "lib/base/status.h"

struct WakeupPair;
using WakeupFunction = void (*)(void* closure);

// `onWake` and `onFail` may be null.
[[nodiscard]] pelmoStatus wakeupPairCreate(WakeupPair** out,
                                           uint32_t queueId,
                                           WakeupFunction onWake,
                                           WakeupFunction onFail,
                                           void* closure);

// Takes no lock, uses only lock-free atomics and keeps errno, so signal handlers may call it.
void wakeupPairWake(WakeupPair* pair);

// Makes the connection and the event as far as they are missing.
[[nodiscard]] pelmoStatus wakeupPairRemake(WakeupPair* pair, uint32_t queueId);

// Closes the sockets and ends the event.
void wakeupPairDisable(WakeupPair* pair);

void wakeupPairDestroy(WakeupPair* pair);

// Does it have an IO event? An owner polls while there is none.
[[nodiscard]] bool wakeupPairHasEvent(WakeupPair* pair);

// Accepts our own connection and no other, since any process on this host may connect to the port
// while it listens. Returns the listener's end of the connection from that address, or -1; other
// connections are closed. Each connection is awaited for at most a tenth of a second.
[[nodiscard]] int loopbackAcceptFrom(int listener, const sockaddr_in& own);
