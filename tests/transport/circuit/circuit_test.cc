// Circuits over the transport within the process, and peers that break the rules.

#include "lib/transport/circuit/circuit.h"

#include <algorithm>

#include "lib/base/bytes.h"
#include "lib/containers/dpa.h"
#include "tests/support/circuit_stand.h"
#include "tests/support/fail_alloc.h"

namespace {

const char* const kConnected = "_PM.INFO.SYSTEM.VC.CONNECTED";
const char* const kEnded = "_PM.INFO.SYSTEM.VC.DISCONNECTED";
const char* const kFailed = "_PM.ERROR.SYSTEM.VC.DISCONNECTED";

// What a circuit tells its listeners of itself.
struct Advisories {
    Texts told;

    Advisories(uint32_t queue, uint32_t circuit) {
        for (TestListener* listener : {&info_, &error_}) {
            listener->onMessage = [this](pelmoMsg* message) { told.push_back(textsOf(message)); };
        }
        EXPECT_EQ(info_.listen(queue, "_PM.INFO.>", circuit), kStatusSuccess);
        EXPECT_EQ(error_.listen(queue, "_PM.ERROR.>", circuit), kStatusSuccess);
    }
    [[nodiscard]] Texts taken() { return std::exchange(told, {}); }

  private:
    TestListener info_, error_;

    static std::string textsOf(pelmoMsg* message) {
        const char* subject = nullptr;
        const char* reason = nullptr;
        EXPECT_EQ(pelmoMsg_GetSendSubject(message, &subject), kStatusSuccess);
        const bool hasReason =
            pelmoMsg_GetString(message, "ADV_DESC", &reason, 0) == kStatusSuccess;
        return hasReason ? std::string(subject) + ": " + reason : subject;
    }
};

struct Circuit : CircuitStand {};

// An accepting end whose peer is bare.
struct BareCircuit : CircuitStand {
    uint32_t circuit = kNoId;
    const char* handshake = nullptr;
    std::string control;
    BarePeer peer{queue};

