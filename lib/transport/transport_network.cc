// Network transports: their creation, and the settings that they share with the daemon connection.

#include <cstdio>
#include <cstdlib>
#include <utility>

#include "lib/base/clock.h"
#include "lib/base/text.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/message_typed.h"
#include "lib/msg/trace_ops.h"
#include "lib/runtime/evm_state.h"
#include "lib/runtime/library.h"
#include "lib/transport/transport_internal.h"

namespace {

// Messages that send a setting to the daemon: the letter, and the first version that knows it.
struct ControlKind {
    const char* letter;
    DaemonVersion since;
};
constexpr ControlKind kControlHidden = {"C", {8, 0, 2}};
constexpr ControlKind kControlEcho = {"E", {8, 0, 2}};
constexpr ControlKind kControlReliability = {"R", {8, 2, 0}};
constexpr ControlKind kControlDescription = {"D", {6, 0, 0}};
constexpr ControlKind kControlHttpAddress = {"H", {6, 0, 0}};

const char* traceBool(bool value) {
    return value ? "true" : "false";
}

// Null counts as empty.
char* copyText(const char* text) {
    return concat2(text != nullptr ? text : "", "");
}

bool firstSettingsLocked(NetworkSettings& settings, const char* service, const char* network) {
    settings = {.service = copyText(service),
                .network = copyText(network),
                .description = nullptr,
                .httpAddress = nullptr,
                .echo = true,
                .hide = false,
                .reliabilitySeconds = -1.0};
    return settings.service != nullptr && settings.network != nullptr;
}

pelmoStatus createLocked(Held<Transport>& held,
                         const char* service,
                         const char* network,
                         const char* daemon,
                         bool resume) PELMO_REQUIRES(held->header.lock) {
    if (!firstSettingsLocked(held->settings, service, network)) return kStatusNoMemory;
    DaemonLink* link = nullptr;
    const pelmoStatus status = daemonLinkOps.create(&link, held.get(), daemon, resume);
    held->link = link;
    if (status != kStatusSuccess) return status;
    std::snprintf(held->inboxPrefix, sizeof held->inboxPrefix, "_INBOX.%.*s.",
                  static_cast<int>(kMostSessionChars), daemonLinkOps.texts(link).session);
    if (Id_SetGlobal(&held->header, nullptr) != kStatusSuccess) return kStatusNoMemory;
    if (held->directEndpoint != nullptr) {
        endpointOps.setTransport(held->directEndpoint, held->header.id);
    }
    return kStatusSuccess;
}

// For a transport that never got an id, so no other thread can reach it.
void abandon(Held<Transport>& held) PELMO_RELEASE(held->header.lock) {
    held->destroying = true;
    ReliableEndpoint* endpoint = std::exchange(held->directEndpoint, nullptr);
    held.leave();
    // Nothing of the application's has been sent.
    const double atOnce = clockSteadySeconds();
    if (held->link != nullptr) (void)daemonLinkOps.stop(held.get(), atOnce);
    held.release();
    if (endpoint != nullptr) (void)endpointOps.close(endpoint, atOnce);
}

pelmoStatus createNetwork(
    uint32_t* out, const char* service, const char* network, const char* daemon, bool resume) {
    if (!libraryIsOpen()) return kStatusNotInitialized;
    if (out == nullptr) return kStatusInvalidArgument;
    if (daemonLinkOps.create == nullptr) return kStatusDaemonNotConnected;
    const uint32_t epoch = evmEpoch.load(std::memory_order_acquire);
    Held<Transport> held;
    Transport* transport = Transport_New(TransportKind::kNetwork);
    if (transport == nullptr) return kStatusNoMemory;
    held.adopt(transport);
    held.enter();
    const pelmoStatus status = createLocked(held, service, network, daemon, resume);
    if (status != kStatusSuccess) {
        abandon(held);
        return status;
    }
    const uint32_t id = transport->header.id;
    // The base reference stays with the id.
    held.leave();
    (void)held.take();
    // A close that came meanwhile may have listed the transports before this one existed, and the
    // threads that would serve it are gone.
    if (!libraryIsOpen() || !evmIsAt(epoch)) {
        (void)pelmoTransport_Destroy(id);
        return kStatusDaemonNotConnected;
    }
    *out = id;
    return kStatusSuccess;
}

// The transport, locked. kStatusInvalidTransport if there is none, kStatusNotPermitted for one
// of another kind.
pelmoStatus holdNetwork(Held<Transport>& held, uint32_t transport)
    PELMO_ASSERTS(held->header.lock) {
    if (held.findLocked(transport) != kStatusSuccess) return kStatusInvalidTransport;
    const bool linked = held->kind == TransportKind::kNetwork && held->link != nullptr;
    return linked ? kStatusSuccess : kStatusNotPermitted;
}

using AddData = pelmoStatus (*)(pelmoMsg* message, const void* value);

pelmoStatus addBool(pelmoMsg* message, const void* value) {
    return pelmoMsg_AddBool(message, "data", *static_cast<const bool*>(value) ? 1 : 0, 0);
}

pelmoStatus addSeconds(pelmoMsg* message, const void* value) {
    return pelmoMsg_AddF64(message, "data", *static_cast<const double*>(value), 0);
}

pelmoStatus addText(pelmoMsg* message, const void* value) {
    return pelmoMsg_AddString(message, "data", static_cast<const char*>(value), 0);
}

pelmoStatus fillControl(pelmoMsg* message,
                        const ControlKind& kind,
                        AddData addData,
                        const void* value) {
    pelmoStatus status = pelmoMsg_AddString(message, "mtype", "S", 0);
    if (status == kStatusSuccess) {
        status = pelmoMsg_AddString(message, "control", kind.letter, 0);
    }
    return status == kStatusSuccess ? addData(message, value) : status;
}

// Sends the setting to the daemon, with the lock released.
pelmoStatus sendControl(Held<Transport>& held,
                        const ControlKind& kind,
                        AddData addData,
                        const void* value) PELMO_UNCHECKED_LOCKING {
    pelmoMsg* message = nullptr;
    pelmoStatus status = pelmoMsg_Create(&message);
    if (status != kStatusSuccess) return status;
    status = fillControl(message, kind, addData, value);
    if (status == kStatusSuccess) {
        held.leave();
        status = daemonLinkOps.control(held.get(), message, kind.since);
    }
    msgRelease(message);
    return status;
}

pelmoStatus setText(uint32_t transport,
                    const char* text,
                    char* NetworkSettings::*member,
                    const ControlKind& kind) {
    Held<Transport> held;
    const pelmoStatus status = holdNetwork(held, transport);
    if (status != kStatusSuccess) return status;
    const char* given = text != nullptr ? text : "";
    char* copy = copyText(given);
    if (copy == nullptr) return kStatusNoMemory;
    char*& kept = held->settings.*member;
    std::free(kept);
    kept = copy;
    return sendControl(held, kind, addText, given);
}

pelmoStatus giveText(const char* text, const char** out) {
    if (out == nullptr) return kStatusInvalidArgument;
    *out = text != nullptr ? text : "";
    return kStatusSuccess;
}

pelmoStatus getText(uint32_t transport, char* NetworkSettings::*member, const char** out) {
    Held<Transport> held;
    const pelmoStatus status = holdNetwork(held, transport);
    return status == kStatusSuccess ? giveText(held->settings.*member, out) : status;
}

// What the transport was created with; an id of another kind counts as no transport.
pelmoStatus getOrigin(uint32_t transport, char* NetworkSettings::*member, const char** out) {
    const pelmoStatus status = getText(transport, member, out);
    return status == kStatusNotPermitted ? kStatusInvalidTransport : status;
}

// Calls that only the daemon connection implements.
template <typename Operation, typename... Arguments>
pelmoStatus passOn(uint32_t transport, Operation operation, Arguments... arguments) {
    Held<Transport> held;
    const pelmoStatus status = holdNetwork(held, transport);
    if (status != kStatusSuccess) return status;
    held.leave();
    return operation(held.get(), arguments...);
}

}  // namespace

