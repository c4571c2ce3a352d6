#include "watch/serve/series.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "tests/support/fail_alloc.h"
#include "tests/watch/snapshot_maker.h"
#include "watch/serve/metrics.h"

namespace {

using Samples = std::map<std::string, double>;

constexpr const char* kData = "pelmo_multicast_data_packets_total";
constexpr const char* kHostData = "pelmo_multicast_host_data_packets_total";
constexpr const char* kMessages = "pelmo_subject_messages_total";

struct SeriesTest : testing::Test {
    SeriesTest() {
        table.rules = {
            .hosts = true, .subjects = sublistCreate(), .mostSeries = 10000, .expireIntervals = 3};
        EXPECT_TRUE(sublistAdd(table.rules.subjects, packedSubject(">").data(), this, nullptr));
    }
    ~SeriesTest() override {
        seriesFree(table);
        sublistDestroy(table.rules.subjects);
    }

    void add(const char* group, uint64_t data, double reliability = 0) {
        SnapshotMaker maker;
        SnapHost& host = maker.host(7500, group, "10.0.0.1", 7001);
        host.data = data;
        host.reliability = reliability;
        seriesAdd(table, maker.at(10));
    }

    // One family: the values of its labels, with commas between -> its value.
    Samples family(const std::string& name) {
        MetricFamilies families;
        EXPECT_TRUE(metricsOfSeries(table, families));
        Samples samples;
        for (const auto& one : families) {
            for (const auto& metric : one.name == name ? one.metric : decltype(one.metric)()) {
                std::string labels;
                for (const auto& label : metric.label)
                    labels += (labels.empty() ? "" : ",") + label.value;
                samples[labels] = metric.counter.value + metric.gauge.value;
            }
        }
        return samples;
    }

    double sumOf(const std::string& name) {
        double sum = 0;
        for (const auto& [labels, value] : family(name))
            sum += value;
        return sum;
    }

    size_t samples() {
        MetricFamilies families;
        ServeHealth health{};
        health.version = health.source = "";
        EXPECT_TRUE(metricsOfSeries(table, families) && metricsOfHealth(health, families));
        size_t count = 0;
        for (const auto& one : families)
            count += one.metric.size();
        return count;
    }

    SeriesTable table = {};
};

TEST_F(SeriesTest, RowsThatWereSilentForSoLongGo) {
    add("239.1.1.1", 1);
    add("239.1.1.2", 1, 10);
    add("239.1.1.2", 1, 20);
    EXPECT_EQ(family(kData), (Samples{{"7500,239.1.1.1", 1}, {"7500,239.1.1.2", 2}}));
    EXPECT_EQ(family("pelmo_multicast_host_reliability_seconds"),
              (Samples{{"7500,239.1.1.1,10.0.0.1,7001", 0}, {"7500,239.1.1.2,10.0.0.1,7001", 20}}));
    add("239.1.1.2", 1);
    EXPECT_EQ(family(kData), (Samples{{"7500,239.1.1.2", 3}}));
    add("239.1.1.1", 5);  // begins again, and the other's row is still found
    add("239.1.1.2", 1);
    EXPECT_EQ(family(kData), (Samples{{"7500,239.1.1.1", 5}, {"7500,239.1.1.2", 4}}));
    for (int interval = 0; interval < 3; ++interval)
        seriesAdd(table, {});
    EXPECT_EQ(table.rows.count + table.rowSeries, 0u);
}

TEST_F(SeriesTest, CountsThatFindNoRoomAreInTheOtherRow) {
    table.rules.mostSeries = 1000;
    SnapshotMaker maker;
    for (uint16_t i = 0; i < 300; ++i) {
        maker.host(7500, "239.1.1.1", "10.0.1.1", i).data = 1;
        maker.subject(7500, "239.1.1.1", {"S", std::to_string(i)}, "10.0.0.1", 1);
    }
    seriesAdd(table, maker.at(10));
    EXPECT_LE(samples(), 1000u);
    EXPECT_GT(samples(), 700u);

    // Hosts took all that they may; ports and groups still find room, up to the last of it.
    SnapshotMaker groups;
    for (int i = 0; i < 100; ++i)
        groups.host(7500, ("239.2.1." + std::to_string(i)).c_str(), "10.0.0.1", 1).data = 1;
    seriesAdd(table, groups.at(12));
    EXPECT_LE(samples(), 1000u);
    const Samples data = family(kData);
    EXPECT_GT(data.size(), 10u);
    EXPECT_EQ(data.at("other,other") + static_cast<double>(data.size()) - 2 + 300, 400);
    EXPECT_EQ(sumOf(kHostData), 400);
    EXPECT_EQ(sumOf(kMessages), 300);
    EXPECT_GT(table.leftOutSeries, 0u);
    seriesAdd(table, {});
    EXPECT_EQ(table.leftOutSeries, 0u);
}

TEST_F(SeriesTest, CountsWithoutMemoryAreInTheOtherRow) {
    SnapshotMaker maker;
    maker.host(7500, "239.1.1.1", "10.0.0.1", 1).data = 3;
    maker.subject(7500, "239.1.1.1", {"A"}, "10.0.0.1", 5);
    EXPECT_GT(eachAllocationFails([&] {
                  seriesFree(table);
                  seriesAdd(table, maker.at(10));
                  allocationsHeal();
                  ASSERT_EQ(sumOf(kData) + sumOf(kHostData) + sumOf(kMessages), 3 + 3 + 5);
              }),
              0u);
}

}  // namespace
