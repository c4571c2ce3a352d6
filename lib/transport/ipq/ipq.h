// The inter-process queue: messages in both directions between two processes over one connection
// (lib/transport/socket/socket.h).
//
// Reading, it takes large chunks, cuts them into messages without copying, and hands them on in
// batches. Writing, it gathers many messages into one vector send, coalesces small ones into one
// buffer once a queue has formed, and lets messages wait when the connection can't take them,
// within limits. A lone message is written at once. Once 16 sends have come within 50 microseconds
// of the one before each, the next ones are gathered: they are written with the send that makes
// them 32 KB, with the first send after a pause or after something has been read, with a hold or
// the close, and at the latest after a millisecond, by the timer thread. It serves both ends: a
// client's link to its daemon, and a daemon's link to each client.
//
// Ownership: an Ipq owns its socket and what waits in it. Its creator holds the first reference and
// gives it back by ipqClose; each handler that can still run holds one more. The caller of any
// function holds a reference until it returns. Messages that are sent are borrowed: a reference to
// their buffer is taken, so that a message to a hundred receivers is held once. Messages that were
// read belong to the read callback.
//
// Failure: kStatusDaemonNotConnected once closed, kStatusInvalidIoSource when the connection is
// lost, kStatusNoMemory when a message couldn't be queued, kStatusInvalidSize for one longer than
// the terms allow. A lost connection drops what waits, gathered messages among it, and isn't closed
// here: the error callback runs once, after the last message that was read, and the owner closes.
//
// Threads: any. `lock` (rank kProcessQueue) guards everything. All callbacks run without it: read
// and error callbacks on the thread of the queue's socket events, producer and error callbacks on
// the timer thread too. A callback may call any function of this module.
//
// Waits: a writer waits for room (ipqSetBlockWhenFull) with the lock released, and only on a thread
// that may (lib/runtime/no_wait.h). Elsewhere the message is queued all the same: a callback adds
// what one read brings, and who passes messages on pauses reading while much waits. Calls in
// blocking mode wait for the connection, and a write does so with the lock held; ipqInterrupt ends
// them.
//
// Time-outs: the graceful close gives up once no byte has left for kGracefulCloseSeconds. A
// connection on which nothing moved for 60 seconds gets a keep-alive of 8 bytes.
//
// Environment: IPQ_ACCOUNTING, a decimal number whose bits print to the standard output stream: 1 a
// summary at close, 2 the sizes of reads, 4 those of writes.

#pragma once

#include <cstdint>
#include <limits>
#include <span>

#include "lib/base/status.h"
#include "lib/runtime/send_losses.h"
#include "lib/transport/ipq/hello.h"
#include "lib/transport/ipq/ipq_statistics.h"

struct Ipq;
struct Socket;
struct pelmoMsg;

inline constexpr double kGracefulCloseSeconds = 5.0;
inline constexpr uint64_t kGrowthStepBytes = 0x100000;       // of what has come of one message
inline constexpr uint32_t kUsualWaitLimitBytes = 0x1000000;  // above which writers wait

// Takes over the messages.
using IpqReadCallback = void (*)(Ipq* ipq, std::span<pelmoMsg* const> messages, void* closure);
using IpqErrorCallback = void (*)(Ipq* ipq, void* closure);

// The last thing that happens to an Ipq; gets the read callback's closure.
using IpqCloseCallback = void (*)(void* closure);

// 1: old messages were dropped; 2: the oldest that waits is older than the age limit and nothing is
// dropped; 3: more waits than the byte limit.
using IpqProducerCallback = void (*)(Ipq* ipq,
                                     uint32_t level,
                                     uint32_t waitingMessages,
                                     uint32_t droppedMessages,
                                     uint64_t droppedBytes,
                                     void* closure);

// Takes over a connected socket, which is closed on failure. `frame`: the terms agreed, or null.
// kStatusInvalidTransport for terms that can't be kept, kStatusNoMemory, and the statuses of
// timers.
[[nodiscard]] pelmoStatus ipqCreate(Ipq** out,
                                    const HelloFrame* frame,
                                    uint32_t queueId,
                                    Socket* socket);

inline constexpr double kNoDeadline = std::numeric_limits<double>::infinity();

// When a graceful close gives up at the latest, by clockSteadySeconds; and what the end has lost.
struct IpqEnd {
    double deadline = kNoDeadline;
    SendLosses losses = {};
};

// Ends it: nothing is read, sent or reported afterwards, and writers that wait return. Graceful:
// what waits is written first, then the close notice, and the peer's end is awaited on the caller's
// thread; ipqInterrupt ends that. Only an end in order confirms that the peer has read all.
// `callback` (may be null) runs when the last reference has gone. `end` may be null; its losses are
// always set. kStatusInvalidArgument for one that is closed.
pelmoStatus ipqClose(Ipq* ipq, bool graceful, IpqCloseCallback callback, IpqEnd* end = nullptr);

void ipqRetain(Ipq* ipq);
void ipqRelease(Ipq* ipq);

// Sending