pelmoStatus pelmoTransport_CreateNetwork(uint32_t* out,
                                         const char* service,
                                         const char* network,
                                         const char* daemon) {
    const pelmoStatus status = createNetwork(out, service, network, daemon, true);
    if (status != kStatusSuccess) return status;
    traceLine(kTraceTransport, "pelmoTransport_CreateNetwork(%u, \"%s\", \"%s\", \"%s\")", *out,
              traceText(service), traceText(network), traceText(daemon));
    return status;
}

pelmoStatus pelmoTransport_CreateNetworkNoResume(uint32_t* out,
                                                 const char* service,
                                                 const char* network,
                                                 const char* daemon) {
    const pelmoStatus status = createNetwork(out, service, network, daemon, false);
    if (status != kStatusSuccess) return status;
    traceLine(kTraceTransport, "pelmoTransport_CreateNetworkNoResume(%u, \"%s\", \"%s\", \"%s\")",
              *out, traceText(service), traceText(network), traceText(daemon));
    return status;
}

// The calls below trace on entry and differ only in the setting that they read or change.
#define PELMO_TRANSPORT_CALL(...)                       \
    if (!libraryIsOpen()) return kStatusNotInitialized; \
    traceLine(kTraceTransport, __VA_ARGS__)

pelmoStatus pelmoTransport_GetService(uint32_t transport, const char** out) {
    PELMO_TRANSPORT_CALL("pelmoTransport_GetService(%u, %p)", transport, tracePointer(out));
    return getOrigin(transport, &NetworkSettings::service, out);
}

