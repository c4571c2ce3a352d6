// An exchange with peers by name, and a journal of each run that it delivers and each peer that it
// cuts off.

#pragma once

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "lib/containers/hash.h"
#include "pmd/exchange.h"
#include "tests/support/envelope_bytes.h"
#include "tests/support/message_values.h"

// A message in the closed form in which it comes from a connection.
inline Message dataOn(const std::string& subject) {
    Message msg = appMessage();
    EXPECT_EQ(pelmoMsg_SetSendSubject(msg.get(), subject.c_str()), kStatusSuccess);
    EXPECT_EQ(msgCloseEnvelope(msg.get()), kStatusSuccess);
    return messageFrom(wireOf(msg.get()));
}

inline Message ofKind(const char* kind) {
    Message msg = newMessage();
    EXPECT_EQ(pelmoMsg_AddString(msg.get(), "mtype", kind, 0), kStatusSuccess);
    return msg;
}

inline Message interest(const char* kind, const std::string& subject) {
    Message msg = ofKind(kind);
    EXPECT_EQ(pelmoMsg_AddSubjectText(msg.get(), "sub", subject.c_str(), 0), kStatusSuccess);
    return messageFrom(wireOf(msg.get()));
}

struct StartFields {
    const char* session = "";
    const char* service = "";
    const char* network = "";
};

inline Message startMessage(const StartFields& fields = {}) {
    Message msg = ofKind("I");
    const auto check = [](pelmoStatus status) { EXPECT_EQ(status, kStatusSuccess); };
    const auto text = [&](const char* name, const char* value) {
        check(pelmoMsg_AddString(msg.get(), name, value, 0));
    };
    text("userid", "joe");
    if (*fields.session != '\0') text("session", fields.session);
    text("service", fields.service);
    text("network", fields.network);
    for (const char* name : {"vmaj", "vmin", "vupd", "pid"})
        check(pelmoMsg_AddI32(msg.get(), name, 7, 0));
    check(pelmoMsg_AddBool(msg.get(), "rc", 0, 0));
    return messageFrom(wireOf(msg.get()));
}

struct TestBus {
    Exchange exchange;
    std::map<std::string, std::unique_ptr<Peer>> peers;
    std::string journal;  // such as "a < 3 on X.Y; a < R; a cut; wire 3"
    bool quiet = false;   // no journal, which takes memory

    explicit TestBus(bool wire = false) {
        const auto onTell = [](void* closure, Member* to, pelmoMsg* message) {
            onDeliver(closure, to, {&message, 1});
        };
        const auto onPublish = [](void* closure, MessageRun run) {
            static_cast<TestBus*>(closure)->note("wire " + std::to_string(run.size()));
        };
        const auto onCutOff = [](void* closure, Member* member, const char*) {
            auto* bus = static_cast<TestBus*>(closure);
            bus->note(bus->nameOf(member) + " cut");
        };
        const ExchangeOps ops = {onDeliver, onTell, wire ? +onPublish : nullptr, onCutOff};
        const SessionGround ground = {0x18c0ffee000, 0x1234, 0x0100007f, 0x4c1d};
        EXPECT_TRUE(exchangeInit(&exchange, ground, ops, this));
    }

    ~TestBus() {
        for (auto& [name, peer] : peers)
            exchangeLeave(&exchange, peer.get());
        while (routerSweep(&exchange.router)) {
        }
        EXPECT_EQ(exchange.router.realms->count, 0u);
        EXPECT_EQ(exchange.router.bytes, 0u);
        EXPECT_EQ(exchange.router.shapes, 0u);
        exchangeFree(&exchange);
    }

    Peer* enter(const std::string& name, uint32_t address = 1) {
        auto& peer = peers[name] = std::make_unique<Peer>();
        exchangeEnter(&exchange, peer.get(), this, address);
        return peer.get();
    }

    void leave(const std::string& name) { exchangeLeave(&exchange, peers[name].get()); }

    // Null, or the fault.
    template <typename... Messages>
    const char* take(const std::string& name, const Messages&... messages) {
        pelmoMsg* const batch[] = {messages.get()...};
        return exchangeTake(&exchange, peers[name].get(), batch);
    }

    // What the messages bring about, which break no rule.
    template <typename... Messages>
    std::string sends(const std::string& name, const Messages&... messages) {
        journal.clear();
        EXPECT_EQ(take(name, messages...), nullptr);
        return std::exchange(journal, "");
    }

    // Enters, starts and listens.
    void join(const std::string& name,
              const std::vector<std::string>& subjects,
              const StartFields& fields = {}) {
        enter(name);
        (void)sends(name, startMessage(fields));
        for (const std::string& subject : subjects)
            (void)sends(name, interest("L", subject));
    }

    std::string nameOf(const Member* member) const {
        for (const auto& [name, peer] : peers)
            if (&peer->member == member) return name;
        return "?";
    }

    void note(const std::string& entry) { journal += (journal.empty() ? "" : "; ") + entry; }

    static void onDeliver(void* closure, Member* to, MessageRun run) {
        auto* bus = static_cast<TestBus*>(closure);
        if (bus->quiet) return;
        const std::string name = bus->nameOf(to);
        Message first = messageFrom(wireOf(run.front()));
        const char* kind = nullptr;
        if (pelmoMsg_GetString(first.get(), "mtype", &kind, 0) == kStatusSuccess && *kind == 'R')
            return bus->note(name + " < R");
        EXPECT_EQ(msgOpenEnvelope(first.get()), kStatusSuccess);
        bus->note(name + " < " + std::to_string(run.size()) + " on " + sendSubjectOf(first.get()));
    }
};
