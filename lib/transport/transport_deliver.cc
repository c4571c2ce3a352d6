// Delivery: from a message to the queues of the listeners on its subject.
//
// Listeners are matched under the transport's lock and posted to without it: a post may run a
// queue's hook or report a limit on another transport. So the matching listeners are copied, each
// with a reference; the next match overwrites the subject list's own array.

#include <cstdlib>
#include <cstring>
#include <utility>

#include "lib/base/log_pace.h"
#include "lib/containers/dpa.h"
#include "lib/containers/entry_ring.h"
#include "lib/containers/subject.h"
#include "lib/msg/envelope_internal.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/text.h"
#include "lib/runtime/event_internal.h"
#include "lib/runtime/library.h"
#include "lib/runtime/post.h"
#include "lib/runtime/tracing.h"
#include "lib/transport/transport_internal.h"

namespace {

constexpr uint32_t kListenersOnStack = 128;
constexpr uint32_t kMostEntries = 128;

// Listeners, each held by a reference.
class HeldListeners {
  public:
    HeldListeners() = default;
    ~HeldListeners() {
        drop();
        if (items_ != onStack_) std::free(items_);
    }
    HeldListeners(const HeldListeners&) = delete;
    HeldListeners& operator=(const HeldListeners&) = delete;

    // Replaces the listeners held. Null holds none. False when memory ran out.
    [[nodiscard]] bool hold(const Dpa* matches) {
        drop();
        if (matches == nullptr) return true;
        if (!makeRoom(matches->count)) return false;
        for (uint32_t i = 0; i < matches->count; ++i) {
            items_[i] = static_cast<Event*>(matches->items[i]);
            Id_AddRef(&items_[i]->header);
        }
        count_ = matches->count;
        return true;
    }

    // Releases the listeners of the other sort.
    void keepOnly(bool inboxes) {
        uint32_t kept = 0;
        for (Event* event : events()) {
            if (event->listener.isInbox == inboxes) {
                items_[kept++] = event;
            } else {
                Id_Release(&event->header, false);
            }
        }
        count_ = kept;
    }

    [[nodiscard]] std::span<Event* const> events() const { return {items_, count_}; }

  private:
    void drop() {
        for (Event* event : events()) {
            Id_Release(&event->header, false);
        }
        count_ = 0;
    }

    bool makeRoom(uint32_t count) {
        if (count <= room_) return true;
        auto* wider = static_cast<Event**>(std::calloc(count, sizeof(Event*)));
        if (wider == nullptr) return false;
        if (items_ != onStack_) std::free(items_);
        items_ = wider;
        room_ = count;
        return true;
    }

    Event* onStack_[kListenersOnStack];
    Event** items_ = onStack_;
    uint32_t room_ = kListenersOnStack;
    uint32_t count_ = 0;
};

void logUnhandled(pelmoMsg* message, const uint8_t* subject) {
    if (!subjectIsAdvisory(subject, false)) return;
    const char* text = nullptr;
    if (pelmoMsg_ConvertToString(message, &text) != kStatusSuccess) return;
    logPacedLine("Pelmo Error Not Handled by Process:\n%s", text);
}

void traceAdvisory(pelmoMsg* message, const uint8_t* subject, const char* words) {
    if (!traceWants(kTraceAdvisories) || !subjectIsAdvisory(subject, true)) return;
    (void)Trace_Message(kTraceAdvisories, message, "%s", words);
}

// The subject for the trace lines, one per listener; empty when none are to be written. It is a
// copy, since a queue's hook may change the message between two listeners, and with it the image
// that holds the subject.
struct TracedSubject {
    char text[kSubjectTextBytes];