    // The first inbox of a circuit is its control inbox, the second that of its handshake.
    void SetUp() override {
        ASSERT_EQ(vcCreateAccept(&circuit, &handshake, kLocal), kStatusSuccess);
        const int number = std::atoi(std::strrchr(handshake, '.') + 1);
        control = "_INBOX." + std::to_string(number - 1);
    }
    void connect(bool legacy = false) {
        RawMessage request = peer.request(handshake);
        if (!legacy) request.i32("vmaj", 8).i32("vmin", 5);
        request.send();
        settle();
        EXPECT_EQ(peer.taken(),
                  Texts{head() + R"(mtype="D" vct="vcta" cmret=[)" + control + "] vmaj=8 vmin=5}"});
        EXPECT_EQ(stateOf(circuit), CircuitState::kConnected);
    }
    [[nodiscard]] RawMessage message(const char* kind, uint64_t number) const {
        RawMessage made(control.c_str());
        made.kind(kind).number(number);
        return made;
    }
    // What the peer hears begins so.
    [[nodiscard]] std::string head() const { return std::string("{sub=[") + peer.inbox + "] "; }
    [[nodiscard]] std::string sign(const char* kind, int number) const {
        return head() + R"(mtype="D" vct=")" + kind + R"(" vcq=)" + std::to_string(number) + "}";
    }
    void ticks(int count) const {
        for (int i = 0; i < count; ++i)
            vcTick(circuit);
    }
};

TEST_F(Circuit, CarriesMessagesBothWays) {
    const CircuitPair pair;
    TestListener there(queue, "A.*", pair.accepting);
    TestListener here(queue, ">", pair.connecting);
    there.onMessage = [&](pelmoMsg* message) {
        const char* subject = nullptr;
        EXPECT_EQ(pelmoMsg_GetSendSubject(message, &subject), kStatusSuccess);
        EXPECT_STREQ(subject, "A.B");
    };
    for (const char* text : {"1", "2", "3"})
        EXPECT_EQ(sendText(pair.connecting, "A.B", text), kStatusSuccess);
    const Message four = messageOn("A.B", "4"), five = messageOn("A.B", "5");
    pelmoMsg* both[] = {four.get(), five.get()};
    EXPECT_EQ(pelmoTransport_Sendv(pair.connecting, both, 2), kStatusSuccess);
    EXPECT_EQ(sendText(pair.accepting, "X.Y", "back"), kStatusSuccess);
    EXPECT_EQ(sendText(pair.connecting, "NOBODY", "lost"), kStatusSuccess);
    settle();
    EXPECT_EQ(there.texts, (Texts{"1", "2", "3", "4", "5"}));
    EXPECT_EQ(here.texts, Texts{"back"});
    EXPECT_EQ(stateOf(pair.accepting), CircuitState::kConnected);

    // A local message doesn't cross, and each of many listeners gets it.
    TestListener again(queue, "A.B", pair.accepting);
    EXPECT_EQ(pelmoTransport_Distribute(pair.accepting, messageOn("A.B", "6").release()),
              kStatusSuccess);
    EXPECT_EQ(pelmoTransport_Distribute(pair.accepting, messageOn(nullptr).release()),
              kStatusSuccess);
    settle();
    EXPECT_EQ(there.texts.back(), "6");
    EXPECT_EQ(again.texts, Texts{"6"});
    EXPECT_EQ(here.texts, Texts{"back"});
    EXPECT_EQ(sendText(pair.connecting, "_PM.X"), kStatusInvalidSubject);
    EXPECT_EQ(sendText(pair.connecting, nullptr), kStatusInvalidSubject);
}

// Inboxes are the circuit's own, and what a listener gets can be sent on.
TEST_F(Circuit, AnswersRequests) {
    const CircuitPair pair;
    char inbox[80];
    ASSERT_EQ(pelmoTransport_CreateInbox(pair.connecting, inbox, sizeof inbox), kStatusSuccess);
    EXPECT_NE(std::strstr(inbox, ".V1"), nullptr) << inbox;
    TestListener answers(queue, inbox, pair.connecting);
    TestListener copies(queue, "COPY");
    EXPECT_EQ(TestListener().listen(queue, "_INBOX.1", pair.connecting), kStatusInvalidSubject);

    TestListener server(queue, "ASK", pair.accepting);
    server.onMessage = [&](pelmoMsg* request) {
        const Message answer = messageOn(nullptr, "answer");
        EXPECT_EQ(pelmoTransport_SendReply(pair.accepting, answer.get(), request), kStatusSuccess);
        EXPECT_EQ(pelmoMsg_SetSendSubject(request, "COPY"), kStatusSuccess);
        EXPECT_EQ(pelmoTransport_Send(kLocal, request), kStatusSuccess);
    };
    copies.onMessage = [&](pelmoMsg* copy) {
        const char* reply = nullptr;
        EXPECT_EQ(msgOpenEnvelope(copy), kStatusSuccess);
        EXPECT_EQ(pelmoMsg_GetReplySubject(copy, &reply), kStatusSuccess);
        EXPECT_STREQ(reply, inbox);
        EXPECT_FALSE(msgHasForeign(copy));
    };
    const Message request = messageOn("ASK", "question");
    ASSERT_EQ(pelmoMsg_SetReplySubject(request.get(), inbox), kStatusSuccess);
    EXPECT_EQ(pelmoTransport_Send(pair.connecting, request.get()), kStatusSuccess);
    for (int i = 0; i < 2; ++i)
        settle();
    EXPECT_EQ(server.texts, Texts{"question"});
    EXPECT_EQ(answers.texts, Texts{"answer"});
    EXPECT_EQ(copies.texts.size(), 1u);
}

TEST_F(BareCircuit, LaysFieldsInOrder) {
    for (const bool legacy : {false, true}) {
        if (legacy) {
            ASSERT_EQ(pelmoTransport_Destroy(circuit), kStatusSuccess);
            SetUp();
            settle();
            (void)peer.taken();
        }
        connect(legacy);
        const Message plain = messageOn("A.B", "x"), asks = messageOn("A.B", "y");
        ASSERT_EQ(pelmoMsg_SetReplySubject(asks.get(), "C.D"), kStatusSuccess);
        EXPECT_EQ(pelmoTransport_Send(circuit, plain.get()), kStatusSuccess);
        EXPECT_EQ(pelmoTransport_Send(circuit, asks.get()), kStatusSuccess);
        settle();
        const std::string reply = legacy ? R"(return="C.D" )" : R"(vcr="C.D" )";
        EXPECT_EQ(
            peer.taken(),
            (Texts{head() + R"(mtype="D" vct="vctd" vcq=1 vcs=[A.B] data={text="x"}})",
                   head() + reply + R"(mtype="D" vct="vctd" vcq=2 vcs=[A.B] data={text="y"}})"}));

        // And reads them by the same names.
        TestListener listener(queue, "A.B", circuit);
        std::string replies;
        listener.onMessage = [&](pelmoMsg* message) {
            const char* text = "none";
            (void)pelmoMsg_GetReplySubject(message, &text);
            replies += text != nullptr ? text : "none";
        };
        const Message inner = messageOn(nullptr, "z");
        message("vctd", 1)
            .text("return", "R")
            .text("vcr", "V")
            .subject("vcs", "A.B")
            .data(inner.get())
            .send();
        settle();
        EXPECT_EQ(replies, legacy ? "R" : "V");
    }
}

TEST_F(BareCircuit, BeatsAndEndsByTicks) {
    uint32_t posts = 0;
    for (const uint32_t each : {queue, kWorkQueueId})
        ASSERT_EQ(pelmoQueue_SetHook(each, expectTransportsFree, &posts), kStatusSuccess);
    Advisories advisories(queue, circuit);
    ticks(20);  // those of a circuit that waits don't count
    connect();
    EXPECT_EQ(sendText(circuit, "A"), kStatusSuccess);
    ticks(2);
    settle();
    EXPECT_EQ(peer.taken().size(), 1u);
    ticks(1);
    settle();
    EXPECT_EQ(peer.taken(), Texts{sign("vcth", 2)});
    ticks(7);
    message("vcth", 1).send();
    settle();
    (void)peer.taken();
    ticks(10);
    settle();
    EXPECT_EQ(stateOf(circuit), CircuitState::kConnected);
    EXPECT_EQ(peer.taken(), (Texts{sign("vcth", 5), sign("vcth", 6), sign("vcth", 7)}));
    ticks(2);
    settle();
    EXPECT_EQ(peer.taken(), Texts{sign("vctb", 8)});
    EXPECT_EQ(advisories.taken(), (Texts{kConnected, std::string(kFailed) + ": remote timeout"}));
    EXPECT_EQ(sendText(circuit, "A"), kStatusCircuitNotConnected);
    EXPECT_EQ(vcWaitForConnection(circuit, -1), kStatusCircuitNotConnected);

    // Of a circuit that asks itself, what it asks for, what it answers and its end.
    const uint32_t before = std::exchange(posts, 0);
    EXPECT_EQ(before, 13u);
    uint32_t asking = kNoId;
    uint32_t answering = kNoId;
    ASSERT_EQ(vcCreateAccept(&answering, &handshake, kLocal), kStatusSuccess);
    ASSERT_EQ(vcCreateConnect(&asking, handshake, kLocal), kStatusSuccess);
    settle();
    EXPECT_EQ(pelmoTransport_Destroy(asking), kStatusSuccess);
    EXPECT_EQ(posts, 3u);
}

// One message each, behind a heartbeat with the number 1.
TEST_F(BareCircuit, EndsByWhatArrives) {
    const Message inner = messageOn(nullptr, "inner");
    const Message corrupt = newMessage();
    ASSERT_EQ(pelmoMsg_AddString(corrupt.get(), "text", "corrupt", 0), kStatusSuccess);
    msgImage(corrupt.get())[kMessageHeadBytes + 7] = 119;  // a size beyond the message
    const auto data = [&](pelmoMsg* nested, const char* subject = "A") {
        RawMessage made = message("vctd", 2);
        made.subject("vcs", subject).data(nested);
        return made;
    };
    struct Case {
        const char* name;
        RawMessage message;
        const char* reason;  // empty: it ends in order; null: it stands
        int goodbye;         // its number; 0: none
    };
    std::vector<Case> cases;
    const auto add = [&](const char* name, RawMessage& message, const char* reason, int goodbye) {
        cases.push_back({name, std::move(message), reason, goodbye});
    };
    RawMessage noKind(control.c_str());
    add("no kind", noKind.number(2), "invalid message", 1);
    RawMessage noNumber(control.c_str());
    add("no number", noNumber.kind("vcth"), "invalid message", 1);
    RawMessage textNumber(control.c_str());
    add("number as text", textNumber.kind("vcth").text("vcq", "2"), "invalid message", 1);
    RawMessage numberKind(control.c_str());
    add("kind as number", numberKind.i32("vct", 7).number(2), "invalid message", 1);
    for (const uint64_t number : {uint64_t{3}, uint64_t{1}, uint64_t{0}, UINT64_MAX}) {
        RawMessage gap = message("vctd", number);
        add("wrong number", gap, "data loss", 2);
    }
    for (const char* kind : {"vctc", "vcta", "vctx", "", "vctdd"}) {
        RawMessage other = message(kind, 2);
        add(kind, other, "invalid message", 1);
    }
    RawMessage beat = message("vcth", 2);
    add("heartbeat", beat, nullptr, 0);
    RawMessage goodbye = message("vctb", 2);
    add("goodbye", goodbye, "", 0);
    RawMessage sound = data(inner.get());
    add("data", sound, nullptr, 0);
    RawMessage inbox = data(inner.get(), "_INBOX.5.6.7");
    add("data to an inbox", inbox, nullptr, 0);
    RawMessage forged = data(inner.get(), kEnded);
    add("the library's own subject", forged, nullptr, 0);
    RawMessage empty = message("vctd", 2);
    add("no subject", empty.data(inner.get()), "invalid message", 1);
    RawMessage textSubject = message("vctd", 2);
    add("subject as text", textSubject.text("vcs", "A").data(inner.get()), "invalid message", 1);
    RawMessage noData = message("vctd", 2);
    add("no data", noData.subject("vcs", "A"), "invalid message", 1);
    RawMessage textData = message("vctd", 2);
    add("data as text", textData.subject("vcs", "A").text("data", "x"), "invalid message", 1);
    RawMessage bad = data(corrupt.get());
    add("corrupt data", bad, "invalid message", 1);
    RawMessage numberReply = data(inner.get());
    add("reply as number", numberReply.i32("vcr", 1), "invalid message", 1);
    RawMessage noReply = data(inner.get());
    add("empty reply", noReply.text("vcr", ""), "invalid message", 1);
    const std::string longText(255, 'x');
    RawMessage longReply = data(inner.get());
    add("reply too long", longReply.text("vcr", longText.c_str()), "invalid message", 1);
    RawMessage longest = data(inner.get());
    add("longest reply", longest.text("vcr", longText.c_str() + 1), nullptr, 0);

    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        connect();
        Advisories advisories(queue, circuit);
        RawMessage first = message("vcth", 1);
        first.send();
        // The cases were made for the first circuit's inbox.
        ASSERT_EQ(pelmoMsg_UpdateSubjectText(c.message.get(), "sub", control.c_str(), 0),
                  kStatusSuccess);
        c.message.send();
        settle();
        const bool stands = c.reason == nullptr;
        EXPECT_EQ(stateOf(circuit),
                  stands ? CircuitState::kConnected : CircuitState::kDisconnected);
        Texts told;
        if (!stands) told = {*c.reason == 0 ? kEnded : std::string(kFailed) + ": " + c.reason};
        EXPECT_EQ(advisories.taken(), told);
        EXPECT_EQ(peer.taken(), c.goodbye != 0 ? Texts{sign("vctb", c.goodbye)} : Texts{});
        ASSERT_EQ(pelmoTransport_Destroy(circuit), kStatusSuccess);
        settle();
        EXPECT_EQ(peer.taken(), stands ? Texts{sign("vctb", 1)} : Texts{});
        SetUp();
    }
}

