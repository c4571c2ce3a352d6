// Transports: what carries messages from senders to listeners.
//
// The intra-process transport, kIntraProcessTransportId, is always there while the library is open.
// It hands each message straight to the listeners of this process. A network transport sends to a
// bus daemon, or directly to the process that owns an inbox; a virtual circuit wraps its messages
// for one peer and sends them over another transport. Listeners are made in runtime/event.h.
//
//     pelmoMsg_SetSendSubject(msg, "A.B");
//     pelmoTransport_Send(kIntraProcessTransportId, msg);    // the caller keeps msg
//
// Subjects: "_PM" as the first element is reserved for advisories, which the library sends about
// itself: "_PM.<class>.<source>.<name>", with the text fields ADV_CLASS, ADV_SOURCE, ADV_NAME and,
// where there is a description, ADV_DESC. One of class "WARN" or "ERROR" that nobody listens to
// becomes a line in the log. "_INBOX" as the first element makes an inbox: a subject of one
// listener, made by pelmoTransport_CreateInbox, that no wildcard matches.
//
// Ownership: a message that is sent stays the sender's, who may change or destroy it afterwards.
// Texts that a getter gives are good until they are set anew or the transport is destroyed.
//
// Failure: kStatusNotInitialized on a closed library, ahead of all else, but for the destroy;
// kStatusInvalidTransport for an id that isn't a live transport; kStatusNotPermitted for a call
// that wants a network transport; kStatusInvalidArgument for no output or text; kStatusNoMemory.
// Outputs are written only on success.
//
// Threads: any. A transport delivers under its own lock, to its listeners' queues; callbacks run
// where those are dispatched. A queue's hook runs on the sending thread.

#pragma once

#include <cstdint>

#include "../base/status.h"

struct pelmoMsg;

// Life

// Each text may be null. `network` and `service` choose the traffic; `daemon` is a port, a host and
// port, or null for the local one. kStatusDaemonNotConnected where no daemon is reached, and always
// while the library is built without its daemon connection.
[[nodiscard]] pelmoStatus pelmoTransport_CreateNetwork(uint32_t* out,
                                                       const char* service,
                                                       const char* network,
                                                       const char* daemon);

// The same, and the daemon is told not to resume what an earlier connection left unfinished.
[[nodiscard]] pelmoStatus pelmoTransport_CreateNetworkNoResume(uint32_t* out,
                                                               const char* service,
                                                               const char* network,
                                                               const char* daemon);

// Its listeners are cut off, requests under way end with kStatusInvalidTransport.
// kStatusNotPermitted for the intra-process transport while the library is open.
pelmoStatus pelmoTransport_Destroy(uint32_t transport);

// Sending. kStatusInvalidMessage for no message; kStatusInvalidSubject for one without a send
// subject, or with a reserved one; what the daemon connection answers. Success also where the
// transport is destroyed meanwhile.

[[nodiscard]] pelmoStatus pelmoTransport_Send(uint32_t transport, pelmoMsg* message);

// Messages in order up to the first failure. Those for the daemon leave together, or not at all.
[[nodiscard]] pelmoStatus pelmoTransport_Sendv(uint32_t transport,
                                               pelmoMsg* const* messages,
                                               uint32_t count);

// Sends, and waits for the answer to it, which is the caller's to destroy. Seconds below 0: without
// limit. kStatusTimeout; an answer that comes later is dropped. The message's reply subject is set.
[[nodiscard]] pelmoStatus pelmoTransport_SendRequest(uint32_t transport,
                                                     pelmoMsg* message,
                                                     pelmoMsg** outReply,
                                                     double seconds);

// Answers a request: sets the send subject of `reply`. kStatusNotFound for a request that wants no
// answer.
[[nodiscard]] pelmoStatus pelmoTransport_SendReply(uint32_t transport,
                                                   pelmoMsg* reply,
                                                   pelmoMsg* request);

// A subject that nobody else has, as text. kStatusInsufficientBuffer where text and NUL don't fit.
[[nodiscard]] pelmoStatus pelmoTransport_CreateInbox(uint32_t transport,
                                                     char* buffer,
                                                     uint32_t size);