    explicit TracedSubject(const uint8_t* subject) {
        const bool wanted =
            traceWants(kTraceReceive) && Tracing_LetsThrough(kTraceReceive, subject);
        if (!wanted || subjectToText(text, sizeof text, subject) == nullptr) text[0] = 0;
    }
};

// Takes the event's lock only when the value changes: most transports never have such hooks. With
// the transport's lock held, so that the last to write knows best.
void noteInboundHooks(Event* event, bool hooks) {
    if (event->listener.inboundHooks.load(std::memory_order_relaxed) == hooks) return;
    Id_Enter(&event->header);
    event->listener.inboundHooks.store(hooks, std::memory_order_relaxed);
    Id_Leave(&event->header);
}

enum class Pushed { kYes, kCutOff, kNoMemory };

// The copy stays in the listener's inbox until there is a place for it on the queue.
Pushed pushCopy(Event* event, pelmoMsg* copy, const TracedSubject& subject) {
    Pushed pushed = Pushed::kCutOff;
    Id_Enter(&event->header);
    if (event->listener.inbox != nullptr) {
        if (subject.text[0] != 0) {
            traceLine(kTraceReceive, "Internal message %p added to listener queue for subject %s",
                      tracePointer(copy), subject.text);
        }
        pushed = EntryRing_PushBack(event->listener.inbox, copy) ? Pushed::kYes : Pushed::kNoMemory;
    }
    Id_Leave(&event->header);
    return pushed;
}

// Empties the inbox of a listener whose queue is gone: nothing would ever dispatch these messages.
void dropWaiting(Event* event) {
    Id_Enter(&event->header);
    while (event->listener.inbox != nullptr) {
        auto* message = static_cast<pelmoMsg*>(EntryRing_PopFront(event->listener.inbox));
        if (message == nullptr) break;
        msgRelease(message);
    }
    Id_Leave(&event->header);
}

pelmoStatus deliverTo(Event* event, pelmoMsg* message, const TracedSubject& subject) {
    pelmoMsg* copy = nullptr;
    const pelmoStatus status = msgShareCopy(&copy, message);
    if (status != kStatusSuccess) return status;
    const Pushed pushed = pushCopy(event, copy, subject);
    if (pushed != Pushed::kYes) {
        msgRelease(copy);
        return pushed == Pushed::kNoMemory ? kStatusNoMemory : kStatusSuccess;
    }
    const pelmoStatus posted = Event_Post(event);
    if (posted == kStatusInvalidQueue) dropWaiting(event);
    return posted == kStatusNoMemory ? posted : kStatusSuccess;
}

// Collects entries for listeners of one queue, which are posted together.
class Collector {
  public:
    Collector() = default;
    Collector(const Collector&) = delete;
    Collector& operator=(const Collector&) = delete;

    // False where what was collected has to be posted first.
    [[nodiscard]] bool fits(const Event* event) const {
        return count_ == 0 || (event->queueId == queueId_ && count_ != kMostEntries);
    }

    // Takes ownership of the message.
    void add(const Event* event, pelmoMsg* message) {
        queueId_ = event->queueId;
        entries_[count_++] = {event->header.id, message};
    }

    // With no lock held.
    void flush() {
        if (count_ == 0) return;
        const uint32_t count = std::exchange(count_, 0);
        Queue_PostBatch(queueId_, {entries_, count});
    }

  private:
    PostEntry entries_[kMostEntries];
    uint32_t count_ = 0;
    uint32_t queueId_ = kNoId;
};

// A run of messages on one subject is looked up once.
class BatchMatch {
  public:
    // Finds the listeners; wildcards get no message of an inbox. False when memory ran out.
    [[nodiscard]] bool find(SubjectList* list, const uint8_t* subject) {
        if (isFor(subject)) return true;
        lengthBytes_ = 0;
        if (!listeners_.hold(sublistMatch(list, subject))) return false;
        listeners_.keepOnly(subjectIsInbox(subject));
        lengthBytes_ = subjectLength(subject);
        std::memcpy(subject_, subject, lengthBytes_);
        return true;
    }

    [[nodiscard]] std::span<Event* const> events() const { return listeners_.events(); }

  private:
    [[nodiscard]] bool isFor(const uint8_t* subject) const {
        return lengthBytes_ == subjectLength(subject) &&
               std::memcmp(subject_, subject, lengthBytes_) == 0;
    }