// The daemon reports that the peer is gone: what it sent by the daemon has come by then, what it
// sends straight may still come, for a time.
TEST_F(BareCircuit, EndsInOrderByAGoodbyeAlone) {
    const std::string gone = std::string(kFailed) + ": remote unreachable";
    for (const int which : {0, 1, 2}) {
        SCOPED_TRACE(which);
        const bool isDirect = which != 0;
        const auto setEndpoint = [](ReliableEndpoint* endpoint) {  // never used
            Held<Transport> local;
            ASSERT_EQ(local.findLocked(kLocal), kStatusSuccess);
            local->directEndpoint = endpoint;
        };
        if (isDirect) setEndpoint(reinterpret_cast<ReliableEndpoint*>(this));
        RawMessage request(handshake);
        request.kind("vctc").text("return", peer.inbox);
        request.subject("cmret", isDirect ? "_INBOX.7F000001.P1234.X.1" : peer.inbox);
        request.send();
        settle();
        Advisories advisories(queue, circuit);
        (void)peer.taken();
        vcUnreachable(circuit);
        vcUnreachable(circuit);
        settle();
        EXPECT_EQ(advisories.taken(), isDirect ? Texts{} : Texts{gone});
        if (which == 1) {
            RawMessage goodbye = message("vctb", 1);
            goodbye.send();
        }
        settle();
        vcGraceOver(circuit);
        settle();
        const Texts ends[] = {{}, {kEnded}, {gone}};
        EXPECT_EQ(advisories.taken(), ends[which]);
        EXPECT_EQ(peer.taken(), Texts{});
        setEndpoint(nullptr);
        ASSERT_EQ(pelmoTransport_Destroy(circuit), kStatusSuccess);
        SetUp();
    }
}

