// A fake daemon, endpoint and circuits that record their calls and return what a test sets. Each is
// installed while it exists; only one of each kind at a time.

#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "lib/containers/subject.h"
#include "lib/msg/envelope_internal.h"
#include "lib/msg/message_typed.h"
#include "lib/msg/text.h"
#include "lib/transport/transport_internal.h"
#include "tests/support/runtime_objects.h"
#include "tests/support/test.h"

inline std::string shownText(pelmoMsg* message) {
    const char* text = nullptr;
    return pelmoMsg_ConvertToString(message, &text) == kStatusSuccess ? text : "no text";
}

class FakeDaemon : public NoCopy {
  public:
    pelmoStatus createAnswer = kStatusSuccess;
    pelmoStatus answer = kStatusSuccess;   // of all other calls
    uint32_t takenOnFailure = 0;           // of a vector
    SendLosses losses = {};                // of the next stops
    ReliableEndpoint* endpoint = nullptr;  // of the next transport
    std::function<void()> meanwhile;       // called once, before an interest is announced

    FakeDaemon() {
        current = this;
        daemonLinkOps.create = create;
        daemonLinkOps.texts = [](const DaemonLink*) {
            return DaemonLinkTexts{.session = "0A000001.P1F40.GOB", .daemon = ""};
        };
        daemonLinkOps.destroy = destroy;
        daemonLinkOps.stop = [](Transport* t, double) {
            (void)note(t, "stop");
            return current->losses;
        };
        daemonLinkOps.send = send;
        daemonLinkOps.sendVector = sendVector;
        daemonLinkOps.control = [](Transport* t, pelmoMsg* message, DaemonVersion) {
            return send(t, message);
        };
        daemonLinkOps.interest = interest;
    }
    ~FakeDaemon() { daemonLinkOps = former; }

    // Since the last call.
    std::vector<std::string> taken() { return std::exchange(calls, {}); }
    int links() { return linkCount; }

  private:
    static inline FakeDaemon* current = nullptr;
    DaemonLinkOps former = daemonLinkOps;
    std::vector<std::string> calls;
    int linkCount = 0;

    // Checks that the caller doesn't hold the transport's lock.
    static pelmoStatus note(Transport* transport, const std::string& words) {
        EXPECT_TRUE(isFree(transport->header.lock)) << words;
        current->calls.push_back(words);
        return current->answer;
    }
    // The link itself is never dereferenced. A failed create leaves one, as a connection that broke
    // at once does.
    static pelmoStatus create(DaemonLink** out, Transport* transport, const char*, bool) {
        *out = reinterpret_cast<DaemonLink*>(current);
        transport->directEndpoint = current->endpoint;
        ++current->linkCount;
        return current->createAnswer;
    }
    static void destroy(DaemonLink*) { --current->linkCount; }
    static pelmoStatus send(Transport* transport, pelmoMsg* message) {
        return note(transport, "send " + shownText(message));
    }
    static pelmoStatus sendVector(Transport* transport,
                                  std::span<pelmoMsg* const> messages,
                                  uint32_t* taken) {
        *taken = current->answer == kStatusSuccess ? static_cast<uint32_t>(messages.size())
                                                   : current->takenOnFailure;
        std::string words = "send together";
        for (pelmoMsg* message : messages) {
            words += " " + shownText(message);
        }
        return note(transport, words);
    }
    static pelmoStatus interest(Transport* transport, const uint8_t* subject, const char* kind) {
        char text[kSubjectTextBytes];
        if (current->meanwhile) std::exchange(current->meanwhile, nullptr)();
        return note(transport, std::string(kind) + " " + subjectToText(text, sizeof text, subject));
    }
};

// The fake endpoint and the fake circuits write into one list.
class FakePeers : public NoCopy {
  public:
    std::vector<std::string> calls;
    pelmoStatus answer = kStatusSuccess;
    Transport* transport = nullptr;   // whose lock is checked
    std::function<void()> meanwhile;  // called in the endpoint's sends
    int references = 0;               // to the endpoint, of sends
    SendLosses losses = {};           // of the next closes
    std::function<void()> atClose;    // called in them

    FakePeers() {
        current = this;
        endpointOps = {
            .send = send,
            .setTransport =
                [](ReliableEndpoint*, uint32_t id) {
                    current->calls.push_back("transport " + std::to_string(id));
                },
            .traffic = [](ReliableEndpoint*, pelmoDirectTraffic* out) { out->port = 7501; },
            .retain = [](ReliableEndpoint*) { ++current->references; },
            .release = [](ReliableEndpoint*) { --current->references; },
            .close =
                [](ReliableEndpoint*, double) {
                    current->calls.emplace_back("close");
                    if (current->atClose) current->atClose();
                    return current->losses;
                }};
        circuitOps = {.send = [](Transport* t, pelmoMsg* m) { return noteHeld(t, "send", m); },
                      .sendVector = sendVector,
                      .deliver = deliver,
                      .disconnect = [](Transport* t,
                                       const char*) { (void)noteHeld(t, "disconnect", nullptr); },
                      .destroy = [](VirtualCircuit*) { current->calls.emplace_back("destroy"); }};
    }
    ~FakePeers() {
        endpointOps = {};
        circuitOps = {};
    }

    // Never dereferenced.
    [[nodiscard]] ReliableEndpoint* endpoint() {
        return reinterpret_cast<ReliableEndpoint*>(&calls);
    }

    // Makes a circuit over the transport; its id holds the base reference.
    [[nodiscard]] uint32_t makeCircuit(uint32_t underlying) {
        Transport* made = Transport_New(TransportKind::kCircuit);
        std::strcpy(made->inboxPrefix, "_INBOX.1.V");
        made->underlying = underlying;
        made->circuit = reinterpret_cast<VirtualCircuit*>(&calls);
        uint32_t id = kNoId;
        EXPECT_EQ(Id_SetGlobal(&made->header, &id), kStatusSuccess);
        return id;
    }

    std::vector<std::string> taken() { return std::exchange(calls, {}); }

  private:
    static inline FakePeers* current = nullptr;

    static pelmoStatus noteHeld(Transport* circuit, const char* words, pelmoMsg* message) {
        EXPECT_FALSE(isFree(circuit->header.lock)) << words;
        const std::string shown = message != nullptr ? " " + shownText(message) : "";
        current->calls.push_back(words + shown);
        return current->answer;
    }
    static pelmoStatus send(ReliableEndpoint*,
                            uint32_t host,
                            uint16_t port,
                            std::span<pelmoMsg* const> messages) {
        char words[40];
        std::snprintf(words, sizeof words, "to %x:%x", host, unsigned{port});
        EXPECT_TRUE(current->transport == nullptr || isFree(current->transport->header.lock));
        current->calls.push_back(words + (" " + shownText(messages[0])));
        if (current->meanwhile) current->meanwhile();
        return current->answer;
    }
    static pelmoStatus sendVector(Transport* circuit,
                                  std::span<pelmoMsg* const> messages,
                                  uint32_t* taken) {
        *taken = 0;
        for (pelmoMsg* message : messages) {
            const pelmoStatus status = noteHeld(circuit, "together", message);
            if (status != kStatusSuccess) return status;
            ++*taken;
        }
        return kStatusSuccess;
    }
    static pelmoStatus deliver(Transport* circuit, pelmoMsg* message) {
        EXPECT_TRUE(isFree(circuit->header.lock));
        current->calls.push_back("deliver " + shownText(message));
        msgRelease(message);
        return current->answer;
    }
};