    HeldListeners listeners_;
    uint8_t subject_[kSubjectMaxBytes];
    size_t lengthBytes_ = 0;  // 0: no subject is held
};

// True where a listener took the message itself. The lock is released meanwhile where something has
// to be posted.
bool collectFor(Transport* transport,
                std::span<Event* const> events,
                pelmoMsg* message,
                Collector& collector) PELMO_REQUIRES(transport->header.lock) {
    const bool share = events.size() > 1;
    for (Event* event : events) {
        pelmoMsg* given = message;
        if (share && msgShareCopy(&given, message) != kStatusSuccess) continue;
        if (!collector.fits(event)) {
            Id_Leave(&transport->header);
            collector.flush();
            Id_Enter(&transport->header);
        }
        noteInboundHooks(event, transportHasHooks(transport, kHookInbound));
        collector.add(event, given);
    }
    return !share;
}

// Who has sent what is delivered: others, by way of the daemon, or the peer of a circuit.
enum class Origin { kNetwork, kPeer };

// Owns the message. False when memory ran out and no listener got it.
bool batchOne(Transport* transport,
              pelmoMsg* message,
              Origin origin,
              BatchMatch& match,
              Collector& collector) PELMO_REQUIRES(transport->header.lock) {
    HeldMessage held(message);
    const uint8_t* subject = nullptr;
    if (msgOpenEnvelope(message) != kStatusSuccess ||
        messageSubject(message, &subject) != kStatusSuccess) {
        return true;
    }
    const bool fromNetwork = origin == Origin::kNetwork;
    if (fromNetwork) traceAdvisory(message, subject, "Process received advisory from network");
    if (!match.find(transport->subjects, subject)) return false;
    std::span<Event* const> events = match.events();
    if (events.empty()) {
        if (fromNetwork && !transport->quietUnhandled) logUnhandled(message, subject);
        return true;
    }
    if (fromNetwork && transport->firstListenerOnly) events = events.first(1);
    if (collectFor(transport, events, message, collector)) (void)held.release();
    return true;
}

bool batchAll(Transport* transport, std::span<pelmoMsg* const> messages, Origin origin) {
    Collector collector;
    BatchMatch match;
    bool isWhole = true;
    Id_Enter(&transport->header);
    for (pelmoMsg* message : messages) {
        isWhole = batchOne(transport, message, origin, match, collector) && isWhole;
    }
    Id_Leave(&transport->header);
    collector.flush();
    return isWhole;
}

// The message's subject, and the listeners on it.
pelmoStatus matchLocked(Transport* transport,
                        pelmoMsg* message,
                        const uint8_t** subject,
                        HeldListeners& listeners) PELMO_REQUIRES(transport->header.lock) {
    if (!msgIsValid(message)) return kStatusInvalidMessage;
    const pelmoStatus status = messageSubject(message, subject);
    if (status != kStatusSuccess) return status;
    traceAdvisory(message, *subject, "Internally generated advisory");
    SubjectList* list = transport->subjects;
    if (!listeners.hold(subjectIsInbox(*subject) ? sublistFind(list, *subject)
                                                 : sublistMatch(list, *subject))) {
        return kStatusNoMemory;
    }
    const bool hooks = transportHasHooks(transport, kHookInbound);
    for (Event* event : listeners.events())
        noteInboundHooks(event, hooks);
    return kStatusSuccess;
}

}  // namespace

pelmoStatus Transport_Deliver(Held<Transport>& transport, pelmoMsg* message) {
    const uint8_t* subject = nullptr;
    HeldListeners listeners;
    pelmoStatus status = matchLocked(transport.get(), message, &subject, listeners);
    transport.leave();
    if (status != kStatusSuccess) return status;
    if (listeners.events().empty()) {
        logUnhandled(message, subject);
        return kStatusSuccess;
    }
    const TracedSubject traced(subject);
    for (Event* event : listeners.events()) {
        const pelmoStatus delivered = deliverTo(event, message, traced);
        if (delivered != kStatusSuccess) status = delivered;
    }
    return status;
}

void Transport_DeliverBatch(Transport* transport, std::span<pelmoMsg* const> messages) {
    (void)batchAll(transport, messages, Origin::kNetwork);
}

pelmoStatus Transport_DeliverOfPeer(Transport* transport, std::span<pelmoMsg* const> messages) {
    return batchAll(transport, messages, Origin::kPeer) ? kStatusSuccess : kStatusNoMemory;
}

pelmoStatus transportDistribute(uint32_t transport, pelmoMsg* message) {
    Held<Transport> held;
    if (held.findLocked(transport) != kStatusSuccess) {
        msgRelease(message);
        return kStatusInvalidTransport;
    }
    pelmoStatus status = msgPrepareShared(message);
    if (status != kStatusSuccess) return status;  // not a message: nothing to release
    switch (held->kind) {
        case TransportKind::kIntraProcess:
            status = Transport_Deliver(held, message);
            msgRelease(message);
            break;
        case TransportKind::kNetwork:
            held.leave();
            Transport_DeliverBatch(held.get(), {&message, 1});
            break;
        case TransportKind::kCircuit:
            held.leave();
            status = circuitOps.deliver(held.get(), message);
            break;
    }
    return status;
}

pelmoStatus pelmoTransport_Distribute(uint32_t transport, pelmoMsg* message) {
    if (!libraryIsOpen()) {
        if (msgIsValid(message)) msgRelease(message);
        return kStatusNotInitialized;
    }
    traceLine(kTraceTransport, "pelmoTransport_Distribute(%u, %p)", transport,
              tracePointer(message));
    if (!msgIsValid(message)) return kStatusInvalidMessage;
    return transportDistribute(transport, message);
}
