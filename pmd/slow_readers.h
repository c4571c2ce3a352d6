// Slow readers: senders that aren't read from while their receivers catch up, and receivers above
// their backlog. When each wait ends and which receiver is cut off is decided by pmd/pacing.h; this
// keeps the lists and acts on the verdicts.
//
// Ownership: clients are the server's; they are linked here by their own members.
//
// Threads: under `daemonLock`.
//
// Units: seconds by the steady clock.

#pragma once

#include <cstdint>

#include "pmd/client.h"

struct SlowReaders {
    uint64_t backlogLimit;                          // bytes
    void (*doom)(Client* client, const char* why);  // may be called for one that is doomed already

    Client* paced;  // senders that aren't read from
    Client* over;   // receivers above their backlog
};

// Looks at a receiver after the batch has queued messages for it.
void slowLook(SlowReaders* slow, Client* receiver, const Backlog& backlog, uint64_t batch)
    PELMO_REQUIRES(daemonLock);

// Stops reading from the batch's sender if even the fastest of its receivers, null for none, has
// too much waiting.
void slowPace(SlowReaders* slow, Client* sender, Client* fastest) PELMO_REQUIRES(daemonLock);

// Notes the receivers above their backlog to which the batch has added, though its sender goes on.
void slowNoteFed(SlowReaders* slow, const Client* sender, uint64_t batch)
    PELMO_REQUIRES(daemonLock);

// Lets senders go on whose receivers have caught up. Called often while `paced` isn't null.
void slowPaceTick(SlowReaders* slow, double now) PELMO_REQUIRES(daemonLock);

// Dooms receivers that read too slowly. Called a few times per second while `over` isn't null.
void slowJudge(SlowReaders* slow, double now) PELMO_REQUIRES(daemonLock);

// Forgets a client before its end. Senders that waited for it go on.
void slowForget(SlowReaders* slow, Client* client) PELMO_REQUIRES(daemonLock);
