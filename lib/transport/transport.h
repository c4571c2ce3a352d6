// Transports: what carries messages from senders to listeners.
//
// The intra-process transport, kIntraProcessTransportId, exists while the library is open. It
// delivers each message directly to the listeners of this process. A network transport sends to a
// bus daemon, which passes messages on to all that listen; a virtual circuit wraps its messages for
// one peer and sends them over another transport. Listeners are made in runtime/event.h.
//
//     pelmoMsg_SetSendSubject(msg, "A.B");
//     pelmoTransport_Send(kIntraProcessTransportId, msg);    // the caller keeps msg
//
// Subjects: "_PM" as the first element is reserved for advisories, in which the library reports its
// own state: "_PM.<class>.<source>.<name>", with the text fields ADV_CLASS, ADV_SOURCE, ADV_NAME
// and, if there is a description, ADV_DESC. An advisory of class "WARN" or "ERROR" without a
// listener is logged. "_INBOX" as the first element makes an inbox: a subject of one listener, made
// by pelmoTransport_CreateInbox, that no wildcard matches.
//
// A network transport outlives its connection. A break is reported by the advisory
// "_PM.WARN.SYSTEM.PMD.DISCONNECTED", with "messages_dropped" and "bytes_dropped" if messages that
// had been sent are lost. The transport then connects again: within 100 ms, from the third break in
// a row on after a second, two, four and so on, and every ten seconds while no daemon is reached.
// Meanwhile sends return kStatusDaemonNotConnected, and nothing is kept to be sent later. Inboxes
// keep their names, and the new connection listens to the same subjects. It is reported by
// "_PM.INFO.SYSTEM.PMD.RECONNECTED", whose f64 field "seconds" says how long the transport was
// without one: it has missed what was sent to it in that time. While messages leave more slowly
// than they are sent, "_PM.WARN.SYSTEM.CLIENT.FASTPRODUCER" says in its field "waiting" how many
// are queued.
//
// The direct road: a transport with a UDP port of its own is reached at "_INBOX.HOST.PPORT...", and
// such a message from a transport that has one too goes straight there, with or without a
// connection to the daemon. It arrives once, whole and in order, or is reported as lost: by
// "_PM.ERROR.SYSTEM.DATALOSS.OUTBOUND.PTP" at the sender and "...INBOUND.PTP" at the receiver,
// with the peer's address in the field "host" and, if it is known, "bytes_dropped". A sender waits
// while 4 MB to its peer are unconfirmed, but not in callbacks of the library's own queues.
//
// Ownership: a message that is sent still belongs to the sender, who may change or destroy it
// afterwards. Texts that a getter returns are valid until they are set again or the transport is
// destroyed.
//
// Failure: kStatusNotInitialized on a closed library, tested first by every call except the
// destroy; kStatusInvalidTransport for an id that isn't a live transport; kStatusNotPermitted for a
// call that needs a network transport; kStatusInvalidArgument for a null output or text;
// kStatusNoMemory. Outputs are written only on success.
//
// Threads: any. A transport delivers under its own lock, to its listeners' queues; callbacks run
// where those are dispatched. A queue's hook runs on the sending thread.

#pragma once

#include <stdint.h>

#include "../base/status.h"
#include "../runtime/callbacks.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct pelmoMsg pelmoMsg;

// Life

