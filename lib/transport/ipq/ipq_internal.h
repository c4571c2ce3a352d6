// The record of an inter-process queue, and what its sources call of each other: ipq.cc (life,
// settings, timers), ipq_write.cc, ipq_read.cc and ipq_close.cc.

#pragma once

#include <atomic>

#include "lib/base/cond.h"
#include "lib/base/lock.h"
#include "lib/transport/ipq/ipq.h"
#include "lib/transport/ipq/ipq_accounting.h"
#include "lib/transport/ipq/stream_cutter.h"
#include "lib/transport/ipq/write_queue.h"
#include "lib/transport/socket/socket.h"

struct Dpa;

// A send under way, on the stack of its thread.
struct IpqAdding {
    uint64_t before;  // Ipq::added as it began
    uint32_t count;   // messages that it has added
    IpqAdding* next;
};

struct Ipq {
    // Constant after creation.
    Socket* socket;
    uint32_t queueId;           // of the socket's events
    uint32_t mostMessageBytes;  // of either direction

    // The creator's, one for each timer and socket callback, and what ipqRetain took.
    std::atomic<uint32_t> references;

    Lock lock;
    Cond writerWakeup;  // broadcast when there is room again, and at the end

    // Life
    bool isOpen PELMO_GUARDED_BY(lock);
    bool isLost PELMO_GUARDED_BY(lock);           // nothing can be sent any more
    bool isReadLost PELMO_GUARDED_BY(lock);       // nothing more can be read
    bool errorIsReported PELMO_GUARDED_BY(lock);  // the callback was called
    bool isBlocking PELMO_GUARDED_BY(lock);
    bool hadActivity PELMO_GUARDED_BY(lock);  // since the last keep-alive timer
    uint32_t keepAliveTimer PELMO_GUARDED_BY(lock);
    IpqAccounting accounting PELMO_GUARDED_BY(lock);

    // Writing
    WriteQueue queue PELMO_GUARDED_BY(lock);
    double now PELMO_GUARDED_BY(lock);  // the clock as it was last read; half a second old at most
                                        // while something waits
    uint32_t holds PELMO_GUARDED_BY(lock);    // by ipqHold, under way
    uint32_t batches PELMO_GUARDED_BY(lock);  // by ipqBeginBatch and vector sends, under way
    bool isBatching PELMO_GUARDED_BY(lock);
    bool writeIsArmed PELMO_GUARDED_BY(lock);    // the socket reports when it takes more
    uint32_t closeSends PELMO_GUARDED_BY(lock);  // plain sends in a row, each soon after the last
    uint64_t lastSendAt PELMO_GUARDED_BY(lock);  // clockMonotonicNanoseconds
    uint32_t flushTimer PELMO_GUARDED_BY(lock);  // both go once nothing waits when they fire
    uint32_t ageTimer PELMO_GUARDED_BY(lock);
    bool blocksWhenFull PELMO_GUARDED_BY(lock);
    uint32_t waitLimit PELMO_GUARDED_BY(lock);
    uint32_t writersWaiting PELMO_GUARDED_BY(lock);
    IpqStatistics written PELMO_GUARDED_BY(lock);
    uint64_t trailingBytes PELMO_GUARDED_BY(lock);  // of keep-alives after the last message written
    uint64_t added PELMO_GUARDED_BY(lock);          // messages, ever
    uint64_t leftAtLoss PELMO_GUARDED_BY(lock);     // of those, the first ones that may have left
    SendLosses losses PELMO_GUARDED_BY(lock);       // once lost or closed
    IpqAdding* adding PELMO_GUARDED_BY(lock);       // the sends under way

    // Reading
    bool readIsArmed PELMO_GUARDED_BY(lock);  // the socket reports when there are bytes
    bool isReading PELMO_GUARDED_BY(lock);    // a thread uses the cutter
    bool hasNotice PELMO_GUARDED_BY(lock);    // the peer has sent its close notice
    uint64_t unfinishedBytes PELMO_GUARDED_BY(lock);
    IpqStatistics read PELMO_GUARDED_BY(lock);

