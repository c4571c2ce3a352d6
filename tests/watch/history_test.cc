#include "watch/serve/history.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "tests/support/fail_alloc.h"
#include "tests/support/made_snapshot.h"
#include "watch/core/text.h"
#include "watch/serve/history_json.h"
#include "watch/serve/route.h"

namespace {

struct HistoryTest : testing::Test {
    ~HistoryTest() override { historyFree(history); }

    void add(int32_t seconds, uint64_t data, uint32_t hosts = 1) {
        MadeSnapshot made;
        for (uint32_t i = 0; i < hosts; ++i) {
            made.host("239.1.1.1", "10.0.0.1", static_cast<uint16_t>(i)).data = data;
        }
        made.head.thisTime = {seconds, 0};
        historyAdd(history, made.snapshot());
    }

    std::vector<int32_t> times() {
        std::vector<int32_t> all;
        for (uint32_t at = 0; at < history.count; ++at) {
            all.push_back(historyAt(history, at).time.seconds);
        }
        return all;
    }

    std::vector<uint64_t> column(const HistoryKey& key, size_t field) {
        std::vector<uint64_t> all;
        for (uint32_t at = 0; at < history.count; ++at) {
            uint64_t numbers[kHistoryNumbers];
            historyRow(historyAt(history, at), key, numbers);
            all.push_back(numbers[field]);
        }
        return all;
    }

