#include "pmd/exchange.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "lib/base/log_pace.h"
#include "lib/base/text.h"
#include "lib/containers/subject.h"
#include "lib/msg/envelope_internal.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/message_typed.h"
#include "lib/transport/transport_internal.h"
#include "pmd/incoming.h"

namespace {

constexpr const char* kAdvisorySource = "SYSTEM";

Peer* peerOf(Member* member) {
    return reinterpret_cast<Peer*>(member);
}
static_assert(offsetof(Peer, member) == 0);

bool isSameSubject(const uint8_t* left, const uint8_t* right) {
    const size_t length = subjectLength(right);
    return subjectLength(left) == length && subjectIs(left, right, length);
}

// A batch under way: messages from `runBegin` on have the receivers of the exchange's run.
struct BatchWalk {
    Exchange* exchange;
    Peer* peer;
    MessageRun batch;
    size_t runBegin, runEnd;
};

bool hasReceivers(const Exchange* exchange, Receivers receivers) {
    return exchange->receiverCount == receivers.size() &&
           std::equal(receivers.begin(), receivers.end(), exchange->receivers);
}

// The run's own copy: those of a match end with the next one.
bool keepReceivers(Exchange* exchange, Receivers receivers) {
    const auto count = static_cast<uint32_t>(receivers.size());
    if (count > exchange->receiverCapacity) {
        void* grown = std::realloc(exchange->receivers, count * sizeof(Member*));
        if (grown == nullptr) return false;
        exchange->receivers = static_cast<Member**>(grown);
        exchange->receiverCapacity = count;
    }
    std::copy(receivers.begin(), receivers.end(), exchange->receivers);
    exchange->receiverCount = count;
    return true;
}

void deliverTo(Exchange* exchange, Member* sender, MessageRun run) {
    for (uint32_t i = 0; i < exchange->receiverCount; ++i) {
        Member* member = exchange->receivers[i];
        if (member == sender && !member->echo) continue;
        exchange->ops.deliver(exchange->closure, member, run);
        exchange->delivered += run.size();
    }
}

void finishRun(BatchWalk& walk) {
    Exchange* exchange = walk.exchange;
    const MessageRun run = walk.batch.subspan(walk.runBegin, walk.runEnd - walk.runBegin);
    walk.runBegin = walk.runEnd;
    exchange->runSubject = nullptr;
    if (run.empty()) return;
    exchange->routed += run.size();
    deliverTo(exchange, &walk.peer->member, run);
    if (exchange->ops.publish != nullptr) exchange->ops.publish(exchange->closure, run);
}

void skip(BatchWalk& walk, size_t at) {
    finishRun(walk);
    walk.runBegin = walk.runEnd = at + 1;
}

bool maySend(BatchWalk& walk, const uint8_t* subject) {
    Peer* peer = walk.peer;
    if (peer->member.hidden || !subjectIsReserved(subject)) return true;
    ++walk.exchange->ignored;
    if (!peer->loggedReserved) {
        logPacedAs("clients send on \"_PM\" and aren't hidden",
                   "client %u (%s) isn't hidden: what it sends on \"_PM\" is dropped",
                   peer->clientId, peer->start.user);
    }
    peer->loggedReserved = true;
    return false;
}

// Sends to one peer alone, and releases.
void answer(Exchange* exchange, Peer* peer, pelmoMsg* message) {
    msgFlush(message);
    exchange->ops.tell(exchange->closure, &peer->member, message);
    msgRelease(message);
}

// "_PM.KIND.SYSTEM.NAME" with its fields, closed.
pelmoStatus makeAdvisory(pelmoMsg** out,
                         const char* kind,
                         const char* name,
                         const char* description,
                         const char* subject) {
    char text[kSubjectTextBytes];
    boundedFormat(text, sizeof text, "_PM.%s.%s.%s", kind, kAdvisorySource, name);
    pelmoMsg* msg = nullptr;
    pelmoStatus status = msgCreateEnveloped(&msg, text, nullptr, 0);
    if (status != kStatusSuccess) return status;
    HeldMessage held(msg);
    const std::pair<const char*, const char*> fields[] = {{"ADV_CLASS", kind},
                                                          {"ADV_SOURCE", kAdvisorySource},
                                                          {"ADV_NAME", name},
                                                          {"ADV_DESC", description},
                                                          {"subject", subject}};
    for (const auto& [field, value] : fields) {
        if (status != kStatusSuccess || value == nullptr) continue;
        status = pelmoMsg_AddString(msg, field, value, 0);
    }
    if (status == kStatusSuccess) status = msgCloseEnvelope(msg);
    if (status == kStatusSuccess) *out = held.release();
    return status;
}

pelmoStatus makeAdvisoryAbout(pelmoMsg** out, const Peer* about, const Advisory& advisory) {
    const char* session = about->start.session;
    char full[kSubjectTextBytes];
    boundedFormat(full, sizeof full, "%s%s%s", advisory.name, session[0] != '\0' ? "." : "",
                  session);
    return makeAdvisory(out, advisory.kind, full, advisory.description, nullptr);
}

// The peer alone learns that something on this subject isn't done. Without memory only the log says
// so.
void adviseRefused(Exchange* exchange,
                   Peer* peer,
                   const char* name,
                   const char* description,
                   const uint8_t* subject) {
    char text[kSubjectTextBytes];
    if (subjectToText(text, sizeof text, subject) == nullptr) text[0] = '\0';
    pelmoMsg* msg = nullptr;
    if (makeAdvisory(&msg, "WARN", name, description, text) != kStatusSuccess) return;
    answer(exchange, peer, msg);
}

// The work of a match is the others' time: a subject with wildcards of its own may ask for much.
void refuseSend(BatchWalk& walk, const uint8_t* subject) {
    Peer* peer = walk.peer;
    if (!peer->loggedSend) {
        logPacedAs("clients send on wildcards that match too much",
                   "client %u (%s) sends on wildcards that match too much: it is dropped",
                   peer->clientId, peer->start.user);
    }
    peer->loggedSend = true;
    adviseRefused(walk.exchange, peer, "SEND.REFUSED", "the subject matches too much", subject);
}

// A message with other receivers begins a run of its own.
void routeData(BatchWalk& walk, size_t at, const uint8_t* subject) {
    Exchange* exchange = walk.exchange;
    if (exchange->runSubject != nullptr && isSameSubject(exchange->runSubject, subject)) {
        walk.runEnd = at + 1;
        return;
    }
    if (!maySend(walk, subject)) return skip(walk, at);

    Receivers receivers;
    pelmoStatus status = routerMatch(walk.peer->member.realm, subject, &receivers);
    if (status == kStatusSuccess && !hasReceivers(exchange, receivers)) {
        finishRun(walk);
        if (!keepReceivers(exchange, receivers)) status = kStatusNoMemory;
    }
    if (status != kStatusSuccess) {
        ++exchange->lost;
        skip(walk, at);
        if (status == kStatusQueueLimit) refuseSend(walk, subject);
        return;
    }
    exchange->runSubject = subject;
    walk.runEnd = at + 1;
}

bool isSameProcess(const Peer* left, const Peer* right, const StartMessage& start) {
    return left->address == right->address && left->start.pid == start.pid &&
           std::strcmp(left->start.user, start.user) == 0;
}

// A name that this daemon has given out, or will, has the id of its client. One that comes back
// after a restart of the daemon may find its former id taken, and gets another.
bool hasOwnId(const Exchange* exchange, const Peer* peer, const char* session) {
    const uint16_t id = sessionClientId(session);
    if (id == 0 || std::strcmp(peer->start.session, session) == 0) return true;
    if (peer->clientId != 0) return id == peer->clientId;
    return !exchange->ids.taken[id] || !sessionIsOf(exchange->ground, session);
}

// A client that reconnects may be back before the loss of its old connection is noticed.
pelmoStatus claimSession(Exchange* exchange, Peer* peer, const StartMessage& start) {
    if (start.session[0] == '\0') return kStatusSuccess;
    Member* holder = nullptr;
    const pelmoStatus status = routerClaim(&peer->member, start.session, &holder);
    if (status != kStatusAlreadyExists || holder == nullptr) return status;
    if (!isSameProcess(peerOf(holder), peer, start)) return status;
    exchangeLeave(exchange, peerOf(holder));
    exchange->ops.cutOff(exchange->closure, holder, "its session goes on on another connection");
    return routerClaim(&peer->member, start.session, &holder);
}

pelmoStatus joinRealm(Exchange* exchange, Peer* peer, const StartMessage& start) {
    if (peer->member.realm == nullptr) {
        return routerJoin(&exchange->router, &peer->member, start.service, start.network);
    }
    const bool isSame = std::strcmp(peer->start.service, start.service) == 0 &&
                        std::strcmp(peer->start.network, start.network) == 0;
    return isSame ? kStatusSuccess : kStatusArgumentsConflict;
}

// The second one of a connection only brings the session: its client has read the answer to the
// first, and takes what comes next for a message of the bus.
bool wantsAnswer(const Peer* peer) {
    return peer->starts != 1;
}

pelmoStatus startSession(Exchange* exchange, Peer* peer, pelmoMsg* msg) {
    StartMessage start;
    pelmoStatus status = startMessageRead(msg, &start);
    if (status == kStatusSuccess) status = joinRealm(exchange, peer, start);
    if (status == kStatusSuccess) status = claimSession(exchange, peer, start);
    if (status == kStatusSuccess && !hasOwnId(exchange, peer, start.session)) {
        status = kStatusAlreadyExists;
    }
    if (status != kStatusSuccess) return status;
    if (peer->clientId == 0) {
        peer->clientId = clientIdTake(&exchange->ids, sessionClientId(start.session));
    }
    if (peer->clientId == 0) return kStatusQueueLimit;

    pelmoMsg* reply = nullptr;
    if (wantsAnswer(peer)) {
        status = sessionAnswerMake(&reply, exchange->ground, peer->clientId, peer->serial);
        if (status != kStatusSuccess) return status;
    }
    ++peer->starts;
    peer->start = start;
    peer->member.echo = start.echo;
    peer->member.hidden = start.hide;
    if (reply != nullptr) answer(exchange, peer, reply);
    return kStatusSuccess;
}

const char* takeStart(Exchange* exchange, Peer* peer, pelmoMsg* msg) {
    const pelmoStatus status = startSession(exchange, peer, msg);
    if (status == kStatusSuccess) return nullptr;
    pelmoMsg* refusal = nullptr;
    if (sessionRefusalMake(&refusal, status) == kStatusSuccess) answer(exchange, peer, refusal);
    switch (status) {
        case kStatusAlreadyExists:
            return "its session is another client's";
        case kStatusArgumentsConflict:
            return "its start messages contradict each other";
        case kStatusNoMemory:
            return "there is no memory for its session";
        default:
            return "its start message is wrong";
    }
}

// The interest isn't kept; the rest of what the client listens to is none the worse for it.
void refuseInbox(Exchange* exchange, Peer* peer) {
    ++exchange->ignored;
    if (!peer->loggedInbox) {
        logPacedAs("clients listen to inboxes that aren't their own",
                   "client %u (%s) listens to an inbox that isn't its own: it gets nothing there",
                   peer->clientId, peer->start.user);
    }
    peer->loggedInbox = true;
}

// One interest too many. The client stays, with those that it has.
void refuseInterest(Exchange* exchange, Peer* peer, const uint8_t* subject) {
    ++exchange->ignored;
    if (!peer->loggedInterest) {
        logPacedAs("clients listen to more than the daemon keeps",
                   "client %u (%s) listens to more than the daemon keeps: it gets nothing there",
                   peer->clientId, peer->start.user);
    }
    peer->loggedInterest = true;
    adviseRefused(exchange, peer, "INTEREST.REFUSED", "the daemon keeps no more interest", subject);
}

const char* takeListen(Exchange* exchange, Peer* peer, const uint8_t* subject) {
    switch (routerListen(&peer->member, subject)) {
        case kStatusSuccess:
            return nullptr;
        case kStatusNotPermitted:
            refuseInbox(exchange, peer);
            return nullptr;
        case kStatusQueueLimit:
            refuseInterest(exchange, peer, subject);
            return nullptr;
        default:
            return "there is no memory for its interest";
    }
}

void controlHidden(Peer* peer, pelmoMsg* msg) {
    uint32_t flag = 0;
    if (pelmoMsg_GetBool(msg, "data", &flag, 0) == kStatusSuccess) peer->member.hidden = flag != 0;
}

void controlEcho(Peer* peer, pelmoMsg* msg) {
    uint32_t flag = 0;
    if (pelmoMsg_GetBool(msg, "data", &flag, 0) == kStatusSuccess) peer->member.echo = flag != 0;
}

void controlReliability(Peer* peer, pelmoMsg* msg) {
    double seconds = 0;
    if (pelmoMsg_GetF64(msg, "data", &seconds, 0) != kStatusSuccess) return;
    peer->start.reliabilitySeconds = seconds;
}

void controlDescription(Peer* peer, pelmoMsg* msg) {
    const char* const text = msgText(msg, "data");
    if (text == nullptr) return;
    boundedCopy(peer->start.description, text, sizeof peer->start.description);
}

// Nothing here asks for the address of a client's pages.
void controlHttpAddress(Peer*, pelmoMsg*) {}

struct Control {
    char letter;
    void (*apply)(Peer* peer, pelmoMsg* msg);
};

constexpr Control kControls[] = {
    {'C', controlHidden},      {'E', controlEcho},        {'R', controlReliability},
    {'D', controlDescription}, {'H', controlHttpAddress},
};

// Letters that newer clients may send are ignored.
void takeControl(Exchange* exchange, Peer* peer, pelmoMsg* msg) {
    if (const char* const letter = msgText(msg, "control"); letter != nullptr) {
        for (const Control& control : kControls) {
            if (letter[0] == control.letter && letter[1] == '\0') return control.apply(peer, msg);
        }
    }
    ++exchange->ignored;
}

const char* takeOther(BatchWalk& walk, size_t at, const Incoming& incoming) {
    constexpr const char* kNoSubject = "its interest has no subject";
    skip(walk, at);
    Exchange* exchange = walk.exchange;
    Peer* peer = walk.peer;
    pelmoMsg* msg = walk.batch[at];
    switch (incoming.kind) {
        case IncomingKind::kCorrupt:
            return "it sent a message that is corrupt";
        case IncomingKind::kStart:
            return takeStart(exchange, peer, msg);
        case IncomingKind::kListen:
            if (incoming.subject == nullptr) return kNoSubject;
            return takeListen(exchange, peer, incoming.subject);
        case IncomingKind::kUnlisten:
            if (incoming.subject == nullptr) return kNoSubject;
            routerUnlisten(&peer->member, incoming.subject);
            return nullptr;
        case IncomingKind::kControl:
            takeControl(exchange, peer, msg);
            return nullptr;
        default:
            ++exchange->ignored;
            return nullptr;
    }
}

}  // namespace