TEST_F(BareCircuit, TakesOneSoundRequest) {
    const std::string tooLong = "_INBOX." + std::string(100, 'x') + "." + std::string(100, 'x') +
                                "." + std::string(50, 'x');
    const auto offer = [&](const char* kind) {
        RawMessage made(handshake);
        made.kind(kind);
        return made;
    };
    const char* const back = peer.inbox;
    offer("vcta").text("return", back).subject("cmret", back).send();
    offer("vctd").text("return", back).subject("cmret", back).send();
    offer("vctc").text("return", back).send();
    offer("vctc").subject("cmret", back).send();
    offer("vctc").i32("return", 1).subject("cmret", back).send();
    offer("vctc").text("return", back).i32("cmret", 1).send();
    offer("vctc").text("return", "").subject("cmret", back).send();
    offer("vctc").text("return", "a..b").subject("cmret", back).send();
    offer("vctc").text("return", "_PM.X").subject("cmret", back).send();
    for (const char* inbox : {"", "a..b", ".", "a.>.b", tooLong.c_str()}) {
        offer("vctc").text("return", back).text("cmret", inbox).send();
    }
    RawMessage(handshake).text("return", back).subject("cmret", back).send();
    settle();
    EXPECT_EQ(peer.taken(), Texts{});
    EXPECT_EQ(stateOf(circuit), CircuitState::kWaiting);
    EXPECT_EQ(sendText(circuit, "A"), kStatusCircuitNotConnected);

    // Two at once: the second finds it taken. What isn't the control inbox's doesn't matter.
    BarePeer thief(queue);
    const RawMessage second = thief.request(handshake);
    peer.request(handshake).i32("vmin", 1).send();
    second.send();
    message("vcth", 7).send();  // ahead of the connection for one, behind it for the other
    settle();
    EXPECT_EQ(peer.taken().size(), 2u);  // the acceptance, and a goodbye
    EXPECT_EQ(thief.taken(), Texts{});
}

