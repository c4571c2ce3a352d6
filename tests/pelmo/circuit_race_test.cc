// Circuits on the library's own threads: both ends at once, ends and closes against all that goes
// on, a daemon beneath that takes nothing.

#include <map>
#include <optional>

#include "lib/transport/circuit/circuit_internal.h"
#include "tests/pelmo/daemon_fixture.h"
#include "tests/support/circuit_fixture.h"

namespace {

constexpr double kForGood = 20;  // seconds, more than any wait takes

struct Circuits : DaemonFixture {};

uint32_t acceptingCircuit(const char** subject = nullptr, uint32_t transport = kLocal) {
    uint32_t circuit = kNoId;
    const char* unused = nullptr;
    EXPECT_EQ(vcCreateAccept(&circuit, subject != nullptr ? subject : &unused, transport),
              kStatusSuccess);
    return circuit;
}

// Made and connected by the work queue's own thread.
struct LivePair {
    const char* subject = nullptr;
    uint32_t ends[2] = {acceptingCircuit(&subject), kNoId};

    LivePair() {
        EXPECT_EQ(vcCreateConnect(&ends[1], subject, kLocal), kStatusSuccess);
        for (const uint32_t end : ends)
            EXPECT_EQ(vcWaitForConnection(end, kForGood), kStatusSuccess);
    }
};

Message numbered(int sender, int number) {
    return messageOn("N", (std::to_string(sender) + " " + std::to_string(number)).c_str());
}

// Do the numbers of each sender count up from 0?
bool areInOrder(const Texts& numbers) {
    std::map<char, int> next;
    return std::ranges::all_of(numbers, [&](const std::string& text) {
        return std::stoi(text.substr(2)) == next[text[0]]++;
    });
}

pelmoStatus sendNumber(uint32_t circuit) {
    return pelmoTransport_Send(circuit, numbered(0, 0).get());
}

// Many senders at both ends, one by one and in batches, with heartbeats in between. The second time
// others dispatch the work queue as well.
void sendersKeepTheirOrder(int rounds) {
    constexpr int kSenders = 6;
    const LivePair pair;
    const ServedListener first(pair.ends[0], "N"), second(pair.ends[1], "N");
    race(kSenders, rounds, [&](int sender, int round) {
        const uint32_t circuit = pair.ends[sender % 2];
        const Message one = numbered(sender, 2 * round), two = numbered(sender, 2 * round + 1);
        pelmoMsg* both[] = {one.get(), two.get()};
        if (sender < 2) {
            EXPECT_EQ(pelmoTransport_Send(circuit, one.get()), kStatusSuccess);
            EXPECT_EQ(pelmoTransport_Send(circuit, two.get()), kStatusSuccess);
            if (round % 50 == 0) vcTick(circuit);  // fewer than end it
        } else {
            EXPECT_EQ(pelmoTransport_Sendv(circuit, both, 2), kStatusSuccess);
        }
    });
    for (const ServedListener* each : {&first, &second}) {
        EXPECT_TRUE(each->await(kSenders / 2 * 2 * static_cast<size_t>(rounds)));
        EXPECT_TRUE(areInOrder(each->texts));
    }
}

TEST_F(Circuits, KeepTheOrderOfEachSender) {
    sendersKeepTheirOrder(300);
    uint32_t more[3];
    for (uint32_t& one : more)
        ASSERT_EQ(pelmoDispatcher_CreateEx(&one, kWorkQueueId, -1), kStatusSuccess);
    sendersKeepTheirOrder(3000);
}

// Senders, ticks, waits, destroys at both ends and from callbacks; at last the library closes with
// circuits of all states alive.
TEST_F(Circuits, EndWhileAllGoesOn) {
    const Leftovers before = leftovers();
    for (int round = 0; round < 30; ++round) {
        const LivePair pair;
        const uint32_t waiting = acceptingCircuit();
        std::optional<ServedListener> destroys;
        if (round % 2 == 0) {
            destroys.emplace(pair.ends[1], "N").onMessage = [&](pelmoMsg*) {
                for (const uint32_t end : pair.ends)
                    pelmoTransport_Destroy(end);
            };
        }
        race(5, 1, [&](int thread, int) {
            if (thread == 4) {
                (void)vcWaitForConnection(waiting, kForGood);  // the destroy wakes it
                EXPECT_NE(sendNumber(waiting), kStatusSuccess);
                return;
            }
            for (int i = 0; i < 50; ++i) {
                vcTick(pair.ends[thread % 2]);
                (void)sendNumber(pair.ends[thread % 2]);
            }
            if (thread < 2) pelmoTransport_Destroy(pair.ends[thread]);
            if (thread == 3) pelmoTransport_Destroy(waiting);
        });
    }
    EXPECT_EQ(leftoversOnceThey(before), before);

    const LivePair pair;
    const uint32_t waiting = acceptingCircuit();
    race(3, 1, [&](int thread, int) {
        if (thread == 0) (void)vcWaitForConnection(waiting, kForGood);
        while (thread == 1 && sendNumber(pair.ends[0]) == kStatusSuccess) {
        }
        if (thread != 2) return;
        (void)poll(nullptr, 0, 5);
        EXPECT_EQ(pelmo_Close(), kStatusSuccess);
    });
    EXPECT_TRUE(noMemoryIsLost());
    open();
}

// The handshake of a peer that doesn't exist: the daemon of these tests passes nothing on.
uint32_t connectedCircuit(uint32_t transport) {
    const char* subject = nullptr;
    const uint32_t circuit = acceptingCircuit(&subject, transport);
    const Message request =
        rawMessage(subject, "vct=vctc return=_INBOX.P.1.2.3 cmret=[_INBOX.P.1.2.3]");
    EXPECT_EQ(pelmoMsg_Detach(request.get()), kStatusNotPermitted);
    pelmoMsg* copy = nullptr;
    EXPECT_EQ(msgShareCopy(&copy, request.get()), kStatusSuccess);
    EXPECT_EQ(pelmoTransport_Distribute(transport, copy), kStatusSuccess);
    EXPECT_EQ(vcWaitForConnection(circuit, kForGood), kStatusSuccess);
    return circuit;
}

// Neither ticks nor messages nor the end of the circuit wait for a sender that the daemon holds up;
// nothing overtakes it, and the goodbye comes after it.
TEST_F(Circuits, OverADaemonWaitForNoSender) {
    MisbehavingDaemon daemon({goodSession() + gate() + serve()});
    const Leftovers before = leftovers();
    ASSERT_EQ(create(daemon), kStatusSuccess);
    const uint32_t underlying = transport;
    const uint32_t circuit = connectedCircuit(underlying);
    transport = circuit;
    std::thread sending = sendUntilItFails();
    for (int tick = 0; tick < kHeartbeatTicks; ++tick)
        vcTick(circuit);
    const Message gap = rawMessage("_INBOX.A", "vct=vcth vcq=7");
    pelmoMsg* const came = gap.get();
    vcControl(circuit, {&came, 1});
    EXPECT_EQ(stateOf(circuit), CircuitState::kDisconnected);
    EXPECT_EQ(pelmoTransport_Destroy(circuit), kStatusSuccess);
    daemon.openGate();
    sending.join();
    EXPECT_EQ(pelmoTransport_Destroy(underlying), kStatusSuccess);
    EXPECT_EQ(leftoversOnceThey(before), before);
    uint64_t count = 0;
    std::string kind;
    for (const Bytes& image : daemon.messages()) {
        const Message message = messageFrom(image);
        const char* text = nullptr;
        uint64_t number = 0;
        if (pelmoMsg_GetU64(message.get(), "vcq", &number, 0) != kStatusSuccess) continue;
        EXPECT_EQ(pelmoMsg_GetString(message.get(), "vct", &text, 0), kStatusSuccess);
        kind = text;
        EXPECT_EQ(number, ++count + (kind == "vctb" ? 1 : 0));  // the peer finds a gap too
    }
    EXPECT_EQ(kind, "vctb");
}

// A daemon that dies: sends fail with the transport's own status, and the numbers that they used up
// end the circuit at the peer; one that said nothing meanwhile goes on. The transport may end
// first.
TEST_F(Circuits, OverADaemonOutliveABreakAndTheirTransport) {
    MisbehavingDaemon daemon({goodSession() + gate() + hangUp(), goodSession() + serve()});
    const Leftovers before = leftovers();
    ASSERT_EQ(create(daemon), kStatusSuccess);
    ServedListener breaks(transport, kDisconnected);
    const uint32_t circuit = connectedCircuit(transport);
    EXPECT_EQ(sendNumber(circuit), kStatusSuccess);
    daemon.openGate();
    EXPECT_TRUE(breaks.await(1));
    EXPECT_TRUE(daemon.awaitConnections(2));
    EXPECT_TRUE(within(10, [&] { return sendNumber(circuit) == kStatusSuccess; }));
    EXPECT_EQ(stateOf(circuit), CircuitState::kConnected);
    EXPECT_EQ(pelmoTransport_Destroy(transport), kStatusSuccess);
    EXPECT_EQ(sendNumber(circuit), kStatusInvalidTransport);
    for (int tick = 0; tick < kMostSilentTicks; ++tick)
        vcTick(circuit);
    EXPECT_EQ(stateOf(circuit), CircuitState::kDisconnected);
    EXPECT_EQ(pelmoTransport_Destroy(circuit), kStatusSuccess);
    breaks.end();
    EXPECT_EQ(leftoversOnceThey(before), before);
}

}  // namespace