bool exchangeInit(Exchange* exchange,
                  const SessionGround& ground,
                  const ExchangeOps& ops,
                  void* closure) {
    *exchange = {};
    exchange->ground = ground;
    exchange->ops = ops;
    exchange->closure = closure;
    return routerInit(&exchange->router);
}

void exchangeFree(Exchange* exchange) {
    routerFree(&exchange->router);
    std::free(exchange->receivers);
    exchange->receivers = nullptr;
}

void exchangeEnter(Exchange* exchange, Peer* peer, void* owner, uint32_t address) {
    *peer = {};
    peer->member.owner = owner;
    peer->address = address;
    peer->serial = ++exchange->nextSerial;
}

void exchangeLeave(Exchange* exchange, Peer* peer) {
    routerLeave(&exchange->router, &peer->member);
    if (peer->clientId != 0) clientIdGive(&exchange->ids, peer->clientId);
    peer->clientId = 0;
}

bool exchangePark(Exchange* exchange, Peer* from, Peer* to) {
    exchangeEnter(exchange, to, nullptr, from->address);
    const StartMessage& start = from->start;
    if (routerJoin(&exchange->router, &to->member, start.service, start.network) !=
        kStatusSuccess) {
        return false;
    }
    to->start = start;
    const uint16_t id = from->clientId;
    exchangeLeave(exchange, from);
    to->clientId = clientIdTake(&exchange->ids, id);
    // Without memory for it the session counts as new when it comes back.
    Member* holder = nullptr;
    (void)routerClaim(&to->member, start.session, &holder);
    return true;
}

