// The record of an inter-process queue, and what its sources call of each other: ipq.cc (life and
// settings), ipq_read.cc and ipq_write.cc (both directions with their events and timers).

#pragma once

#include <atomic>
#include <cstdint>

#include "lib/base/cond.h"
#include "lib/base/lock.h"
#include "lib/transport/ipq/ipq.h"
#include "lib/transport/ipq/ipq_accounting.h"
#include "lib/transport/ipq/stream_cutter.h"
#include "lib/transport/ipq/write_queue.h"

struct Buffer;
struct Dpa;

// The timers of a queue, by place.
enum IpqTimer : uint32_t { kKeepAliveTimer, kAgeTimer, kFlushTimer, kIpqTimers };

struct Ipq {
    // Constant after creation.
    Socket* socket;
    uint32_t queueId;           // of the socket's events
    uint32_t mostMessageBytes;  // as the hello agreed
    Buffer* keepAliveBuffer;
    Buffer* closeBuffer;

    // The creator's, one for each timer, one for each socket callback, and what ipqRetain took.
    std::atomic<uint32_t> references;

    // Owned by whoever reads: the creator's thread up to the read callback, from then on the thread
    // of the socket's events.
    StreamCutter cutter;
    Dpa* batch;

    Lock lock;
    bool open PELMO_GUARDED_BY(lock);
    bool failed PELMO_GUARDED_BY(lock);   // the connection is lost, and that was told or needn't be
    bool reading PELMO_GUARDED_BY(lock);  // the read callback is registered with the socket
    bool blocking PELMO_GUARDED_BY(lock);
    bool activity PELMO_GUARDED_BY(lock);                // since the last look of the keep-alive
    uint32_t timers[kIpqTimers] PELMO_GUARDED_BY(lock);  // event ids, 0 for none

    // Writing
    WriteQueue writes PELMO_GUARDED_BY(lock);
    uint32_t holds PELMO_GUARDED_BY(lock);
    bool batchMode PELMO_GUARDED_BY(lock);
    bool writeArmed PELMO_GUARDED_BY(lock);  // the write callback is registered with the socket

    // Back-pressure
    bool blockWhenFull PELMO_GUARDED_BY(lock);
    uint64_t highWaterBytes PELMO_GUARDED_BY(lock);
    uint32_t writersWaiting PELMO_GUARDED_BY(lock);
    Cond writerWakeup;

    // Callbacks
    IpqReadCallback readCallback PELMO_GUARDED_BY(lock);
    void* readClosure PELMO_GUARDED_BY(lock);
    IpqErrorCallback errorCallback PELMO_GUARDED_BY(lock);
    void* errorClosure PELMO_GUARDED_BY(lock);
    IpqProducerCallback producerCallback PELMO_GUARDED_BY(lock);
    void* producerClosure PELMO_GUARDED_BY(lock);
    IpqCloseCallback closeCallback PELMO_GUARDED_BY(lock);

    IpqStatistics reads PELMO_GUARDED_BY(lock);
    IpqStatistics written PELMO_GUARDED_BY(lock);
    IpqAccounting accounting PELMO_GUARDED_BY(lock);
};

// Made under the lock; a queue that is closed, or has the timer, gets none. The callback's closure
// is the Ipq, which the timer retains.
pelmoStatus ipqStartTimerLocked(Ipq* ipq, IpqTimer which) PELMO_REQUIRES(ipq->lock);
void ipqStopTimerLocked(Ipq* ipq, IpqTimer which) PELMO_REQUIRES(ipq->lock);

// `done` of socket callbacks: releases what the callback held.
void ipqReleaseClosure(void* ipq);

// Tells the owner once that the connection is lost. Called without the lock, with a reference.
void ipqFail(Ipq* ipq);

// Reading (ipq_read.cc)

pelmoStatus ipqStartReadingLocked(Ipq* ipq) PELMO_REQUIRES(ipq->lock);
void ipqStopReadingLocked(Ipq* ipq) PELMO_REQUIRES(ipq->lock);

// Throws away what comes until the connection ends or the socket's deadline is there.
void ipqDrain(Ipq* ipq);

// Writing (ipq_write.cc)

// Queues an answer to the peer's close notice, or our own, unless something waits.
void ipqSendCloseNoticeLocked(Ipq* ipq) PELMO_REQUIRES(ipq->lock);

// Writes what waits, as far as it goes. kStatusInvalidIoSource when the connection is lost.
pelmoStatus ipqWriteLocked(Ipq* ipq) PELMO_REQUIRES(ipq->lock);

// Writes all that waits, in blocking mode.
pelmoStatus ipqWriteAllLocked(Ipq* ipq) PELMO_REQUIRES(ipq->lock);

// Ends the wait for the socket.
void ipqDisarmLocked(Ipq* ipq) PELMO_REQUIRES(ipq->lock);

// The timers' callbacks.
void ipqOnKeepAlive(Ipq* ipq);
void ipqOnAge(Ipq* ipq);
void ipqOnFlush(Ipq* ipq);

// While a thread is within such an object it runs the library's own part of a queue: it must not
// wait for room in one, since only threads like it make room.
class IpqWorkerScope {
  public:
    IpqWorkerScope() { ++depth; }
    ~IpqWorkerScope() { --depth; }
    IpqWorkerScope(const IpqWorkerScope&) = delete;
    IpqWorkerScope& operator=(const IpqWorkerScope&) = delete;

    [[nodiscard]] static bool isWorker() { return depth != 0; }

  private:
    static inline thread_local uint32_t depth = 0;
};