pelmoStatus pelmoTransport_GetNetwork(uint32_t transport, const char** out) {
    PELMO_TRANSPORT_CALL("pelmoTransport_GetNetwork(%u, %p)", transport, tracePointer(out));
    return getOrigin(transport, &NetworkSettings::network, out);
}

pelmoStatus pelmoTransport_GetDaemon(uint32_t transport, const char** out) {
    PELMO_TRANSPORT_CALL("pelmoTransport_GetDaemon(%u, %p)", transport, tracePointer(out));
    Held<Transport> held;
    if (holdNetwork(held, transport) != kStatusSuccess) return kStatusInvalidTransport;
    return giveText(daemonLinkOps.texts(held->link).daemon, out);
}

pelmoStatus pelmoTransport_GetDirectTraffic(uint32_t transport, pelmoDirectTraffic* out) {
    PELMO_TRANSPORT_CALL("pelmoTransport_GetDirectTraffic(%u, %p)", transport, tracePointer(out));
    Held<Transport> held;
    const pelmoStatus status = holdNetwork(held, transport);
    if (status != kStatusSuccess) return status;
    if (out == nullptr) return kStatusInvalidArgument;
    *out = {};
    if (held->directEndpoint != nullptr) endpointOps.traffic(held->directEndpoint, out);
    return kStatusSuccess;
}

pelmoStatus pelmoTransport_GetUnsent(uint32_t transport, pelmoUnsent* out) {
    PELMO_TRANSPORT_CALL("pelmoTransport_GetUnsent(%u, %p)", transport, tracePointer(out));
    Held<Transport> held;
    const pelmoStatus status = holdNetwork(held, transport);
    if (status != kStatusSuccess) return status;
    if (out == nullptr) return kStatusInvalidArgument;
    const DaemonLinkUnsent unsent = daemonLinkOps.unsent(held.get());
    *out = {.waitingMessages = unsent.waiting.messages,
            .waitingBytes = unsent.waiting.bytes,
            .lostMessages = unsent.lost.messages,
            .lostBytes = unsent.lost.bytes};
    return kStatusSuccess;
}

pelmoStatus pelmoTransport_SetDescription(uint32_t transport, const char* text) {
    PELMO_TRANSPORT_CALL("pelmoTransport_SetDescription(%u, \"%s\")", transport, traceText(text));
    return setText(transport, text, &NetworkSettings::description, kControlDescription);
}

pelmoStatus pelmoTransport_GetDescription(uint32_t transport, const char** out) {
    PELMO_TRANSPORT_CALL("pelmoTransport_GetDescription(%u, %p)", transport, tracePointer(out));
    return getText(transport, &NetworkSettings::description, out);
}