// Advisories. The description may be null. kStatusInvalidArgument also for a class with a dot, or
// texts of more than 244 bytes together; kStatusInvalidSubject for an empty text, or an element or
// subject too long.
pelmoStatus pelmoTransport_SendAdvisory(uint32_t transport,
                                        const char* advisoryClass,
                                        const char* source,
                                        const char* name,
                                        const char* description);

// To the transport's own listeners, never to the network. Owns the message, on failure too.
pelmoStatus pelmoTransport_Distribute(uint32_t transport, pelmoMsg* message);

// Interest. 1 or 0; 0 also where there is no such transport.

// Would a message on this subject, a text, find a listener?
[[nodiscard]] uint32_t pelmoTransport_HasInterest(uint32_t transport, const char* subject);

// The first listener of exactly this subject, packed as on the wire.
[[nodiscard]] uint32_t pelmoTransport_FindInterest(uint32_t transport,
                                                   const uint8_t* subject,
                                                   uint32_t* outEvent);

// Settings of a network transport. Those that the daemon is told of are kept, and told again at
// each connection; a daemon too old to know one isn't told.

// What pelmoTransport_CreateNetwork was given, the daemon's after defaulting.
// kStatusInvalidTransport for other kinds.
[[nodiscard]] pelmoStatus pelmoTransport_GetService(uint32_t transport, const char** out);
[[nodiscard]] pelmoStatus pelmoTransport_GetNetwork(uint32_t transport, const char** out);
[[nodiscard]] pelmoStatus pelmoTransport_GetDaemon(uint32_t transport, const char** out);

// Null is the empty text.
[[nodiscard]] pelmoStatus pelmoTransport_SetDescription(uint32_t transport, const char* text);
[[nodiscard]] pelmoStatus pelmoTransport_GetDescription(uint32_t transport, const char** out);
[[nodiscard]] pelmoStatus pelmoTransport_SetHttpAddress(uint32_t transport, const char* text);
[[nodiscard]] pelmoStatus pelmoTransport_GetHttpAddress(uint32_t transport, const char** out);

// A hidden transport may send on reserved subjects and listen to inboxes by wildcards.
[[nodiscard]] pelmoStatus pelmoTransport_SetHidden(uint32_t transport, bool hidden);

// Does the daemon send back what this transport sends? It does at first.
[[nodiscard]] pelmoStatus pelmoTransport_SetEcho(uint32_t transport, bool echo);

// For how long the daemon keeps messages for resending. kStatusInvalidArgument unless above 0.
[[nodiscard]] pelmoStatus pelmoTransport_RequestReliability(uint32_t transport, double seconds);

// 1: small messages are gathered before they leave. Can't be switched off again:
// kStatusNotPermitted.
[[nodiscard]] pelmoStatus pelmoTransport_SetBatchMode(uint32_t transport, uint32_t mode);

// Do senders wait while too much is under way? kStatusDaemonNotConnected.
[[nodiscard]] pelmoStatus pelmoTransport_SetBlockingOnExcessiveBacklog(uint32_t transport,
                                                                       bool blocking);
[[nodiscard]] pelmoStatus pelmoTransport_SetSendingWaitLimit(uint32_t transport, uint32_t limit);
[[nodiscard]] pelmoStatus pelmoTransport_GetSendingWaitLimit(uint32_t transport, uint32_t* out);

// Between the two, what is sent waits. kStatusDaemonNotConnected.
[[nodiscard]] pelmoStatus pelmoTransport_HoldSends(uint32_t transport);
[[nodiscard]] pelmoStatus pelmoTransport_ReleaseSends(uint32_t transport);

// Settings of delivery from the network, without a way back.

// Each message goes to one of its listeners only.
pelmoStatus pelmoTransport_SetFirstListenerOnly(uint32_t transport);

// An advisory that nobody listens to isn't logged.
pelmoStatus pelmoTransport_SetQuietUnhandled(uint32_t transport);
