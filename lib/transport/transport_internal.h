// The transport's record and the transport floor's internal calls. The calls for applications are
// in lib/transport/transport.h.
//
// Order of locks: a circuit's object lock, that of the transport beneath it; then those of queues
// and events. No other two transports are ever held at a time. None is held by a thread that posts,
// as a queue's hook may make any call, and the advisory of its limit goes to another transport.

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

// "_INBOX.", a session, a dot and a NUL.
inline constexpr uint32_t kInboxPrefixBytes = kMostSessionChars + 9;

// What each session of a network transport begins with: the connection to the daemon reads it, the
// transport's calls write it.
struct NetworkSettings {
    // Constant after creation; heap texts, empty when not given.
    char* service;
    char* network;

    char* description;  // heap text, null for none
    char* httpAddress;
    bool echo;
    bool hide;
    double reliabilitySeconds;  // negative: not requested
};

// Where an inbox is reached without the daemon: numbers, as the inbox's subject has them.
struct DirectPeer {
    uint32_t host;
    uint16_t port;

    bool operator==(const DirectPeer&) const = default;
};

struct Transport {
    static constexpr IdType kIdType = IdType::kTransport;
    IdHeader header;

    // Constant after creation.
    TransportKind kind;
    char inboxPrefix[kInboxPrefixBytes];  // what each inbox begins with, its last dot included
    DaemonLink* link;                     // kNetwork; null for other kinds
    VirtualCircuit* circuit;              // kCircuit
    uint32_t underlying;                  // kCircuit: id of the transport beneath

    // Set when the destroy begins: no listener and no request is accepted afterwards.
    bool destroying PELMO_GUARDED_BY(header.lock);
    bool firstListenerOnly PELMO_GUARDED_BY(header.lock);
    bool quietUnhandled PELMO_GUARDED_BY(header.lock);
    bool reservedAllowed PELMO_GUARDED_BY(header.lock);
    bool inboxWildcards PELMO_GUARDED_BY(header.lock);
    uint64_t nextInbox PELMO_GUARDED_BY(header.lock);
    SubjectList* subjects
        PELMO_GUARDED_BY(header.lock);               // of Event, kept alive by its base reference
    Dpa* spareQueues PELMO_GUARDED_BY(header.lock);  // queue ids for later requests
    HookLists hooks PELMO_GUARDED_BY(header.lock);

    // Keys are the ids of the queues of waiting requests; the values are unused.
    Dict32* requestQueues PELMO_GUARDED_BY(header.lock);

    ReliableEndpoint* directEndpoint PELMO_GUARDED_BY(header.lock);  // kNetwork; null: none
    DirectPeer directSelf PELMO_GUARDED_BY(header.lock);  // where others reach the endpoint

    NetworkSettings settings PELMO_GUARDED_BY(header.lock);  // kNetwork
};

// Fills transportOps. Called before the first open.
void transportAttach();

// Life

// kStatusNoMemory for any failure.
[[nodiscard]] pelmoStatus Transport_CreateIntraProcess();

// Makes a record without id, link and circuit; the caller owns the base reference. Null when memory
// ran out.
[[nodiscard]] Transport* Transport_New(TransportKind kind);

// Sending

// Like the call for applications, but with the messages in a pointer array, a type that only the
// library's own files have.
[[nodiscard]] pelmoStatus pelmoTransport_Sendv(uint32_t transport, const Dpa* messages);

// For the library's own messages, whether it is open or not; the public calls stop as it begins to
// close. With no lock held but a circuit's over this transport.
[[nodiscard]] pelmoStatus transportSend(uint32_t transport, pelmoMsg* message);

// Does what is sent to that inbox go straight there? The subject is packed.
[[nodiscard]] bool transportReachesDirectly(uint32_t transport, const uint8_t* inbox);
[[nodiscard]] pelmoStatus transportSendVector(uint32_t transport,
                                              std::span<pelmoMsg* const> messages,
                                              uint32_t* taken);

// Delivery

// Delivers a copy to each listener on the message's subject; an advisory of class "WARN" or "ERROR"
// without a listener is logged. The caller holds the object lock once and keeps the message; the
// lock is released before the first post, and stays so. kStatusInvalidMessage,
// kStatusInvalidSubject; kStatusNoMemory when a listener didn't get its copy.
[[nodiscard]] pelmoStatus Transport_Deliver(Held<Transport>& transport, pelmoMsg* message)
    PELMO_RELEASE(transport->header.lock);

// Delivers messages from outside in order and takes ownership of them; one that is malformed or has
// no send subject is dropped. The caller holds a reference and no lock; the object lock is taken
// here, and not held while messages are posted.
void Transport_DeliverBatch(Transport* transport, std::span<pelmoMsg* const> messages);

