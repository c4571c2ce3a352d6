// The transport's record, and what the floor of the transports does with it. The calls for
// applications stand in lib/transport/transport.h.
//
// Order of locks: a circuit's object lock, that of the transport beneath it, the intra-process
// transport's; then those of queues and events. Posting may run a queue's hook, or send an advisory
// that comes back to the same transport on the same thread: the lock is recursive for that, and
// nobody walks a list of the record while posting.

#pragma once

#include <cstdint>
#include <span>

#include "lib/base/status.h"
#include "lib/containers/dict.h"
#include "lib/containers/sublist.h"
#include "lib/runtime/id.h"
#include "lib/transport/hook_list.h"
#include "lib/transport/transport.h"
#include "lib/transport/transport_links.h"

struct Dpa;
struct Event;
struct ListenerRequest;
struct pelmoMsg;

enum class TransportKind : uint32_t { kIntraProcess, kNetwork, kCircuit };

inline constexpr uint32_t kMostSpareQueues = 4;

// "_INBOX.", a session and a dot.
inline constexpr uint32_t kInboxPrefixBytes = kSessionBytes + 16;

struct Transport {
    static constexpr IdType kIdType = IdType::kTransport;
    IdHeader header;

    // Constant after creation.
    TransportKind kind;
    char inboxPrefix[kInboxPrefixBytes];  // what each inbox begins with, its last dot included
    DaemonLink* link;         // kNetwork; may be null for another, and never changes to null
    VirtualCircuit* circuit;  // kCircuit
    uint32_t underlying;      // kCircuit: id of the transport beneath

    // Set from the start of the destroy: no listener, no request more.
    bool destroying PELMO_GUARDED_BY(header.lock);
    bool firstListenerOnly PELMO_GUARDED_BY(header.lock);
    bool quietUnhandled PELMO_GUARDED_BY(header.lock);
    bool reservedAllowed PELMO_GUARDED_BY(header.lock);
    bool inboxWildcards PELMO_GUARDED_BY(header.lock);
    uint64_t nextInbox PELMO_GUARDED_BY(header.lock);
    SubjectList* subjects PELMO_GUARDED_BY(header.lock);  // of Event, whose base reference keeps it
    Dpa* spareQueues PELMO_GUARDED_BY(header.lock);       // ids, for requests
    HookLists hooks PELMO_GUARDED_BY(header.lock);

    // The id of each request's queue; the value means nothing.
    Dict32* requestQueues PELMO_GUARDED_BY(header.lock);

    ReliableEndpoint* directEndpoint PELMO_GUARDED_BY(header.lock);  // kNetwork; null: none
    uint32_t directSends PELMO_GUARDED_BY(header.lock);  // sends by an endpoint that are under way

    // Of a destroyed transport: for the last of these sends to close.
    ReliableEndpoint* leftEndpoint PELMO_GUARDED_BY(header.lock);
    uint16_t directPort PELMO_GUARDED_BY(header.lock);  // 0: none

    // The daemon connection's.
    bool autoStart PELMO_GUARDED_BY(header.lock);
    uint32_t reconnectCount PELMO_GUARDED_BY(header.lock);
    double lastDisconnectSeconds PELMO_GUARDED_BY(header.lock);
};

// Fills transportOps. Ahead of the first open.
void transportAttach();

// Life

// kStatusNoMemory for any failure.
[[nodiscard]] pelmoStatus Transport_CreateIntraProcess();

// A record without an id, link and circuit: the caller's base reference. Null where memory ran out.
[[nodiscard]] Transport* Transport_New(TransportKind kind);

// Sending

// As the call for applications, with the messages in a pointer array, which only the library's own
// files have.
[[nodiscard]] pelmoStatus pelmoTransport_Sendv(uint32_t transport, const Dpa* messages);

// Delivery

// To the listeners of the message's subject, a copy for each; an advisory of class "WARN" or
// "ERROR" without a listener is logged. The caller holds the object lock and keeps the message.
// kStatusInvalidMessage, kStatusInvalidSubject; kStatusNoMemory where a listener went without.
[[nodiscard]] pelmoStatus Transport_Deliver(Transport* transport, pelmoMsg* message)
    PELMO_REQUIRES(transport->header.lock);

// What came from outside, in order. Owns the messages; one that is malformed, or has no send
// subject, is dropped. The caller holds a reference, and better not the object lock: it is taken
// here, and left ahead of the last post.
void Transport_DeliverBatch(Transport* transport, std::span<pelmoMsg* const> messages);

