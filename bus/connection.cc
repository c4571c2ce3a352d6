#include "bus/connection.h"

#include <utility>

#include "bus/common.h"
#include "programs/message_json.h"
#include "programs/stop.h"

namespace {

// Before the connection, so that a bad word is reported without waiting for a daemon.
ExitStatus checkFields(const BusSettings& settings) {
    const OwnedMessage msg = messageMake();
    if (msg == nullptr) return complain("message", kStatusNoMemory), kExitFailed;
    const TextField* fault = nullptr;
    const pelmoStatus status = textFieldsAdd(msg.get(), settings.fields, &fault);
    if (status == kStatusSuccess) return kExitDone;
    complain(fault->word, status);
    return kExitUsage;
}

// A listener that is to end has done what was asked for; who was to send hasn't.
constexpr StopAtOnce kNothingAsked = {kExitDone, ""};
constexpr StopAtOnce kNothingSent = {kExitFailed,
                                     "pelmobus: connect: Operation interrupted (51)\nsent 0\n"};

pelmoStatus makeTransport(const BusSettings& settings, bool isToSend, uint32_t* out) {
    if (settings.local) return *out = kIntraProcessTransportId, kStatusSuccess;
    const auto create =
        settings.noResume ? pelmoTransport_CreateNetworkNoResume : pelmoTransport_CreateNetwork;
    // A connect may take a minute, and nothing has been sent that would have to leave.
    stopEndsAtOnce(isToSend ? &kNothingSent : &kNothingAsked);
    const pelmoStatus status = create(out, settings.service, settings.network, settings.daemon);
    stopEndsAtOnce(nullptr);
    return status;
}

// Each is made only where it was asked for.
struct Setting {
    const char* option;
    pelmoStatus (*make)(uint32_t transport, const BusSettings& settings);
};

using S = const BusSettings&;

constexpr Setting kSettings[] = {
    {"--description",
     [](uint32_t id, S s) {
         return s.description ? pelmoTransport_SetDescription(id, s.description) : kStatusSuccess;
     }},
    {"--http",
     [](uint32_t id, S s) {
         return s.http ? pelmoTransport_SetHttpAddress(id, s.http) : kStatusSuccess;
     }},
    {"--hidden",
     [](uint32_t id, S s) {
         return s.hidden ? pelmoTransport_SetHidden(id, true) : kStatusSuccess;
     }},
    {"--no-echo",
     [](uint32_t id, S s) {
         return s.noEcho ? pelmoTransport_SetEcho(id, false) : kStatusSuccess;
     }},
    {"--reliability",
     [](uint32_t id, S s) {
         return s.reliabilitySeconds ? pelmoTransport_RequestReliability(id, *s.reliabilitySeconds)
                                     : kStatusSuccess;
     }},
    {"--batch", [](uint32_t id,
                   S s) { return s.batch ? pelmoTransport_SetBatchMode(id, 1) : kStatusSuccess; }},
};

ExitStatus makeSettings(uint32_t transport, const BusSettings& settings) {
    for (const Setting& setting : kSettings) {
        const pelmoStatus status = setting.make(transport, settings);
        if (status == kStatusSuccess) continue;
        complain(setting.option, status);
        return kExitFailed;
    }
    return kExitDone;
}

}  // namespace

ExitStatus connectionOpen(Connection& connection, const BusSettings& settings, bool isToSend) {
    pelmoStatus status = pelmo_Open();
    if (status != kStatusSuccess) return complain("open", status), kExitFailed;
    connection.opened = true;
    jsonAcceptOwnTypes();
    const ExitStatus checked = checkFields(settings);
    if (checked != kExitDone) return checked;

    status = makeTransport(settings, isToSend, &connection.transport);
    if (status != kStatusSuccess) {
        complain(settings.daemon != nullptr ? std::string("connect ") + settings.daemon : "connect",
                 status);
        return kExitFailed;
    }
    if (!settings.local && linkNewsOpen(connection.news, connection.transport) != kStatusSuccess) {
        complain("the connection's breaks are reported by the library's own lines");
    }
    return makeSettings(connection.transport, settings);
}

pelmoStatus connectionEnd(Connection& connection, std::optional<double> mostSeconds) {
    const uint32_t transport = std::exchange(connection.transport, kNoId);
    if (transport == kNoId || transport == kIntraProcessTransportId) return kStatusSuccess;
    return mostSeconds ? pelmoTransport_DestroyWithin(transport, *mostSeconds)
                       : pelmoTransport_Destroy(transport);
}

Connection::~Connection() {
    (void)connectionEnd(*this, std::nullopt);
    linkNewsClose(news);
    if (opened) pelmo_Close();
}
