#include <algorithm>
#include <cstring>
#include <optional>
#include <utility>

#include "bus/asking.h"
#include "bus/circuit_input.h"
#include "bus/commands.h"
#include "bus/common.h"
#include "bus/connection.h"
#include "bus/intake.h"
#include "bus/pump.h"
#include "bus/sender.h"
#include "programs/steady_time.h"
#include "programs/stop.h"

namespace {

constexpr const char* kConnectField = "connect";
constexpr const char* kConnectedSubject = "_PM.INFO.SYSTEM.VC.CONNECTED";
constexpr const char* kEndedSubject = "_PM.INFO.SYSTEM.VC.DISCONNECTED";
constexpr const char* kFailedSubject = "_PM.ERROR.SYSTEM.VC.DISCONNECTED";
constexpr int64_t kAskTime = 10 * kSecond;

// The connecting end can listen only once it has its circuit, which may be a moment after the
// connection.
constexpr int64_t kPeerTime = 100 * kMillisecond;

// A circuit's handle. Destroying it notifies the peer.
struct Handle {
    uint32_t id = kNoId;

    Handle() = default;
    ~Handle() { end(); }
    void end() {
        if (id != kNoId) pelmoTransport_Destroy(std::exchange(id, kNoId));
    }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
};

// Members end in reverse: the input, the circuit, the pump, the connection.
struct Talk {
    const BusSettings& settings;
    bool accepts;
    Connection connection = {};
    Printer printer = {};
    Pump pump = {};
    Handle circuit = {};
    const char* connectSubject = nullptr;  // of the accepting end
    char wakeSubject[kMostInboxBytes] = "";
    std::optional<CircuitInput> input = {};
    bool isConnected = false;
    bool endedByPeer = false;
    bool done = false;
    ExitStatus status = kExitDone;
};

void finish(Talk& talk, ExitStatus status) {
    talk.done = true;
    if (talk.status == kExitDone) talk.status = status;
}

std::string nameOf(const Talk& talk) {
    return std::string("circuit ") + (talk.accepts ? "accept " : "connect ") +
           talk.settings.subjects[0];
}

ExitStatus failed(const Talk& talk, pelmoStatus status) {
    complain(nameOf(talk), status);
    return status == kStatusTimeout ? kExitUnanswered : kExitFailed;
}

// What comes in

void beginInput(Talk& talk) {
    announce("connected");
    talk.isConnected = true;
    talk.input.emplace(talk.wakeSubject);
    const int64_t graceTime = talk.accepts ? kPeerTime : 0;
    if (!talk.input->start(talk.settings, talk.circuit.id, graceTime)) finish(talk, kExitFailed);
}

void endInFailure(Talk& talk, pelmoMsg* msg) {
    const char* reason = nullptr;
    static_cast<void>(pelmoMsg_GetString(msg, "ADV_DESC", &reason, 0));
    complain(nameOf(talk) + ": " + (reason != nullptr ? reason : ""));
    finish(talk, kExitFailed);
}

bool isCountReached(const Talk& talk) {
    return talk.settings.count && talk.printer.count >= *talk.settings.count;
}

void takeMessage(Talk& talk, pelmoMsg* msg) {
    if (printerTake(talk.printer, msg) && isCountReached(talk)) finish(talk, kExitDone);
}

// The library's own advisories come to the same listener, in order with the peer's messages.
void take(Talk& talk, pelmoMsg* msg) {
    const char* subject = nullptr;
    if (talk.done || pelmoMsg_GetSendSubject(msg, &subject) != kStatusSuccess) return;
    if (std::strcmp(subject, kConnectedSubject) == 0) {
        if (!talk.isConnected) beginInput(talk);
    } else if (std::strcmp(subject, kEndedSubject) == 0) {
        talk.endedByPeer = true;
        finish(talk, kExitDone);
    } else if (std::strcmp(subject, kFailedSubject) == 0) {
        endInFailure(talk, msg);
    } else {
        takeMessage(talk, msg);
    }
}

void onMessage(uint32_t, pelmoMsg* msg, void* closure) {
    auto& talk = *static_cast<Talk*>(closure);
    pumpGuard(talk.pump, [&] { take(talk, msg); });
}

// The connecting end is done with its input, and with the messages that it counts; the accepting
// one waits for the circuit's end.
void onWake(uint32_t, pelmoMsg*, void* closure) {
    auto& talk = *static_cast<Talk*>(closure);
    ExitStatus status = kExitDone;
    if (!talk.input || !talk.input->ended(&status)) return;
    const bool goesOn = talk.accepts || (talk.settings.count && !isCountReached(talk));
    if (!goesOn || status != kExitDone) finish(talk, status);
}

// Handshake

void answer(Talk& talk, pelmoMsg* request) {
    const char* reply = nullptr;
    if (talk.isConnected || pelmoMsg_GetReplySubject(request, &reply) != kStatusSuccess) return;
    const OwnedMessage msg = messageMake();
    pelmoStatus status = pelmoMsg_AddString(msg.get(), kConnectField, talk.connectSubject, 0);
    if (status == kStatusSuccess) {
        status = pelmoTransport_SendReply(talk.connection.transport, msg.get(), request);
    }
    if (status != kStatusSuccess) complain(std::string("answer ") + reply, status);
}

void onRequest(uint32_t, pelmoMsg* request, void* closure) {
    auto& talk = *static_cast<Talk*>(closure);
    pumpGuard(talk.pump, [&] { answer(talk, request); });
}

// kStatusInterrupted after a signal.
pelmoStatus askForSubject(Talk& talk, int64_t until, OwnedMessage& reply, const char** out) {
    const OwnedMessage request = messageMake();
    pelmoStatus status = pelmoMsg_SetSendSubject(request.get(), talk.settings.subjects[0]);
    if (status != kStatusSuccess) return status;
    Sender sender{talk.connection.transport};
    status = askFor(talk.pump, sender, request.get(), until, reply);
    if (status != kStatusSuccess) return status;
    return pelmoMsg_GetString(reply.get(), kConnectField, out, 0);
}

pelmoStatus makeCircuit(Talk& talk, int64_t until) {
    if (talk.accepts) {
        return vcCreateAccept(&talk.circuit.id, &talk.connectSubject, talk.connection.transport);
    }
    OwnedMessage reply;
    const char* subject = nullptr;
    const pelmoStatus status = askForSubject(talk, until, reply, &subject);
    if (status != kStatusSuccess) return status;
    if (subject == nullptr) return kStatusNotFound;
    return vcCreateConnect(&talk.circuit.id, subject, talk.connection.transport);
}

bool listen(Talk& talk, uint32_t transport, const char* subject, pelmoEventCallback callback) {
    return pumpListen(talk.pump, transport, subject, callback, &talk);
}

// Its wake-up is declared before what uses it.
ExitStatus prepare(Talk& talk) {
    const ExitStatus made = connectionOpen(talk.connection, talk.settings);
    if (made != kExitDone) return made;
    printerOpen(talk.printer, talk.settings);
    if (!pumpOpen(talk.pump, &talk.printer.output)) return kExitFailed;
    const pelmoStatus status = pelmoTransport_CreateInbox(
        kIntraProcessTransportId, talk.wakeSubject, sizeof talk.wakeSubject);
    if (status != kStatusSuccess) return failed(talk, status);
    return listen(talk, kIntraProcessTransportId, talk.wakeSubject, onWake) ? kExitDone
                                                                            : kExitFailed;
}

ExitStatus connect(Talk& talk, int64_t until) {
    const pelmoStatus status = makeCircuit(talk, until);
    if (status == kStatusInterrupted) return finish(talk, kExitDone), kExitDone;
    if (status != kStatusSuccess) return failed(talk, status);
    if (!listen(talk, talk.circuit.id, ">", onMessage)) return kExitFailed;
    if (talk.accepts) {
        const char* const subject = talk.settings.subjects[0];
        if (!listen(talk, talk.connection.transport, subject, onRequest)) return kExitFailed;
        pumpAnnounce(talk.pump, talk.connection.transport, {&subject, 1});
        return kExitDone;
    }
    // The connection may have come before the listener.
    const pelmoStatus stands = vcWaitForConnection(talk.circuit.id, 0);
    if (stands == kStatusSuccess) beginInput(talk);
    return stands == kStatusSuccess || stands == kStatusTimeout ? kExitDone : failed(talk, stands);
}

ExitStatus endStatus(const Talk& talk, PumpEnd end) {
    switch (end) {
        case PumpEnd::kFailed:
            return kExitFailed;
        case PumpEnd::kTime:
            if (!talk.isConnected) return failed(talk, kStatusTimeout);
            return talk.settings.count ? kExitUnanswered : kExitDone;
        case PumpEnd::kStopped:
        case PumpEnd::kDone:
            break;
    }
    return talk.status;
}

// Has a break of the connection lost something, or does it leave no way for the goodbye? One to a
// peer that is reached directly needs no daemon.
bool isCutOff(const Talk& talk) {
    const uint32_t transport = talk.connection.transport;
    const bool owesGoodbye = talk.isConnected && !talk.endedByPeer && talk.status == kExitDone;
    if (!owesGoodbye || transport == kIntraProcessTransportId) return false;
    pelmoUnsent unsent = {};
    (void)pelmoTransport_GetUnsent(transport, &unsent);
    if (unsent.lostMessages != 0) return true;
    const char* const service = talk.settings.service;
    if (service != nullptr && std::strchr(service, ':') != nullptr) return false;
    const pelmoStatus status = pelmoTransport_HoldSends(transport);
    if (status == kStatusSuccess) (void)pelmoTransport_ReleaseSends(transport);
    return status == kStatusDaemonNotConnected;
}

// The goodbye is the last that the connection carries. False, and reported, if something that was
// sent hasn't left.
bool endPaths(Talk& talk, SendWatch& watch) {
    const bool wasCutOff = isCutOff(talk);
    talk.circuit.end();
    watch.stop();
    std::optional<double> most;
    if (stopRequested()) most = kLastSeconds;
    const bool isLost = connectionEnd(talk.connection, most) == kStatusDeliveryFailed;
    if (!isLost && !watch.isLost && !wasCutOff) return true;
    complain(nameOf(talk) + ": not all has left", kStatusDeliveryFailed);
    return false;
}

ExitStatus run(Talk& talk) {
    ExitStatus status = prepare(talk);
    if (status != kExitDone) return status;
    talk.done = talk.settings.count && *talk.settings.count == 0;
    const int64_t now = steadyNow();
    const int64_t until = talk.settings.seconds ? steadyAfter(now, *talk.settings.seconds) : kNever;
    // A connect without an answer ends by itself.
    const int64_t connected = talk.accepts ? until : std::min(until, now + kAskTime);
    SendWatch watch(talk.connection.transport);
    status = connect(talk, connected);
    if (status != kExitDone) return status;
    PumpEnd end = PumpEnd::kDone;
    if (!talk.accepts && !talk.isConnected) end = pumpRun(talk.pump, talk.isConnected, connected);
    if (end == PumpEnd::kDone) end = pumpRun(talk.pump, talk.done, until);
    status = endStatus(talk, end);
    if (talk.pump.failure != kStatusSuccess) complain(nameOf(talk), talk.pump.failure);
    // What the other end didn't wait for isn't sent.
    const bool leavesSome = talk.input && talk.input->stopLeavesSome();
    if (leavesSome && talk.endedByPeer && status == kExitDone) {
        complain(nameOf(talk) + ": the other end has ended before the input");
        status = kExitFailed;
    }
    talk.input.reset();
    const bool allLeft = endPaths(talk, watch);
    if (!allLeft && status == kExitDone) status = kExitFailed;
    return printerClose(talk.printer) ? status : kExitFailed;
}

}  // namespace

ExitStatus runCircuitAccept(const BusSettings& settings) {
    Talk talk{.settings = settings, .accepts = true};
    return run(talk);
}

ExitStatus runCircuitConnect(const BusSettings& settings) {
    Talk talk{.settings = settings, .accepts = false};
    return run(talk);
}