// Hooks

// A hook belongs to its transport and goes with it; the handle isn't used afterwards.
// kStatusInvalidTransport, kStatusNoMemory.
[[nodiscard]] pelmoStatus Transport_AddHook(TransportHook** out,
                                            HookKind kind,
                                            uint32_t transport,
                                            TransportHookFunction callback,
                                            void* closure);
pelmoStatus Transport_RemoveHook(TransportHook* hook);

// The caller holds the object lock once, and a reference. Hooks run with the lock left, on a copy
// of the list: one that another thread removes meanwhile may run once more. kStatusNoMemory where
// so many hooks as there are can't be copied.
[[nodiscard]] pelmoStatus Transport_RunHooks(Transport* transport,
                                             HookKind kind,
                                             pelmoMsg** message)
    PELMO_REQUIRES(transport->header.lock);

// The caller holds the object lock.
[[nodiscard]] bool transportHasHooks(const Transport* transport, HookKind kind)
    PELMO_REQUIRES(transport->header.lock);

// What transportOps.runInboundHooks does.
[[nodiscard]] bool Transport_RunInboundHooks(uint32_t transport, pelmoMsg* message);

// Listeners

// What transportOps.addListener and removeListener do. kStatusInvalidSubject, kStatusInvalidQueue,
// kStatusInvalidTransport, kStatusNoMemory.
[[nodiscard]] pelmoStatus Transport_AddListener(uint32_t* out, const ListenerRequest& request);
pelmoStatus Transport_RemoveListener(uint32_t transport, Event* event);

// Enters a listener, of which the caller holds the base reference, in the list and gives it its id.
// `isFirst`, optional: it is the only one at its subject. On failure it is in neither. The caller
// holds the object lock. kStatusNoMemory.
[[nodiscard]] pelmoStatus transportBindListener(
    Transport* transport, Event* listener, const uint8_t* subject, uint32_t* out, bool* isFirst)
    PELMO_REQUIRES(transport->header.lock);

// Takes a listener off the list, not its id or inbox; how many stay at its subject. False where it
// wasn't there. The caller holds the object lock.
bool transportForgetListener(Transport* transport,
                             Event* event,
                             const uint8_t* subject,
                             uint32_t* remaining) PELMO_REQUIRES(transport->header.lock);

// Empties and frees the inbox; nothing is delivered to the listener afterwards.
void listenerCutOff(Event* event);

// Writes the next inbox's subject, whole or cut to size; the length that it has whole. The caller
// holds the object lock.
[[nodiscard]] uint32_t transportNextInbox(Transport* transport, char* buffer, uint32_t size)
    PELMO_REQUIRES(transport->header.lock);

// Messages

// The packed send subject: of the open envelope, or else of the field "sub". It lies in the image,
// good while nothing changes that. kStatusInvalidSubject.
[[nodiscard]] pelmoStatus messageSubject(pelmoMsg* message, const uint8_t** out);

[[nodiscard]] bool subjectElementEquals(const uint8_t* subject, uint32_t index, const char* word);
[[nodiscard]] bool subjectIsInbox(const uint8_t* subject);

// Ahead of sending: checks the subject, and gives a reference on what is to be sent: the message,
// or, where its envelope has fields that this library doesn't make, a copy with a plain one. The
// caller holds the object lock. kStatusInvalidMessage, kStatusInvalidSubject, kStatusNoMemory.
[[nodiscard]] pelmoStatus transportMakeReady(Transport* transport,
                                             pelmoMsg* message,
                                             pelmoMsg** out) PELMO_REQUIRES(transport->header.lock);

// Advisories

[[nodiscard]] pelmoStatus advisoryCreate(pelmoMsg** out,
                                         const char* advisoryClass,
                                         const char* source,
                                         const char* name,
                                         const char* description);
pelmoStatus advisorySend(uint32_t transport,
                         const char* advisoryClass,
                         const char* source,
                         const char* name,
                         const char* description);

// pelmoTransport_Distribute, whether the library is open or not.
pelmoStatus transportDistribute(uint32_t transport, pelmoMsg* message);

// Is it an advisory of class "WARN" or "ERROR", or, with `infoToo`, "INFO"?
[[nodiscard]] bool subjectIsAdvisory(const uint8_t* subject, bool infoToo);