TEST_F(Circuit, RefusesWhatCannotBe) {
    uint32_t id = kNoId;
    const char* subject = nullptr;
    const CircuitPair pair;
    EXPECT_EQ(vcCreateAccept(nullptr, &subject, kLocal), kStatusInvalidArgument);
    EXPECT_EQ(vcCreateAccept(&id, nullptr, kLocal), kStatusInvalidArgument);
    EXPECT_EQ(vcCreateConnect(&id, nullptr, kLocal), kStatusInvalidArgument);
    EXPECT_EQ(vcCreateAccept(&id, &subject, 4711), kStatusInvalidTransport);
    EXPECT_EQ(vcCreateAccept(&id, &subject, pair.accepting), kStatusInvalidTransport);
    const size_t objects = objectCount();
    for (const char* bad : {"", "a..b", "_PM.X"})
        EXPECT_EQ(vcCreateConnect(&id, bad, kLocal), kStatusInvalidSubject) << bad;
    EXPECT_EQ(objectCount(), objects);
    EXPECT_EQ(vcWaitForConnection(kLocal, 0), kStatusInvalidTransport);
    EXPECT_EQ(vcWaitForConnection(4711, 0), kStatusInvalidTransport);
    EXPECT_EQ(id, kNoId);
    EXPECT_EQ(vcCreateConnect(&id, "_INBOX.999", kLocal), kStatusSuccess);
    EXPECT_EQ(vcWaitForConnection(id, 0.01), kStatusTimeout);
    libraryOpen = false;
    EXPECT_EQ(vcCreateAccept(&id, &subject, kLocal), kStatusNotInitialized);
    EXPECT_EQ(vcCreateConnect(&id, "A", kLocal), kStatusNotInitialized);
    EXPECT_EQ(vcWaitForConnection(id, 0), kStatusNotInitialized);
    libraryOpen = true;
}