// Waits until the daemon has answered. Each text may be null. `network` and `service` choose the
// traffic; `daemon` says where the daemon is:
//
//     null, ""      port 7500 of this host
//     7500, :7500   that port of this host
//     HOST:7500     that port of another host, by name or dotted number
//     tcp:...       the same; ssl:... over a secure connection, if there is a class for it
//
// A daemon of this host that isn't there is started once, as the program "pmd" of the search path,
// where the text has no address; "127.0.0.1:7500" starts none.
//
// kStatusDaemonNotConnected where no daemon is reached, where it hangs up or doesn't answer within
// a minute, and when the library is closed meanwhile; kStatusInvalidArgument for a daemon text of
// another form or an unknown name, kStatusNotPermitted for one that begins with "-";
// kStatusWrongVersion for a daemon of another protocol; kStatusInitFailed for answers that make no
// session, and where the two don't come to terms for the stream in that time;
// kStatusInvalidTransport for terms that can't be kept; kStatusServiceNotFound and
// kStatusNetworkNotFound for a session without a port or an address; any status that the daemon
// refuses with.
//
// A service "7500:7501" asks for the direct road: a UDP port of the transport's own, 7501, or any
// for "7500:", where others that have one reach its inboxes without the daemon. It is made with a
// daemon of this host, at the address that the daemon reports, or with one that routes, at this
// host's own; other daemons ignore the port. kStatusNotPermitted for a port that is the service
// itself, kStatusServiceNotFound for one that isn't known, kStatusPortInUse for one that can't be
// had.
PELMO_NODISCARD pelmoStatus pelmoTransport_CreateNetwork(uint32_t* out,
                                                         const char* service,
                                                         const char* network,
                                                         const char* daemon);

// The same, but the daemon doesn't resume what an earlier connection left unfinished.
PELMO_NODISCARD pelmoStatus pelmoTransport_CreateNetworkNoResume(uint32_t* out,
                                                                 const char* service,
                                                                 const char* network,
                                                                 const char* daemon);

// Its listeners get no further messages; requests that are waiting end with
// kStatusInvalidTransport. What was sent leaves first: the call waits until the daemon has it, and
// gives up once nothing has left for five seconds, and up to eleven until peers have what went
// straight to them. A connect that is under way ends at once. kStatusNotPermitted for the
// intra-process transport while the library is open. kStatusDeliveryFailed where not all that was
// sent is known to have left: the transport is destroyed all the same, and a line in the log has
// the numbers of messages and bytes.
pelmoStatus pelmoTransport_Destroy(uint32_t transport);

// The same, and gives up after so many seconds in all. kStatusInvalidArgument unless they are at
// least 0.
pelmoStatus pelmoTransport_DestroyWithin(uint32_t transport, double seconds);

// Sending. kStatusInvalidMessage for no message; kStatusInvalidSubject for a message without a send
// subject or with a reserved one; kStatusDaemonNotConnected without a connection to the daemon,
// kStatusInvalidIoSource for a send that meets its break. A send also succeeds when the transport
// is destroyed meanwhile. A send waits while too much is queued for the daemon
// (pelmoTransport_SetSendingWaitLimit). It is written at once, but where many sends follow each
// other closely: then it may wait for the next ones, a millisecond at most. Destroying the
// transport and closing the library write it; a process that ends without either may lose it.
// kStatusInvalidSize for a message longer than the daemon takes, on the direct road for one above
// 64 MiB. On the direct road also: kStatusDeliveryFailed where the peer is given up while the
// sender waits, kStatusInvalidTransport for a transport that is being destroyed.

PELMO_NODISCARD pelmoStatus pelmoTransport_Send(uint32_t transport, pelmoMsg* message);

// Sends several messages in order. On a network transport all of them are looked at first, and one
// that can't be sent leaves none. Those that go straight to peers leave first, one by one; then
// those for the daemon, together. A failure later on, by memory, a break or a peer that is given
// up, leaves what came before it sent. Within the process messages are delivered one by one up to
// the first failure.
PELMO_NODISCARD pelmoStatus pelmoTransport_Sendv(uint32_t transport,
                                                 pelmoMsg* const* messages,
                                                 uint32_t count);

// The same, and says on failure too how many messages were taken, in the order in which they leave.
// Anyone who repeats the send does so with the others alone: those that were taken have left, or
// may have, or are lost with the connection (pelmoTransport_GetUnsent).
PELMO_NODISCARD pelmoStatus pelmoTransport_SendvTaken(uint32_t transport,
                                                      pelmoMsg* const* messages,
                                                      uint32_t count,
                                                      uint32_t* outTaken);

