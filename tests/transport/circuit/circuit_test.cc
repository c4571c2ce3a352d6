// Circuits over the transport within the process, and peers that break the rules.

#include "lib/transport/circuit/circuit.h"

#include "lib/base/bytes.h"
#include "lib/containers/dpa.h"
#include "tests/support/circuit_fixture.h"

namespace {

const char* const kConnected = "_PM.INFO.SYSTEM.VC.CONNECTED";
const char* const kEnded = "_PM.INFO.SYSTEM.VC.DISCONNECTED";
const char* const kFailed = "_PM.ERROR.SYSTEM.VC.DISCONNECTED";

// A circuit's advisories to its own listener, each with its reason.
struct Advisories : TestListener {
    Advisories(uint32_t queue, uint32_t circuit) : TestListener(queue, "_PM.>", circuit) {
        onMessage = [this](pelmoMsg* message) {
            const char *subject = nullptr, *reason = nullptr;
            EXPECT_EQ(pelmoMsg_GetSendSubject(message, &subject), kStatusSuccess);
            (void)pelmoMsg_GetString(message, "ADV_DESC", &reason, 0);
            texts.back() = subject + (reason != nullptr ? std::string(": ") + reason : "");
        };
    }
};

using Circuit = CircuitFixture;

// An accepting end whose peer is bare.
struct BareCircuit : CircuitFixture {
    uint32_t circuit = kNoId;
    const char* handshake = nullptr;
    std::string control;
    BarePeer peer{queue};

    // The first inbox of a circuit is its control inbox, the second that of its handshake.
    void SetUp() override {
        if (circuit != kNoId) (void)pelmoTransport_Destroy(circuit);
        ASSERT_EQ(vcCreateAccept(&circuit, &handshake, kLocal), kStatusSuccess);
        const int number = std::atoi(std::strrchr(handshake, '.') + 1);
        control = "_INBOX." + std::to_string(number - 1);
    }
    void connect(bool legacy = false) {
        sendRaw(handshake, peer.fields() + (legacy ? "" : "vmaj=#8 vmin=#5"));
        settle();
        EXPECT_EQ(peer.taken(),
                  Texts{head() + R"(mtype="D" vct="vcta" cmret=[)" + control + "] vmaj=8 vmin=5}"});
        EXPECT_EQ(stateOf(circuit), CircuitState::kConnected);
    }
    // How what the peer receives begins.
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
    TestListener there(queue, "A.*", pair.accepting), here(queue, ">", pair.connecting);
    there.onMessage = [&](pelmoMsg* message) {
        const char* subject = nullptr;
        EXPECT_EQ(pelmoMsg_GetSendSubject(message, &subject), kStatusSuccess);
        there.texts.back() += std::string(" on ") + subject;
    };
    const Message two = messageOn("A.B", "2"), three = messageOn("A.C", "3");
    const Message bad = messageOn(nullptr);
    pelmoMsg* vector[] = {two.get(), three.get(), bad.get(), two.get()};
    uint32_t taken = 77;
    EXPECT_EQ(sendText(pair.connecting, "A.B", "1"), kStatusSuccess);
    EXPECT_EQ(pelmoTransport_Sendv(pair.connecting, vector, 2), kStatusSuccess);
    EXPECT_EQ(sendText(pair.accepting, "X.Y", "back"), kStatusSuccess);
    EXPECT_EQ(sendText(pair.connecting, "NOBODY", "lost"), kStatusSuccess);
    EXPECT_EQ(sendText(pair.connecting, "_PM.X"), kStatusInvalidSubject);
    EXPECT_EQ(sendText(pair.connecting, nullptr), kStatusInvalidSubject);
    // Of a vector within the process what comes before the first bad message is sent.
    EXPECT_EQ(pelmoTransport_SendvTaken(pair.connecting, vector, 4, &taken), kStatusInvalidSubject);
    EXPECT_EQ(taken, 2u);
    settle();
    EXPECT_EQ(there.taken(), (Texts{"1 on A.B", "2 on A.B", "3 on A.C", "2 on A.B", "3 on A.C"}));

