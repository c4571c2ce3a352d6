// Waking the threads that wait on a queue or group: pelmoQueue_Wake and pelmoQueueGroup_Wake.
//
// A signal handler may take no lock, so a wake leaves the id in a table of atomics and wakes the
// first IO thread, which finds the object and ends the waits. Where the table is full all queues
// and groups are woken, so that no thread waits on for want of a place.
//
// Threads: opened and closed under the library lock; the table is filled by any thread and any
// handler and emptied by IO threads, with no lock held.

#pragma once

struct WakeupPair;

// From now on wakes reach the thread that the pair wakes.
void wakesOpen(WakeupPair* pair);

// On return no wake uses the pair. Nothing happens where none was opened.
void wakesClose();

// Ends the waits that were asked for. Called by an IO thread before each wait of its own, after it
// has taken the wakes off its pair.
void wakesServe();