pelmoStatus pelmoTransport_SetHttpAddress(uint32_t transport, const char* text) {
    PELMO_TRANSPORT_CALL("pelmoTransport_SetHttpAddress(%u, \"%s\")", transport, traceText(text));
    return setText(transport, text, &NetworkSettings::httpAddress, kControlHttpAddress);
}

pelmoStatus pelmoTransport_GetHttpAddress(uint32_t transport, const char** out) {
    PELMO_TRANSPORT_CALL("pelmoTransport_GetHttpAddress(%u, %p)", transport, tracePointer(out));
    return getText(transport, &NetworkSettings::httpAddress, out);
}

pelmoStatus pelmoTransport_SetHidden(uint32_t transport, bool hidden) {
    PELMO_TRANSPORT_CALL("pelmoTransport_SetHidden(%u, \"%s\")", transport, traceBool(hidden));
    Held<Transport> held;
    const pelmoStatus status = holdNetwork(held, transport);
    if (status != kStatusSuccess) return status;
    held->settings.hide = hidden;
    held->reservedAllowed = hidden;
    held->inboxWildcards = hidden;
    return sendControl(held, kControlHidden, addBool, &hidden);
}

pelmoStatus pelmoTransport_SetEcho(uint32_t transport, bool echo) {
    PELMO_TRANSPORT_CALL("pelmoTransport_SetEcho(%u, \"%s\")", transport, traceBool(echo));
    Held<Transport> held;
    const pelmoStatus status = holdNetwork(held, transport);
    if (status != kStatusSuccess) return status;
    held->settings.echo = echo;
    return sendControl(held, kControlEcho, addBool, &echo);
}

pelmoStatus pelmoTransport_RequestReliability(uint32_t transport, double seconds) {
    PELMO_TRANSPORT_CALL("pelmoTransport_RequestReliability(%u, %f)", transport, seconds);
    if (!(seconds > 0)) return kStatusInvalidArgument;
    Held<Transport> held;
    const pelmoStatus status = holdNetwork(held, transport);
    if (status != kStatusSuccess) return status;
    held->settings.reliabilitySeconds = seconds;
    return sendControl(held, kControlReliability, addSeconds, &seconds);
}

pelmoStatus pelmoTransport_SetBatchMode(uint32_t transport, uint32_t mode) {
    PELMO_TRANSPORT_CALL("pelmoTransport_SetBatchMode(%u, %u)", transport, mode);
    return passOn(transport, daemonLinkOps.setBatchMode, mode);
}

pelmoStatus pelmoTransport_SetBlockingOnExcessiveBacklog(uint32_t transport, bool blocking) {
    PELMO_TRANSPORT_CALL("pelmoTransport_SetBlockingOnExcessiveBacklog(%u, \"%s\")", transport,
                         traceBool(blocking));
    return passOn(transport, daemonLinkOps.setBlocking, blocking);
}

pelmoStatus pelmoTransport_SetSendingWaitLimit(uint32_t transport, uint32_t limit) {
    PELMO_TRANSPORT_CALL("pelmoTransport_SetSendingWaitLimit(%u, %u)", transport, limit);
    return passOn(transport, daemonLinkOps.setWaitLimit, limit);
}

pelmoStatus pelmoTransport_GetSendingWaitLimit(uint32_t transport, uint32_t* out) {
    PELMO_TRANSPORT_CALL("pelmoTransport_GetSendingWaitLimit(%u, %p)", transport,
                         tracePointer(out));
    Held<Transport> held;
    const pelmoStatus status = holdNetwork(held, transport);
    if (status != kStatusSuccess) return status;
    if (out == nullptr) return kStatusInvalidArgument;
    held.leave();
    return daemonLinkOps.getWaitLimit(held.get(), out);
}

pelmoStatus pelmoTransport_HoldSends(uint32_t transport) {
    PELMO_TRANSPORT_CALL("pelmoTransport_HoldSends(%u)", transport);
    return passOn(transport, daemonLinkOps.hold);
}

pelmoStatus pelmoTransport_ReleaseSends(uint32_t transport) {
    PELMO_TRANSPORT_CALL("pelmoTransport_ReleaseSends(%u)", transport);
    return passOn(transport, daemonLinkOps.flush);
}
#undef PELMO_TRANSPORT_CALL
