// Circuits over the intra-process transport, without threads but the timer's: the test dispatches
// the work queue itself and makes the ticks. A peer may be bare, so that it can break the rules.

#pragma once

#include <algorithm>
#include <sstream>

#include "lib/runtime/event_manager.h"
#include "lib/transport/circuit/circuit_internal.h"
#include "tests/support/local_bus.h"

struct TimerThread : NoCopy {
    TimerThread() { EXPECT_EQ(EventManager_Start(), kStatusSuccess); }
    ~TimerThread() { EventManager_Stop(); }
};

struct CircuitFixture : testing::Test {
    LocalBus bus;
    TimerThread timers;
    uint32_t queue = makeQueue();

    CircuitFixture() {
        circuitAttach();
        EXPECT_EQ(Queue_Create(nullptr, kWorkQueueId, "work", false, false), kStatusSuccess);
    }
    ~CircuitFixture() override {
        for (const uint32_t id : idsOf(IdType::kTransport)) {
            if (id != kLocal) pelmoTransport_Destroy(id);
        }
        circuitOps = {};
    }

    static void work() { dispatchAll(kWorkQueueId); }
    void settle() const {
        work();
        dispatchAll(queue);
    }
};

inline CircuitState stateOf(uint32_t circuit) {
    Held<Transport> held;
    return held.findLocked(circuit) == kStatusSuccess ? held->circuit->vcState
                                                      : CircuitState::kDisconnected;
}

// Two ends that are connected.
struct CircuitPair {
    uint32_t accepting = kNoId;
    uint32_t connecting = kNoId;

    explicit CircuitPair(uint32_t underlying = kLocal) {
        const char* subject = nullptr;
        EXPECT_EQ(vcCreateAccept(&accepting, &subject, underlying), kStatusSuccess);
        EXPECT_EQ(vcCreateConnect(&connecting, subject, underlying), kStatusSuccess);
        CircuitFixture::work();
        EXPECT_EQ(vcWaitForConnection(accepting, 0), kStatusSuccess);
        EXPECT_EQ(vcWaitForConnection(connecting, 0), kStatusSuccess);
    }
};

// A message of outer fields, as it comes off a transport, from "vct=vctd vcq=2 vcs=[A] data":
// texts, the u64 "vcq", subjects in brackets, i32 numbers after "#"; "data" is a message.
inline Message rawMessage(const std::string& to, const std::string& fields) {
    Message made = newMessage();
    pelmoMsg* const into = made.get();
    const auto add = [&](const char* name, const std::string& value) {
        if (value.empty() && name == std::string("data"))
            return pelmoMsg_AddMsg(into, name, messageOn(nullptr).get(), 0);
        if (name == std::string("vcq") && value[0] != '"')
            return pelmoMsg_AddU64(into, name, std::stoull(value), 0);
        if (value[0] == '#') return pelmoMsg_AddI32(into, name, std::stoi(value.substr(1)), 0);
        if (value[0] != '[') return pelmoMsg_AddString(into, name, value.c_str(), 0);
        return pelmoMsg_AddSubjectText(into, name, value.substr(1, value.size() - 2).c_str(), 0);
    };
    std::istringstream words("sub=[" + to + "] mtype=D " + fields);
    for (std::string word; words >> word;) {
        const size_t at = std::min(word.find('='), word.size());
        EXPECT_EQ(add(word.substr(0, at).c_str(), word.substr(std::min(at + 1, word.size()))),
                  kStatusSuccess)
            << word;
    }
    return made;
}

inline void sendRaw(const std::string& to, const std::string& fields) {
    EXPECT_EQ(pelmoTransport_Send(kLocal, rawMessage(to, fields).get()), kStatusSuccess);
}

// A peer without a circuit of its own: its inbox is a plain listener of the test's.
struct BarePeer : TestListener {
    char inbox[64];

    explicit BarePeer(uint32_t queue) {
        EXPECT_EQ(pelmoTransport_CreateInbox(kLocal, inbox, sizeof inbox), kStatusSuccess);
        EXPECT_EQ(listen(queue, inbox), kStatusSuccess);
        onMessage = [this](pelmoMsg* message) {
            EXPECT_EQ(msgCloseEnvelope(message), kStatusSuccess);
            texts.back() = shownText(message);
        };
    }
    // Of a request for a circuit.
    [[nodiscard]] std::string fields() const {
        return std::string("vct=vctc return=") + inbox + " cmret=[" + inbox + "] ";
    }
};