    // Owned by the thread that has set `isReading`.
    StreamCutter cutter;
    Dpa* batch;            // null until first needed
    uint64_t growthSteps;  // that the growth callback knows of

    // What the owner has set
    IpqReadCallback readCallback PELMO_GUARDED_BY(lock);
    void* readClosure PELMO_GUARDED_BY(lock);
    IpqGrowthCallback growthCallback PELMO_GUARDED_BY(lock);
    IpqErrorCallback errorCallback PELMO_GUARDED_BY(lock);
    void* errorClosure PELMO_GUARDED_BY(lock);
    IpqProducerCallback producerCallback PELMO_GUARDED_BY(lock);
    void* producerClosure PELMO_GUARDED_BY(lock);
    IpqCloseCallback closeCallback PELMO_GUARDED_BY(lock);
};

// Life (ipq.cc)

// Gives a handler's reference back, as the last thing that happens to it.
void ipqHandlerGone(void* ipq);

// A repeating timer with a reference; nothing happens where it runs.
using IpqTimerCallback = void (*)(uint32_t timer, struct pelmoMsg* none, void* ipq);
pelmoStatus ipqStartTimerLocked(Ipq* ipq,
                                uint32_t* timer,
                                IpqTimerCallback callback,
                                double seconds) PELMO_REQUIRES(ipq->lock);
void ipqEndTimerLocked(Ipq* ipq, uint32_t* timer) PELMO_REQUIRES(ipq->lock);

// Ends all that reads, writes and waits.
void ipqEndLocked(Ipq* ipq) PELMO_REQUIRES(ipq->lock);

// How many of a send's messages may have left. Other threads may have added theirs between, while
// one of it waited for room: then the answer errs towards more.
[[nodiscard]] uint32_t ipqLeftOfLocked(const Ipq* ipq, const IpqAdding& adding)
    PELMO_REQUIRES(ipq->lock);

// Notes what waits, and what the peer's system hasn't confirmed, as lost; but for what the sends
// under way answer themselves.
void ipqNoteLossesLocked(Ipq* ipq) PELMO_REQUIRES(ipq->lock);

// Nothing can be sent any more: what waits is dropped, writers that wait return, and readers
// come to the end of the stream after what has arrived.
void ipqLoseLocked(Ipq* ipq) PELMO_REQUIRES(ipq->lock);

// Runs the error callback, the first time. Called without the lock.
void ipqTellLoss(Ipq* ipq);

// The same, unless reading will.
void ipqTellWriteLoss(Ipq* ipq);

// Writing (ipq_write.cc)

// Writes until nothing waits or the connection takes no more; then the rest waits for that.
// kStatusInvalidIoSource, kStatusTimeout.
[[nodiscard]] pelmoStatus ipqWriteLocked(Ipq* ipq) PELMO_REQUIRES(ipq->lock);

// Ends the waits for the socket and for time.
void ipqDisarmLocked(Ipq* ipq) PELMO_REQUIRES(ipq->lock);

// Starts the age check where one is wanted and something waits.
void ipqWatchAgeLocked(Ipq* ipq) PELMO_REQUIRES(ipq->lock);

// Writes what can go now of all that waits and the close notice; `*isDone` once that is written,
// too. False where the connection is lost. The queue is closed, and the caller the only one to use
// it.
[[nodiscard]] bool ipqWriteLast(Ipq* ipq, bool* isDone);

// The close notice, if nothing waits before it.
[[nodiscard]] bool ipqSendNotice(Ipq* ipq);

// Reading (ipq_read.cc)

[[nodiscard]] pelmoStatus ipqArmReadLocked(Ipq* ipq) PELMO_REQUIRES(ipq->lock);
void ipqDisarmReadLocked(Ipq* ipq) PELMO_REQUIRES(ipq->lock);