const char* exchangeTake(Exchange* exchange, Peer* peer, MessageRun batch) {
    BatchWalk walk = {
        .exchange = exchange, .peer = peer, .batch = batch, .runBegin = 0, .runEnd = 0};
    exchange->runSubject = nullptr;
    exchange->receiverCount = 0;
    routerBeginBatch(&exchange->router);
    const char* fault = nullptr;
    for (size_t at = 0; at < batch.size() && fault == nullptr; ++at) {
        const pelmoMsg* msg = batch[at];
        const Incoming incoming = incomingRead({msgImage(msg), msg->length});
        if (!peerHasStarted(peer) && incoming.kind != IncomingKind::kStart) {
            fault = "it sent a message before its start message";
        } else if (incoming.kind == IncomingKind::kData) {
            routeData(walk, at, incoming.subject);
        } else {
            fault = takeOther(walk, at, incoming);
        }
    }
    finishRun(walk);
    return fault;
}

void exchangeAdvise(Exchange* exchange, const Peer* about, const Advisory& advisory) {
    pelmoMsg* message = nullptr;
    if (makeAdvisoryAbout(&message, about, advisory) != kStatusSuccess) {
        ++exchange->lost;
        return;
    }
    Receivers receivers;
    Realm* const realm = about->member.realm;
    const uint8_t* subject = incomingRead({msgImage(message), message->length}).subject;
    if (subject != nullptr && routerMatch(realm, subject, &receivers) == kStatusSuccess) {
        for (Member* member : receivers) {
            exchange->ops.tell(exchange->closure, member, message);
        }
    }
    msgRelease(message);
}
