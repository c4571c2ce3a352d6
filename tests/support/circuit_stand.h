// Circuits over the intra-process transport, without threads but the timer's: the test dispatches
// the work queue itself and makes the ticks. A peer may be bare, so that it can break the rules.

#pragma once

#include "lib/msg/text.h"
#include "lib/runtime/event_manager.h"
#include "lib/transport/circuit/circuit_internal.h"
#include "tests/support/local_bus.h"
#include "tests/support/test.h"

struct TimerThread : NoCopy {
    TimerThread() { EXPECT_EQ(EventManager_Start(), kStatusSuccess); }
    ~TimerThread() { EventManager_Stop(); }
};

struct CircuitStand : testing::Test {
    LocalBus bus;
    TimerThread timers;
    uint32_t queue = makeQueue();

    CircuitStand() {
        circuitAttach();
        EXPECT_EQ(Queue_Create(nullptr, kWorkQueueId, "work", false, false), kStatusSuccess);
    }
    ~CircuitStand() override {
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
        CircuitStand::work();
        EXPECT_EQ(vcWaitForConnection(accepting, 0), kStatusSuccess);
        EXPECT_EQ(vcWaitForConnection(connecting, 0), kStatusSuccess);
    }
};

// A message of outer fields, as it comes off a transport.
class RawMessage {
  public:
    explicit RawMessage(const char* to) { subject("sub", to).text("mtype", "D"); }

    RawMessage& text(const char* name, const char* value) {
        return done(pelmoMsg_AddString(get(), name, value, 0));
    }
    RawMessage& subject(const char* name, const char* value) {
        return done(pelmoMsg_AddSubjectText(get(), name, value, 0));
    }
    RawMessage& i32(const char* name, int32_t value) {
        return done(pelmoMsg_AddI32(get(), name, value, 0));
    }
    RawMessage& number(uint64_t value) { return done(pelmoMsg_AddU64(get(), "vcq", value, 0)); }
    RawMessage& data(pelmoMsg* value) { return done(pelmoMsg_AddMsg(get(), "data", value, 0)); }
    RawMessage& kind(const char* value) { return text("vct", value); }

    [[nodiscard]] pelmoMsg* get() const { return message_.get(); }
    void send(uint32_t transport = kLocal) const {
        EXPECT_EQ(pelmoTransport_Send(transport, get()), kStatusSuccess);
    }

  private:
    Message message_ = newMessage();

    RawMessage& done(pelmoStatus status) {
        EXPECT_EQ(status, kStatusSuccess);
        return *this;
    }
};

// The text of all that a message's fields show.
inline std::string allFields(pelmoMsg* message) {
    EXPECT_EQ(msgCloseEnvelope(message), kStatusSuccess);
    const char* text = nullptr;
    return pelmoMsg_ConvertToString(message, &text) == kStatusSuccess ? text : "no text";
}

// A peer without a library behind it: its inbox is a plain listener of the test's.
struct BarePeer {
    char inbox[64];
    Texts heard;

    explicit BarePeer(uint32_t queue) {
        EXPECT_EQ(pelmoTransport_CreateInbox(kLocal, inbox, sizeof inbox), kStatusSuccess);
        EXPECT_EQ(listener_.listen(queue, inbox), kStatusSuccess);
        listener_.onMessage = [this](pelmoMsg* message) { heard.push_back(allFields(message)); };
    }

    [[nodiscard]] RawMessage request(const char* to) const {
        RawMessage message(to);
        message.kind("vctc").text("return", inbox).subject("cmret", inbox);
        return message;
    }
    [[nodiscard]] Texts taken() { return std::exchange(heard, {}); }

  private:
    TestListener listener_;
};