// An urgent message passes all that wait, other urgent ones too, but not what is being written.
[[nodiscard]] pelmoStatus ipqSend(Ipq* ipq, pelmoMsg* message, bool urgent);

// In order, as one batch; messages that lie one after the other in one buffer are queued as one.
// All are checked before the first is queued: kStatusInvalidMessage and kStatusInvalidSize leave
// none. A later failure, by memory or a lost connection, ends it where it is. `*taken` (may be
// null) is then how many of the first messages may have left: they are never to be sent again, and
// none of the others has left whole. On success it is all of them.
[[nodiscard]] pelmoStatus ipqSendVector(Ipq* ipq,
                                        std::span<pelmoMsg* const> messages,
                                        bool urgent,
                                        uint32_t* taken = nullptr);

// Between the two, messages are queued, and written only where more waits than the wait limit.
// Holds nest; the last flush writes the rest.
pelmoStatus ipqHold(Ipq* ipq);
pelmoStatus ipqFlush(Ipq* ipq);

// The same, but what fills one send is written at once.
pelmoStatus ipqBeginBatch(Ipq* ipq);
pelmoStatus ipqEndBatch(Ipq* ipq);

// 1: small messages wait up to 25 ms for others. kStatusNotPermitted for switching it off again.
pelmoStatus ipqSetBatchMode(Ipq* ipq, uint32_t mode);

// Do writers wait while too much is queued? They wait while both queue and library are open.
pelmoStatus ipqSetBlockWhenFull(Ipq* ipq, bool block);

// Above how many queued bytes they wait; 0 for kUsualWaitLimitBytes.
void ipqSetWaitLimit(Ipq* ipq, uint32_t bytes);

// What is old, and what becomes of it: with `discard` old messages are dropped. 0 for no limit. A
// check every half second while something waits; the callback may be null. kStatusInvalidArgument
// for a negative age or NaN, and once closed.
pelmoStatus ipqSetAgeCheck(Ipq* ipq,
                           bool discard,
                           double ageSeconds,
                           uint32_t byteLimit,
                           IpqProducerCallback callback,
                           void* closure);

// Receiving

// Starts reading.
[[nodiscard]] pelmoStatus ipqSetReadCallback(Ipq* ipq, IpqReadCallback callback, void* closure);

// Before the read callback, so that every loss is reported.
pelmoStatus ipqSetErrorCallback(Ipq* ipq, IpqErrorCallback callback, void* closure);

// A longer first message ends the stream once its head has come. Before the read callback.
void ipqSetMostFirstBytes(Ipq* ipq, uint32_t bytes);

// Before the read callback, whose closure it gets, and on the same thread: what has come of a
// message that isn't whole takes another kGrowthStepBytes or more.
using IpqGrowthCallback = void (*)(Ipq* ipq, void* closure);
void ipqSetGrowthCallback(Ipq* ipq, IpqGrowthCallback callback);

// Has the peer ended the stream by its close notice?
[[nodiscard]] bool ipqHasNotice(Ipq* ipq);

// Stops reading while the owner can't take more, and continues.
pelmoStatus ipqPauseReading(Ipq* ipq);
[[nodiscard]] pelmoStatus ipqResume(Ipq* ipq);

// Reads one message on the caller's thread, and no byte after it; no read callback is set. Null
// for a keep-alive, and where a non-blocking queue has no whole message yet. kStatusTimeout once
// the deadline of a blocking queue is there, kStatusNoMemory, kStatusInvalidIoSource,
// kStatusNotPermitted while another thread reads.
[[nodiscard]] pelmoStatus ipqReadOne(Ipq* ipq, pelmoMsg** out);

// In blocking mode a send returns once all that waits is written, kStatusTimeout where the deadline
// came first. Returns the mode that it had.
bool ipqSetBlocking(Ipq* ipq, bool blocking);

// When blocking calls give up, by clockSteadySeconds; 0 for never.
void ipqSetDeadline(Ipq* ipq, double steadySeconds);

// Ends a blocking call on another thread, and with it the connection. The caller holds a reference.
void ipqInterrupt(Ipq* ipq);

// What waits. All are 0 for a closed queue.

struct IpqBacklog {
    uint32_t messages;
    uint64_t bytes;            // what is being written included
    uint64_t bufferBytes;      // that the waiting messages keep in memory
    uint64_t unfinishedBytes;  // of memory, for the message that is being read
};
[[nodiscard]] IpqBacklog ipqBacklog(Ipq* ipq);

// What waits, and what the peer's system hasn't confirmed: lost if the connection broke now. Once
// it is lost or closed, what that has lost. Of what the system holds the number of messages is an
// estimate by their average size.
[[nodiscard]] SendLosses ipqUnsent(Ipq* ipq);

[[nodiscard]] IpqStatistics ipqReadStatistics(Ipq* ipq);
[[nodiscard]] IpqStatistics ipqWriteStatistics(Ipq* ipq);

// The peer, in network order.
[[nodiscard]] uint32_t ipqPeerAddress(Ipq* ipq);
[[nodiscard]] uint16_t ipqPeerPort(Ipq* ipq);