    // A local message doesn't cross, and each of many listeners gets it.
    TestListener again(queue, "A.B", pair.accepting);
    for (const char* subject : {"A.B", static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(pelmoTransport_Distribute(pair.accepting, messageOn(subject, "4").release()),
                  kStatusSuccess);
    }
    settle();
    EXPECT_TRUE(there.texts == Texts{"4 on A.B"} && again.texts == Texts{"4"});
    EXPECT_EQ(here.texts, Texts{"back"});

    // Inboxes are the circuit's own.
    char inbox[80];
    ASSERT_EQ(pelmoTransport_CreateInbox(pair.connecting, inbox, sizeof inbox), kStatusSuccess);
    EXPECT_NE(std::strstr(inbox, ".V1"), nullptr) << inbox;
    const TestListener answers(queue, inbox, pair.connecting);
    EXPECT_EQ(TestListener().listen(queue, "_INBOX.1", pair.connecting), kStatusInvalidSubject);
    there.onMessage = [&](pelmoMsg* request) {
        const Message answer = messageOn(nullptr, "answer");
        EXPECT_EQ(pelmoTransport_SendReply(pair.accepting, answer.get(), request), kStatusSuccess);
    };
    ASSERT_EQ(pelmoMsg_SetReplySubject(two.get(), inbox), kStatusSuccess);
    EXPECT_EQ(pelmoTransport_Send(pair.connecting, two.get()), kStatusSuccess);
    settle();
    settle();
    EXPECT_EQ(answers.texts, Texts{"answer"});
    EXPECT_EQ(stateOf(pair.accepting), CircuitState::kConnected);
    uint32_t stacked = kNoId;
    const char* itsInbox = nullptr;
    EXPECT_EQ(vcCreateAccept(&stacked, &itsInbox, pair.accepting), kStatusInvalidTransport);
}

TEST_F(BareCircuit, LaysFieldsInOrder) {
    for (const bool legacy : {false, true}) {
        SetUp();
        settle();
        (void)peer.taken();
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
            const char* text = nullptr;
            EXPECT_EQ(pelmoMsg_GetReplySubject(message, &text), kStatusSuccess);
            replies += text;
        };
        sendRaw(control, "vct=vctd vcq=1 return=R vcr=V vcs=[A.B] data");
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
    sendRaw(control, "vct=vcth vcq=1");
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
    EXPECT_EQ(posts, 13u);
}

// One message each, after a heartbeat with the number 1.
TEST_F(BareCircuit, EndsByWhatArrives) {
    const std::string sound = "vct=vctd vcq=2 vcs=[A] ", longText(255, 'x');
    const char* const invalid = "invalid message";
    struct Case {
        std::string fields;
        const char* reason;  // empty: it ends in order; null: it goes on
        int goodbye;         // its number; 0: none
    };
    std::vector<Case> cases = {
        {"vcq=2", invalid, 1},
        {"vct=vcth", invalid, 1},
        {"vct=vcth vcq=\"2", invalid, 1},
        {"vct=#7 vcq=2", invalid, 1},
        {"vct=vcth vcq=2", nullptr, 0},
        {"vct=vctb vcq=2", "", 0},
        {sound + "data", nullptr, 0},
        {"vct=vctd vcq=2 vcs=[_INBOX.5.6.7] data", nullptr, 0},
        {std::string("vct=vctd vcq=2 vcs=[") + kEnded + "] data", nullptr, 0},  // forged
        {"vct=vctd vcq=2 data", invalid, 1},
        {"vct=vctd vcq=2 vcs=A data", invalid, 1},
        {sound, invalid, 1},
        {sound + "data=x", invalid, 1},
        {sound + "corrupt", invalid, 1},
        {sound + "data vcr=#1", invalid, 1},
        {sound + "data vcr=", invalid, 1},
        {sound + "data vcr=" + longText, invalid, 1},
        {sound + "data vcr=" + longText.substr(1), nullptr, 0},
    };
    for (const char* number : {"3", "1", "0", "18446744073709551615"})
        cases.push_back({std::string("vct=vctd vcq=") + number, "data loss", 2});
    for (const char* kind : {"vctc", "vcta", "vctx", "", "vctdd"})
        cases.push_back({std::string("vcq=2 vct=") + kind, invalid, 1});
    for (const Case& c : cases) {
        SCOPED_TRACE(c.fields);
        connect();
        Advisories advisories(queue, circuit);
        sendRaw(control, "vct=vcth vcq=1");
        Message message = rawMessage(control, c.fields);
        if (c.fields.ends_with("corrupt")) {
            const Message corrupt = messageOn(nullptr, "corrupt");
            msgImage(corrupt.get())[kMessageHeadBytes + 7] = 119;  // a size beyond the message
            ASSERT_EQ(pelmoMsg_AddMsg(message.get(), "data", corrupt.get(), 0), kStatusSuccess);
        }
        EXPECT_EQ(pelmoTransport_Send(kLocal, message.get()), kStatusSuccess);
        settle();
        const bool goesOn = c.reason == nullptr;
        EXPECT_EQ(stateOf(circuit),
                  goesOn ? CircuitState::kConnected : CircuitState::kDisconnected);
        Texts heard;
        if (!goesOn) heard = {*c.reason == 0 ? kEnded : std::string(kFailed) + ": " + c.reason};
        EXPECT_EQ(advisories.taken(), heard);
        EXPECT_EQ(peer.taken(), c.goodbye != 0 ? Texts{sign("vctb", c.goodbye)} : Texts{});
        ASSERT_EQ(pelmoTransport_Destroy(circuit), kStatusSuccess);
        settle();
        EXPECT_EQ(peer.taken(), goesOn ? Texts{sign("vctb", 1)} : Texts{});
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
        const std::string back = isDirect ? "_INBOX.7F000001.P1234.X.1" : peer.inbox;
        sendRaw(handshake, std::string("vct=vctc return=") + peer.inbox + " cmret=[" + back + "]");
        settle();
        Advisories advisories(queue, circuit);
        (void)peer.taken();
        vcUnreachable(circuit);
        vcUnreachable(circuit);
        settle();
        EXPECT_EQ(advisories.taken(), isDirect ? Texts{} : Texts{gone});
        if (which == 1) sendRaw(control, "vct=vctb vcq=1");
        settle();
        vcGraceOver(circuit);
        settle();
        const Texts ends[] = {{}, {kEnded}, {gone}};
        EXPECT_EQ(advisories.taken(), ends[which]);
        EXPECT_EQ(peer.taken(), Texts{});
        setEndpoint(nullptr);
        SetUp();
    }
}

TEST_F(BareCircuit, TakesOneSoundRequest) {
    const std::string hundred(100, 'x'),
        tooLong = "_INBOX." + hundred + "." + hundred + "." + std::string(50, 'x');
    const std::string back = std::string("return=") + peer.inbox + " ";
    const std::string inbox = std::string("cmret=[") + peer.inbox + "] ";
    for (const std::string& fields :
         {"vct=vcta " + back + inbox, "vct=vctd " + back + inbox, back + inbox, "vct=vctc " + back,
          "vct=vctc " + inbox, "vct=vctc return=#1 " + inbox, "vct=vctc cmret=#1 " + back,
          "vct=vctc return= " + inbox, "vct=vctc return=a..b " + inbox,
          "vct=vctc return=_PM.X " + inbox, "vct=vctc cmret= " + back,
          "vct=vctc cmret=a..b " + back, "vct=vctc cmret=. " + back, "vct=vctc cmret=a.>.b " + back,
          "vct=vctc cmret=" + tooLong + " " + back}) {
        sendRaw(handshake, fields);
    }
    settle();
    EXPECT_EQ(peer.taken(), Texts{});
    EXPECT_EQ(stateOf(circuit), CircuitState::kWaiting);
    EXPECT_EQ(sendText(circuit, "A"), kStatusCircuitNotConnected);

    // Two at once: the second finds it taken. What isn't the control inbox's doesn't matter.
    BarePeer thief(queue);
    sendRaw(handshake, peer.fields() + "vmin=#1");
    sendRaw(handshake, thief.fields());
    sendRaw(control, "vct=vcth vcq=7");  // before the one connection, after the other
    settle();
    EXPECT_EQ(peer.taken().size(), 2u);  // the acceptance, and a goodbye
    EXPECT_EQ(thief.taken(), Texts{});
}

}  // namespace