// Callbacks that destroy their own circuit, the other end, both.
TEST_F(Circuit, EndsFromCallbacks) {
    const size_t objects = objectCount();
    for (int which = 1; which <= 3; ++which) {
        for (const bool byMessage : {true, false}) {
            const CircuitPair pair;
            const auto destroy = [&](pelmoMsg*) {
                if ((which & 1) != 0) pelmoTransport_Destroy(pair.accepting);
                if ((which & 2) != 0) pelmoTransport_Destroy(pair.connecting);
            };
            TestListener listener(queue, byMessage ? "A" : kEnded, pair.accepting);
            listener.onMessage = destroy;
            if (byMessage) {
                for (const char* text : {"1", "2", "3"})
                    EXPECT_EQ(sendText(pair.connecting, "A", text), kStatusSuccess);
            } else {
                EXPECT_EQ(pelmoTransport_Destroy(pair.connecting), kStatusSuccess);
            }
            settle();
            EXPECT_EQ(listener.texts.size(), byMessage && which == 2 ? 3u : 1u);
            settle();
            pelmoTransport_Destroy(pair.accepting);
            pelmoTransport_Destroy(pair.connecting);
            listener.end();
            EXPECT_EQ(objectCount(), objects);
        }
    }
}

// Each allocation of each step fails in turn. Whatever becomes of it, both ends come to the same
// end, and nothing is left behind.
TEST_F(Circuit, LivesWithoutMemory) {
    const size_t objects = objectCount();
    EXPECT_GT(eachAllocationFails([&] {
                  uint32_t accepting = kNoId, connecting = kNoId;
                  const char* subject = nullptr;
                  pelmoStatus status = vcCreateAccept(&accepting, &subject, kLocal);
                  if (status == kStatusSuccess) {
                      status = vcCreateConnect(&connecting, subject, kLocal);
                  }
                  const bool connects = status == kStatusSuccess;
                  EXPECT_EQ(status, connects ? kStatusSuccess : kStatusNoMemory);
                  if (connects) work();
                  allocationsHeal();
                  if (connects) work();
                  const CircuitState state = stateOf(connecting);
                  if (allocationsFailed() == 0) {
                      EXPECT_EQ(state, CircuitState::kConnected);
                  }
                  if (state == CircuitState::kConnected) {
                      EXPECT_EQ(stateOf(accepting), CircuitState::kConnected);
                  }
                  pelmoTransport_Destroy(accepting);
                  pelmoTransport_Destroy(connecting);
                  work();
                  EXPECT_EQ(objectCount(), objects);
              }),
              20u);
}

// What a send promised comes, or the circuit ends; and a gap doesn't go unseen.
TEST_F(Circuit, LosesNothingUnseenWithoutMemory) {
    const Message one = messageOn("A", "1"), two = messageOn("A", "2"), three = messageOn("A", "3");
    pelmoMsg* both[] = {two.get(), three.get()};
    size_t endings = 0;
    for (size_t after = 0;; ++after) {
        SCOPED_TRACE(after);
        const CircuitPair pair;
        TestListener listener(queue, "A", pair.accepting);
        Texts promised;
        {
            const FailAlloc fail{.after = after};
            if (pelmoTransport_Send(pair.connecting, one.get()) == kStatusSuccess) promised = {"1"};
            if (pelmoTransport_Sendv(pair.connecting, both, 2) == kStatusSuccess) {
                promised.insert(promised.end(), {"2", "3"});
            }
            settle();
        }
        const bool failed = allocationsFailed() != 0;
        if (sendText(pair.connecting, "A", "4") == kStatusSuccess) promised.emplace_back("4");
        settle();
        if (stateOf(pair.accepting) == CircuitState::kConnected) {
            EXPECT_TRUE(std::ranges::includes(listener.texts, promised));
        } else {
            ++endings;
            EXPECT_TRUE(failed);
            EXPECT_EQ(stateOf(pair.connecting), CircuitState::kDisconnected);
        }
        pelmoTransport_Destroy(pair.accepting);
        pelmoTransport_Destroy(pair.connecting);
        work();
        if (!failed) break;
    }
    EXPECT_GT(endings, 0u);
}

}  // namespace
