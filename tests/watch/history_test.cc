#include "watch/serve/history.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/fail_alloc.h"
#include "tests/watch/snapshot_maker.h"
#include "watch/serve/history_json.h"

namespace {

using Numbers = std::vector<uint64_t>;
using Times = std::vector<int32_t>;

struct HistoryTest : testing::Test {
    ~HistoryTest() override { historyFree(history); }

    void add(int32_t seconds, uint64_t data, uint16_t hosts = 1) {
        SnapshotMaker maker;
        for (uint16_t scid = 0; scid < hosts; ++scid)
            maker.host(7500, "239.1.1.1", "10.0.0.1", scid).data = data;
        historyAdd(history, maker.at(seconds));
    }

    Times times() {
        Times all;
        for (uint32_t at = 0; at < history.count; ++at)
            all.push_back(historyAt(history, at).time.seconds);
        return all;
    }

    // The sender's, of each interval.
    Numbers data() {
        Numbers all;
        for (uint32_t at = 0; at < history.count; ++at) {
            uint64_t numbers[kHistoryNumbers];
            historyRow(historyAt(history, at), sender, numbers);
            all.push_back(numbers[0]);
        }
        return all;
    }

    History history = {};
    RowKey sender{.table = BusTable::kMulticast,
                  .hasHost = true,
                  .port = htons(7500),
                  .scid = 0,
                  .group = inet_addr("239.1.1.1"),
                  .host = inet_addr("10.0.0.1"),
                  .subject = nullptr};
};

TEST_F(HistoryTest, AQuarterOfAnHourIsHeld) {
    add(1000, 1);
    add(1899, 2);
    EXPECT_EQ(times(), (Times{1000, 1899}));
    add(1900, 3);
    EXPECT_EQ(times(), (Times{1899, 1900}));
    EXPECT_EQ(data(), (Numbers{2, 3}));
    add(1900, 4);  // intervals may be shorter than the clock's step
    add(100, 5);   // the clock was set back
    EXPECT_EQ(times(), (Times{100}));
    add(INT32_MAX, 6);
    add(INT32_MIN, 7);
    EXPECT_EQ(data(), (Numbers{7}));

    for (uint64_t interval = 0; interval < 2000; ++interval)
        add(INT32_MIN, interval);
    EXPECT_EQ(history.count, kHistoryMostIntervals);
    EXPECT_EQ(data().back(), 1999u);
}

TEST_F(HistoryTest, BytesAreBounded) {
    history.mostBytes = 200'000;
    for (int32_t second = 1; second <= 50; ++second) {
        add(second, UINT64_MAX, 300);
        ASSERT_LE(history.blockBytes, history.mostBytes);
    }
    EXPECT_GT(history.blockBytes, history.mostBytes - history.mostBytes / 10);
    EXPECT_LT(history.count, 48u);
    EXPECT_EQ(times().back(), 50);
    EXPECT_EQ(data().front(), UINT64_MAX);
}

TEST_F(HistoryTest, WithoutMemoryAnIntervalHasNoRows) {
    add(1, 1);
    EXPECT_GT(eachAllocationFails([this] {
                  historyFree(history);
                  add(2, 2, 100);
                  allocationsHeal();
                  for (const uint64_t number : data())
                      ASSERT_TRUE(number == 0 || number == 2);
                  add(3, 3);
                  ASSERT_EQ(data().back(), 3u);
              }),
              3u);
}

TEST_F(HistoryTest, TimesAreMilliseconds) {
    SnapshotMaker maker;
    SnapHeader& snapshot = maker.at(10);
    snapshot.thisTime = {-1, 1'250'999'999};  // a stamp with more than a second's nanoseconds
    snapshot.frames = 7;
    historyAdd(history, snapshot);
    JsonBuffer totals;
    historyAppendTotals(totals, history, 0.001);
    EXPECT_TRUE(totals.text().starts_with(
        R"({"interval_seconds":0.001,"times":[0.250],"elapsed_seconds":[2],"series":{"frames":[7],"packets":[0])"));
}

}  // namespace