    History history = {};
    HistoryKey sender{.table = HistoryTable::kMulticast,
                      .hasHost = true,
                      .port = htons(7500),
                      .scid = 0,
                      .group = MadeSnapshot::address("239.1.1.1"),
                      .host = MadeSnapshot::address("10.0.0.1"),
                      .subject = nullptr};
};

using Numbers = std::vector<uint64_t>;
using Times = std::vector<int32_t>;

TEST_F(HistoryTest, KeepsEachRowsNumbersWhateverTheirSize) {
    std::mt19937_64 random(20240229);
    MadeSnapshot made;
    std::vector<SnapHost> hosts;
    for (uint16_t scid = 1; scid <= 3000; ++scid) {
        SnapHost& host = made.host("239.1.1.1", "10.0.0.1", scid);
        for (uint64_t* number : {&host.data, &host.bytes, &host.nulls, &host.rdata, &host.rbytes,
                                 &host.gaps, &host.bad}) {
            *number = random() % 3 == 0 ? 0 : random() >> random() % 64;
        }
        hosts.push_back(host);
    }
    made.host("239.1.1.1", "10.0.0.2", 8).bytes = UINT64_MAX;
    historyAdd(history, made.snapshot());
    for (const SnapHost& host : hosts) {
        sender.scid = host.port;
        uint64_t numbers[kHistoryNumbers];
        historyRow(historyAt(history, 0), sender, numbers);
        const Numbers expected = {host.data,   host.bytes, host.nulls, host.rdata,
                                  host.rbytes, host.gaps,  host.bad};
        ASSERT_EQ(Numbers(numbers, numbers + 7), expected);
    }
    sender.host = MadeSnapshot::address("10.0.0.2");
    sender.scid = htons(8);
    EXPECT_EQ(column(sender, 1), Numbers{UINT64_MAX});
}

TEST_F(HistoryTest, TellsRowsApart) {
    MadeSnapshot made;
    made.host("239.1.1.1", "10.0.0.1", 0).data = 1;
    made.host("239.1.1.1", "10.0.0.1", 7001).data = 2;
    made.host("239.1.1.2", "10.0.0.1", 0).data = 4;
    made.subject("239.1.1.1", {"A", "B"}).msgs = 8;
    made.subject("239.1.1.1", {"A.B"}).msgs = 16;
    made.rl("10.0.0.1", 0).rreqSent = 32;
    made.ptp("10.0.0.1", 0).dataSent = 64;
    made.port = 7501;
    made.host("239.1.1.1", "10.0.0.1", 0).data = 128;
    historyAdd(history, made.snapshot());

    const Bytes two = packedSubject("A.B"), one = packedElements({"A.B"}),
                none = packedSubject("C");
    const auto key = [&](auto change) {
        HistoryKey changed = sender;
        change(changed);
        return column(changed, 0)[0];
    };
    const auto table = [](HistoryTable name, bool hasHost, const uint8_t* subject = nullptr) {
        return [=](HistoryKey& row) {
            row.table = name;
            row.hasHost = hasHost;
            if (!hasHost) row.host = 0;
            if (name != HistoryTable::kMulticast && subject == nullptr) row.group = 0;
            row.subject = subject;
        };
    };
    EXPECT_EQ(key([](HistoryKey&) {}), 1u);
    EXPECT_EQ(key([](HistoryKey& row) { row.scid = htons(7001); }), 2u);
    EXPECT_EQ(key([](HistoryKey& row) { row.group = MadeSnapshot::address("239.1.1.2"); }), 4u);
    EXPECT_EQ(key([](HistoryKey& row) { row.port = htons(7501); }), 128u);
    EXPECT_EQ(key([](HistoryKey& row) { row.host = 0; }), 0u);
    EXPECT_EQ(key(table(HistoryTable::kMulticast, false)), 3u);
    EXPECT_EQ(key(table(HistoryTable::kRetransmission, true)), 32u);
    EXPECT_EQ(key(table(HistoryTable::kPointToPoint, true)), 64u);
    EXPECT_EQ(key(table(HistoryTable::kPointToPoint, false)), 64u);
    EXPECT_EQ(key(table(HistoryTable::kSubjects, false, two.data())), 8u);
    EXPECT_EQ(key(table(HistoryTable::kSubjects, false, one.data())), 16u);
    EXPECT_EQ(key(table(HistoryTable::kSubjects, false, none.data())), 0u);
}

TEST_F(HistoryTest, HoldsAQuarterOfAnHour) {
    add(1000, 1);
    add(1899, 2);
    EXPECT_EQ(times(), (Times{1000, 1899}));
    add(1900, 3);
    EXPECT_EQ(times(), (Times{1899, 1900}));
    EXPECT_EQ(column(sender, 0), (Numbers{2, 3}));
    add(1900, 4);  // intervals may be shorter than the clock's step
    add(100, 5);   // the clock was set back
    EXPECT_EQ(times(), (Times{100}));
    add(INT32_MAX, 6);
    add(INT32_MIN, 7);
    EXPECT_EQ(column(sender, 0), (Numbers{7}));

    for (int32_t interval = 0; interval < 2000; ++interval) {
        add(INT32_MIN, static_cast<uint64_t>(interval));
    }
    EXPECT_EQ(history.count, kHistoryMostIntervals);
    EXPECT_EQ(column(sender, 0).back(), 1999u);
}

TEST_F(HistoryTest, IsBoundedInBytes) {
    constexpr uint32_t kHosts = 60000;
    for (int32_t second = 1; second <= 50; ++second) {
        add(second, UINT64_MAX, kHosts);
        ASSERT_LE(history.blockBytes, kHistoryMostBytes);
    }
    EXPECT_GT(history.blockBytes, kHistoryMostBytes - kHistoryMostBytes / 10);
    EXPECT_LT(history.count, 48u);
    EXPECT_EQ(times().back(), 50);
    EXPECT_EQ(column(sender, 0).front(), UINT64_MAX);
}

TEST_F(HistoryTest, WithoutMemoryHasNoRows) {
    add(1, 1);
    EXPECT_GT(eachAllocationFails([this] {
                  historyFree(history);
                  add(2, 2, 100);
                  allocationsHeal();
                  for (const uint64_t number : column(sender, 0)) {
                      ASSERT_TRUE(number == 0 || number == 2);
                  }
                  add(3, 3);
                  ASSERT_EQ(column(sender, 0).back(), 3u);
              }),
              3u);
}

TEST_F(HistoryTest, IsToldWithTimesOfMilliseconds) {
    MadeSnapshot made;
    made.head.thisTime = {-1, 1'250'999'999};  // a stamp with more than a second's nanoseconds
    made.head.frames = 7;
    historyAdd(history, made.snapshot());
    JsonBuffer totals, row;
    historyAppendTotals(totals, history, 0.001);
    EXPECT_TRUE(totals.text().starts_with(
        R"({"interval_seconds":0.001,"times":[0.250],"series":{"frames":[7],"packets":[0])"));
    historyAppendRow(row, history, sender, 10);
    EXPECT_TRUE(row.text().starts_with(
        R"({"interval_seconds":10,"times":[0.250],"series":{"data_packets":[0],)"));
    EXPECT_TRUE(row.text().ends_with("}}\n"));
}

// Every subject's text leads back to it, and what no subject has as its text is refused.
TEST(SubjectFromSafeText, ReadsWhatIsShown) {
    const std::vector<std::vector<std::string>> subjects = {
        {"A", "B"},
        {"A.B"},
        {"", ""},
        {std::string(252 - 2, '\x02')},
        {"\\x41", "\"<>"},
        {std::string("\0", 1)},
        {"\xff\xc3", "\xe2\x82\xac"},
        std::vector<std::string>(126, ""),
    };
    for (const auto& elements : subjects) {
        const Bytes packed = packedElements(elements);
        char text[kSafeSubjectBytes];
        uint8_t back[kSubjectMaxBytes] = {};
        ASSERT_TRUE(subjectFromSafeText(subjectSafeText(packed.data(), text), back)) << text;
        EXPECT_EQ(Bytes(back, back + packed.size()), packed) << text;
    }
    for (const std::string text : {"\\", "A\\", "\\y41", "\\x4", "\\x4g", "\\x+1", "A.\\x"}) {
        uint8_t back[kSubjectMaxBytes];
        EXPECT_FALSE(subjectFromSafeText(text, back)) << text;
    }
    uint8_t back[kSubjectMaxBytes];
    EXPECT_FALSE(subjectFromSafeText(std::string(253, 'A'), back));
    EXPECT_FALSE(subjectFromSafeText(std::string(127, '.'), back));
}

}  // namespace