// The same for a circuit's listeners: nothing is logged, and each of many listeners gets a message.
// kStatusNoMemory where the listeners of some couldn't be gathered.
[[nodiscard]] pelmoStatus Transport_DeliverOfPeer(Transport* transport,
                                                  std::span<pelmoMsg* const> messages);

// Hooks

// A hook belongs to its transport and ends with it; its handle must not be used afterwards.
// kStatusInvalidTransport, kStatusNoMemory.
[[nodiscard]] pelmoStatus Transport_AddHook(TransportHook** out,
                                            HookKind kind,
                                            uint32_t transport,
                                            TransportHookFunction callback,
                                            void* closure);
pelmoStatus Transport_RemoveHook(TransportHook* hook);

// The caller holds the object lock once, and a reference. Hooks run with the lock released, on a
// copy of the list: a hook that another thread removes meanwhile may run once more. kStatusNoMemory
// when the list can't be copied.
[[nodiscard]] pelmoStatus Transport_RunHooks(Transport* transport,
                                             HookKind kind,
                                             pelmoMsg** message)
    PELMO_REQUIRES(transport->header.lock);

// The caller holds the object lock.
[[nodiscard]] bool transportHasHooks(const Transport* transport, HookKind kind)
    PELMO_REQUIRES(transport->header.lock);

// Implements transportOps.runInboundHooks.
[[nodiscard]] bool Transport_RunInboundHooks(uint32_t transport, pelmoMsg* message);

// Listeners

// Implement transportOps.addListener and removeListener. kStatusInvalidSubject,
// kStatusInvalidQueue, kStatusInvalidTransport, kStatusNoMemory.
[[nodiscard]] pelmoStatus Transport_AddListener(uint32_t* out, const ListenerRequest& request);
pelmoStatus Transport_RemoveListener(uint32_t transport, Event* event);

// Enters a listener, of which the caller holds the base reference, in the list and gives it its id.
// `isFirst`, optional: whether it is the only one at its subject. On failure it has no id and
// isn't in the list. The caller holds the object lock. kStatusNoMemory.
[[nodiscard]] pelmoStatus transportBindListener(
    Transport* transport, Event* listener, const uint8_t* subject, uint32_t* out, bool* isFirst)
    PELMO_REQUIRES(transport->header.lock);

// Takes a listener off the list but keeps its id and inbox; `*remaining`: how many its subject has.
// False when it wasn't in the list. The caller holds the object lock.
bool transportForgetListener(Transport* transport,
                             Event* event,
                             const uint8_t* subject,
                             uint32_t* remaining) PELMO_REQUIRES(transport->header.lock);

// Empties and frees the listener's inbox; nothing is delivered to it afterwards.
void listenerCutOff(Event* event);

// The subjects that a daemon has to know of, in the order of the listeners' table: packed, one
// after the other, in a block that the caller frees. Null and no bytes if there are none; false
// when memory ran out. The caller holds the object lock.
[[nodiscard]] bool transportListInterest(Transport* transport,
                                         uint8_t** outSubjects,
                                         size_t* outBytes) PELMO_REQUIRES(transport->header.lock);

// Writes the subject of the next inbox, truncated if it doesn't fit. Returns its full length. The
// caller holds the object lock.
[[nodiscard]] uint32_t transportNextInbox(Transport* transport, char* buffer, uint32_t size)
    PELMO_REQUIRES(transport->header.lock);

// Messages

// The packed send subject: that of the open envelope, or else of the field "sub". It points into
// the image and is valid until the image changes. kStatusInvalidSubject.
[[nodiscard]] pelmoStatus messageSubject(pelmoMsg* message, const uint8_t** out);

[[nodiscard]] bool subjectElementEquals(const uint8_t* subject, uint32_t index, const char* word);
[[nodiscard]] bool subjectIsInbox(const uint8_t* subject);

// Is it one of the daemon's inboxes, which any network transport may listen to?
[[nodiscard]] bool subjectIsDaemonInbox(const uint8_t* subject);

// Prepares a send: checks the subject and returns a reference to what is to be sent. That is the
// message itself or, when its envelope has fields that this library doesn't make, a copy with a
// plain envelope. The caller holds the object lock. kStatusInvalidMessage, kStatusInvalidSubject,
// kStatusNoMemory.
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

// Is its first element the library's own, "_PM"?
[[nodiscard]] bool subjectIsReserved(const uint8_t* subject);

// Is it an advisory of class "WARN" or "ERROR", or, with `infoToo`, "INFO"?
[[nodiscard]] bool subjectIsAdvisory(const uint8_t* subject, bool infoToo);
