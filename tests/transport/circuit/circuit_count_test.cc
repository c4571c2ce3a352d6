// Numbers and silence, by a virtual count of ticks.

#include "lib/transport/circuit/circuit_count.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// Each character is one thing that happens: "t" a tick, "m" a message of the peer. The answer has
// one for each tick: "." nothing, "h" a heartbeat that is sent, "f" one that can't be, "x" the end.
std::string course(const std::string& events, int failingHeartbeats = 0) {
    CircuitCount count = {};
    std::string ticks;
    for (const char event : events) {
        if (event == 'm') {
            const CircuitHead head = {CircuitKind::kHeartbeat, true, count.recvSeq + 1};
            EXPECT_EQ(countArrival(count, head), Arrival::kSign);
            continue;
        }
        switch (countTick(count)) {
            case Tick::kNothing:
                ticks += '.';
                break;
            case Tick::kHeartbeat:
                if (failingHeartbeats-- > 0) {
                    ticks += 'f';
                } else {
                    ticks += 'h';
                    countHeartbeatSent(count);
                }
                break;
            case Tick::kSilent:
                return ticks + 'x';
        }
    }
    return ticks;
}

TEST(CircuitCount, TellsHeartbeatsAndSilence) {
    const std::string ticks(20, 't');
    EXPECT_EQ(course(ticks), "..h..h..h.x");  // 30, 60 and 90 seconds, the end at 110
    EXPECT_EQ(course(ticks, 2), "..ffh..h..x");
    EXPECT_EQ(course("ttttttttttm" + ticks), "..h..h..h..h..h..h..x");  // at 100, just in time
    std::string alive;
    for (int i = 0; i < 100; ++i)
        alive += "tttm";
    EXPECT_EQ(course(alive).find('x'), std::string::npos);
    EXPECT_EQ(course(alive, 299), ".." + std::string(298, 'f'));  // no wrap of the number
}

TEST(CircuitCount, TakesEachNumberOnce) {
    using enum CircuitKind;
    const struct {
        CircuitHead head;
        Arrival arrival;
        uint64_t sendSeq;
    } rows[] = {
        {{kData, true, 8}, Arrival::kParcel, 3},     {{kHeartbeat, true, 8}, Arrival::kSign, 3},
        {{kGoodbye, true, 8}, Arrival::kGoodbye, 3}, {{kData, true, 9}, Arrival::kGap, 4},
        {{kData, true, 7}, Arrival::kGap, 4},        {{kGoodbye, true, 0}, Arrival::kGap, 4},
        {{kOther, true, 9}, Arrival::kGap, 4},       {{kOther, true, 8}, Arrival::kInvalid, 3},
        {{kRequest, true, 8}, Arrival::kInvalid, 3}, {{kAcceptance, true, 8}, Arrival::kInvalid, 3},
        {{kData, false, 8}, Arrival::kInvalid, 3},   {{kNone, true, 8}, Arrival::kInvalid, 3},
    };
    for (const auto& [head, arrival, sendSeq] : rows) {
        SCOPED_TRACE(std::to_string(static_cast<int>(head.kind)) + ":" +
                     std::to_string(head.number));
        CircuitCount count = {.sendSeq = 3, .recvSeq = 7, .ticksSinceSend = 0, .ticksSilent = 5};
        EXPECT_EQ(countArrival(count, head), arrival);
        EXPECT_EQ(count.sendSeq, sendSeq);
        EXPECT_EQ(count.ticksSilent,
                  arrival == Arrival::kGap || !head.hasNumber || head.kind == kNone ? 5 : 0);
    }
}

}  // namespace