// What a network transport has taken for the daemon and the daemon's system hasn't got. Of what the
// own system holds, the number of messages is an estimate by their average size.
typedef struct pelmoUnsent {
    uint64_t waitingMessages;
    uint64_t waitingBytes;
    uint64_t lostMessages;  // by broken connections, since the transport was made
    uint64_t lostBytes;
} pelmoUnsent;
PELMO_NODISCARD pelmoStatus pelmoTransport_GetUnsent(uint32_t transport, pelmoUnsent* out);

// Sends and waits for the reply, which the caller destroys. Seconds below 0 mean no limit.
// kStatusTimeout when no reply came in time; a later one is dropped. The message's reply subject is
// set.
PELMO_NODISCARD pelmoStatus pelmoTransport_SendRequest(uint32_t transport,
                                                       pelmoMsg* message,
                                                       pelmoMsg** outReply,
                                                       double seconds);

// Sends and returns at once. The reply goes to the callback, on the queue, once: with the reply,
// which ends with the callback unless that detaches it, or with a null message when none came in
// time or the transport is destroyed. Seconds from the send on; below 0 there is no limit. The time
// limit is never dropped by a queue's limit, though a reply may be.
//
//     void onAnswer(uint32_t request, pelmoMsg* reply, void* closure);
//     ...
//     uint32_t request;
//     pelmoTransport_SendRequestAsync(&request, transport, queue, msg, onAnswer, 2.0, nullptr);
//
// The request is an event, a listener on its own inbox: it ends by itself after its callback, and
// earlier by pelmoEvent_DestroyEx or pelmoEvent_DestroyWait, which cancel it; without a callback
// then, and where its queue is destroyed or the library closed. Its callback may run before this
// call returns. The message still belongs to the caller; its reply subject is set.
//
// As a send, and kStatusInvalidCallback for no callback, kStatusInvalidInterval for NaN,
// kStatusInvalidQueue. After a failure no callback runs.
PELMO_NODISCARD pelmoStatus pelmoTransport_SendRequestAsync(uint32_t* outRequest,
                                                            uint32_t transport,
                                                            uint32_t queue,
                                                            pelmoMsg* message,
                                                            pelmoEventCallback callback,
                                                            double seconds,
                                                            void* closure);

// Answers a request: sets the send subject of `reply` and sends it. kStatusNotFound for a request
// without a reply subject.
PELMO_NODISCARD pelmoStatus pelmoTransport_SendReply(uint32_t transport,
                                                     pelmoMsg* reply,
                                                     pelmoMsg* request);

// Writes a unique subject as text. kStatusInsufficientBuffer when the text and its NUL don't fit.
PELMO_NODISCARD pelmoStatus pelmoTransport_CreateInbox(uint32_t transport,
                                                       char* buffer,
                                                       uint32_t size);

// Advisories. The description may be null. kStatusInvalidArgument also for a class with a dot, or
// texts of more than 244 bytes in total; kStatusInvalidSubject for an empty text, or an element or
// subject too long.
pelmoStatus pelmoTransport_SendAdvisory(uint32_t transport,
                                        const char* advisoryClass,
                                        const char* source,
                                        const char* name,
                                        const char* description);

// Delivers to the transport's own listeners, never to the network. It takes ownership of the
// message, on failure too.
pelmoStatus pelmoTransport_Distribute(uint32_t transport, pelmoMsg* message);

// Interest: the answers are 1 or 0, and 0 also for an id that isn't a live transport.

// Does any listener match this subject, given as text?
PELMO_NODISCARD uint32_t pelmoTransport_HasInterest(uint32_t transport, const char* subject);

// The first listener on exactly this subject, packed as on the wire.
PELMO_NODISCARD uint32_t pelmoTransport_FindInterest(uint32_t transport,
                                                     const uint8_t* subject,
                                                     uint32_t* outEvent);

