// The order of all locks, outermost first: a thread that holds a lock takes only locks further
// down. Debug builds stop at the first violation (lib/base/lock.h).
//
// The locks of the programs come first: a program's thread may call into the library with one held,
// and the library knows nothing of them. Tracing and log come last: a thread may log with any lock
// held.
//
// Transports and what carries their messages come before the event manager and the id tables: a
// thread that holds one of their locks may make and end timers and IO events, and post. The event
// manager calls none of them with its own lock held.

#pragma once

#include <cstdint>

// Name, may a thread hold two of this rank, words for it.
//
// Most object locks may be held in pairs, as where one queue's call ends in another queue: which of
// the two comes first is then the rule of the module that takes both. Of transports a thread holds
// one, or a circuit and the transport beneath it. Any lock may be taken again by its holder.
#define PELMO_LOCK_RANK_TABLE(ROW)                    \
    ROW(kStop, false, "stop lock")                    \
    ROW(kStats, false, "stats lock")                  \
    ROW(kDaemon, false, "bus daemon lock")            \
    ROW(kLibrary, false, "library lock")              \
    ROW(kCircuitObject, false, "circuit object")      \
    ROW(kTransportObject, false, "transport object")  \
    ROW(kLink, false, "daemon link lock")             \
    ROW(kConnects, false, "list of connects")         \
    ROW(kEndpoint, false, "endpoint lock")            \
    ROW(kConnection, false, "connection lock")        \
    ROW(kProcessQueue, false, "inter-process queue")  \
    ROW(kSocket, false, "socket lock")                \
    ROW(kWakeupPair, false, "wake-up pair lock")      \
    ROW(kEventManager, false, "event manager lock")   \
    ROW(kGroupObject, true, "queue group object")     \
    ROW(kDispatcherObject, true, "dispatcher object") \
    ROW(kQueueObject, true, "queue object")           \
    ROW(kQueueData, false, "queue data lock")         \
    ROW(kEventObject, true, "event object")           \
    ROW(kIdTable, false, "id table lock")             \
    ROW(kId, false, "id lock")                        \
    ROW(kPoolManager, false, "pool manager lock")     \
    ROW(kPool, false, "pool lock")                    \
    ROW(kLeaf, false, "lock with nothing beneath it") \
    ROW(kTrace, false, "tracing lock")                \
    ROW(kLog, false, "log lock")                      \
    ROW(kLogFile, false, "log file lock")

#define PELMO_LOCK_RANK_ENUMERATOR(name, mayPair, words) name,
enum class LockRank : uint8_t { PELMO_LOCK_RANK_TABLE(PELMO_LOCK_RANK_ENUMERATOR) };
#undef PELMO_LOCK_RANK_ENUMERATOR
