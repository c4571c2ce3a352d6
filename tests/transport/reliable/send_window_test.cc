#include "lib/transport/reliable/send_window.h"

#include <gtest/gtest.h>

namespace {

using enum AckVerdict;

constexpr uint64_t kNone = kNoThreshold;

struct Step {
    uint64_t sndNxt;  // so far it has been sent ahead of the acknowledgement
    uint64_t ack;
    AckVerdict verdict;
    uint64_t sndLimit, cwnd, cwndCount, ssthresh, dupAcks;
};

void run(SendWindow window, std::initializer_list<Step> steps) {
    for (const Step& step : steps) {
        SCOPED_TRACE(testing::Message() << "step " << &step - steps.begin() << ": " << step.ack);
        window.sndNxt = step.sndNxt;
        const uint64_t before = window.sndUna;
        EXPECT_EQ(windowAcknowledge(&window, step.ack), step.verdict);
        const bool isNew = step.verdict == kAdvanced || step.verdict == kAdvancedPart;
        EXPECT_EQ(window.sndUna, isNew ? step.ack : before);
        EXPECT_EQ(window.sndLimit, step.sndLimit);
        EXPECT_EQ(window.cwnd, step.cwnd);
        EXPECT_EQ(window.cwndCount, step.cwndCount);
        EXPECT_EQ(window.ssthresh, step.ssthresh);
        EXPECT_EQ(window.dupAcks, step.dupAcks);
    }
}

SendWindow opened() {
    SendWindow window;
    windowInit(&window, 32);
    EXPECT_FALSE(windowIsOpen(&window));
    window.sndNxt = 2;  // the SYN
    windowOpened(&window, 2, 30);
    EXPECT_EQ(window.sndLimit, 4u);
    EXPECT_EQ(window.dupAcks, 1u);
    return window;
}

TEST(SendWindow, GrowsResendsAndRecovers) {
    run(opened(), {
                      {4, 1, kOutside, 4, 2, 0, kNone, 1},
                      {4, 5, kOutside, 4, 2, 0, kNone, 1},
                      {4, 3, kAdvanced, 7, 3, 0, kNone, 1},
                      {7, 3, kRepeated, 11, 4, 0, kNone, 2},
                      {7, 3, kRepeated, 12, 5, 0, kNone, 3},
                      {7, 3, kResend, 12, 5, 0, 2, 4},  // a half of what might have been sent
                      {8, 3, kRepeated, 13, 5, 0, 2, 5},
                      {8, 3, kRepeated, 13, 5, 0, 2, 6},
                      {8, 3, kResend, 13, 5, 0, 2, 4},
                      {8, 3, kRepeated, 13, 5, 0, 2, 5},
                      {8, 8, kAdvanced, 10, 2, 0, kNone, 0},
                      {8, 8, kRepeated, 11, 3, 0, kNone, 0},  // nothing under way: none is counted
                      {10, 9, kAdvanced, 14, 4, 0, kNone, 1},
                  });
}

TEST(SendWindow, GrowsByOneAWindowAboveTheThreshold) {
    SendWindow window = opened();
    window.ssthresh = 2;
    run(window, {
                    {12, 3, kAdvanced, 14, 2, 1, 2, 1},
                    {12, 4, kAdvanced, 14, 2, 2, 2, 1},
                    {12, 6, kAdvanced, 15, 3, 0, 2, 1},
                    {12, 6, kRepeated, 15, 3, 1, 2, 2},
                });
}

TEST(SendWindow, KeepsToThePeersWindowAndToItsNumbers) {
    SendWindow window = opened();
    window.peerWindow = 3;
    run(window, {
                    {6, 3, kAdvanced, 6, 3, 0, kNone, 1},
                    {6, 3, kRepeated, 6, 4, 0, kNone, 2},
                    {7, 3, kRepeated, 7, 5, 0, kNone, 3},  // a FIN goes beyond the limit
                    {8, 3, kResend, 8, 4, 0, 1, 4},
                    {8, 3, kRepeated, 8, 4, 0, 1, 5},
                    {8, 3, kRepeated, 8, 4, 0, 1, 6},
                    {8, 3, kRepeated, 8, 4, 0, 1, 4},  // no room: not sent again
                });
    window.cwnd = window.peerWindow = UINT64_MAX;
    window.ssthresh = UINT64_MAX - 1;
    window.cwndCount = UINT64_MAX;
    run(window, {{9, 3, kAdvanced, UINT64_MAX, UINT64_MAX, 0, UINT64_MAX - 1, 1}});
}

}  // namespace