// Settings of a network transport. They are kept: each connection begins with them. A change is
// sent to the daemon at once, unless the daemon is too old to know the setting.

// What pelmoTransport_CreateNetwork was given, the daemon's after defaulting.
// kStatusInvalidTransport for other kinds.
PELMO_NODISCARD pelmoStatus pelmoTransport_GetService(uint32_t transport, const char** out);
PELMO_NODISCARD pelmoStatus pelmoTransport_GetNetwork(uint32_t transport, const char** out);
PELMO_NODISCARD pelmoStatus pelmoTransport_GetDaemon(uint32_t transport, const char** out);

// What the direct road has carried since the transport was made; all 0 without one. So it shows
// which road messages took: those that went straight are counted here.
typedef struct pelmoDirectTraffic {
    uint64_t messagesSent;
    uint64_t messagesReceived;
    uint64_t packetsSent;  // repeats among them
    uint64_t packetsReceived;
    uint64_t packetsResent;
    uint64_t packetsDropped;  // what came and was no packet of a connection
    uint16_t port;            // UDP; 0: no direct road
} pelmoDirectTraffic;
PELMO_NODISCARD pelmoStatus pelmoTransport_GetDirectTraffic(uint32_t transport,
                                                            pelmoDirectTraffic* out);

// Null means the empty text.
PELMO_NODISCARD pelmoStatus pelmoTransport_SetDescription(uint32_t transport, const char* text);
PELMO_NODISCARD pelmoStatus pelmoTransport_GetDescription(uint32_t transport, const char** out);
PELMO_NODISCARD pelmoStatus pelmoTransport_SetHttpAddress(uint32_t transport, const char* text);
PELMO_NODISCARD pelmoStatus pelmoTransport_GetHttpAddress(uint32_t transport, const char** out);

// A hidden transport may send on reserved subjects and listen to inboxes by wildcards.
PELMO_NODISCARD pelmoStatus pelmoTransport_SetHidden(uint32_t transport, bool hidden);

// Does the daemon send back what this transport sends? It does at first.
PELMO_NODISCARD pelmoStatus pelmoTransport_SetEcho(uint32_t transport, bool echo);

// How long the daemon keeps messages for resending. kStatusInvalidArgument unless above 0.
PELMO_NODISCARD pelmoStatus pelmoTransport_RequestReliability(uint32_t transport, double seconds);

// 1: small messages are gathered before they leave. It can't be switched off again: 0 answers
// kStatusNotPermitted then. kStatusDaemonNotConnected without a connection.
PELMO_NODISCARD pelmoStatus pelmoTransport_SetBatchMode(uint32_t transport, uint32_t mode);

// Do senders wait while too much is queued? They do at first. kStatusDaemonNotConnected without a
// connection.
PELMO_NODISCARD pelmoStatus pelmoTransport_SetBlockingOnExcessiveBacklog(uint32_t transport,
                                                                         bool blocking);

// More queued bytes than that are too much: 16 MiB at first, and for a limit of 0.
PELMO_NODISCARD pelmoStatus pelmoTransport_SetSendingWaitLimit(uint32_t transport, uint32_t limit);
PELMO_NODISCARD pelmoStatus pelmoTransport_GetSendingWaitLimit(uint32_t transport, uint32_t* out);

// Messages sent between the two calls wait, and leave together. Holds nest, and end with the
// connection. What is above the wait limit isn't held back. kStatusDaemonNotConnected without one.
PELMO_NODISCARD pelmoStatus pelmoTransport_HoldSends(uint32_t transport);
PELMO_NODISCARD pelmoStatus pelmoTransport_ReleaseSends(uint32_t transport);

// Settings of delivery from the network, which can't be undone.

// Each message is delivered to only one of its listeners.
pelmoStatus pelmoTransport_SetFirstListenerOnly(uint32_t transport);

// An advisory without a listener isn't logged.
pelmoStatus pelmoTransport_SetQuietUnhandled(uint32_t transport);

#ifdef __cplusplus
}
#endif
