#include "watch/serve/series.h"

#include <gtest/gtest.h>

#include <map>
#include <numeric>
#include <string>

#include "tests/support/fail_alloc.h"
#include "tests/support/made_snapshot.h"
#include "watch/serve/metrics.h"

namespace {

struct SeriesTest : testing::Test {
    SeriesTest() {
        table.rules = {
            .hosts = true, .subjects = nullptr, .mostSeries = 10000, .expireIntervals = 3};
    }
    ~SeriesTest() override {
        seriesFree(table);
        sublistDestroy(table.rules.subjects);
    }

    void allSubjects() {
        table.rules.subjects = sublistCreate();
        ASSERT_TRUE(sublistAdd(table.rules.subjects, packedSubject(">").data(), this, nullptr));
    }

    void add(const std::string& group, const std::string& host, uint64_t data) {
        MadeSnapshot made;
        made.host(group, host, 7001).data = data;
        seriesAdd(table, made.snapshot());
    }

    // One family: the values of its labels, with commas between -> its value.
    std::map<std::string, double> family(const std::string& name) {
        MetricFamilies families;
        EXPECT_TRUE(metricsOfSeries(table, families));
        std::map<std::string, double> samples;
        for (const auto& one : families) {
            for (const auto& metric : one.name == name ? one.metric : decltype(one.metric)()) {
                std::string labels;
                for (const auto& label : metric.label) {
                    labels += (labels.empty() ? "" : ",") + label.value;
                }
                samples[labels] = metric.counter.value + metric.gauge.value;
            }
        }
        return samples;
    }

    size_t samples() {
        MetricFamilies families;
        ServeHealth health{};
        health.version = health.source = "";
        EXPECT_TRUE(metricsOfSeries(table, families) && metricsOfHealth(health, families));
        return std::accumulate(families.begin(), families.end(), size_t{0},
                               [](size_t sum, const auto& one) { return sum + one.metric.size(); });
    }

    SeriesTable table = {};
};

using Samples = std::map<std::string, double>;

TEST_F(SeriesTest, AddsUpWhatEachTableHas) {
    allSubjects();
    for (uint64_t time = 1; time <= 2; ++time) {
        MadeSnapshot made;
        SnapHost& first = made.host("239.1.1.1", "10.0.0.1", 7001);
        first.data = 1;
        first.reliability = 10.0 * static_cast<double>(time);
        made.host("239.1.1.1", "10.0.0.1", 0).data = 10;
        made.host("239.1.1.2", "10.0.0.1", 7001).data = 100;
        made.subject("239.1.1.1", {"A", "B"}).msgs = 2;
        made.subject("239.1.1.1", {"A.B"}).msgs = 3;
        made.rl("10.0.0.1", 7001).rseqSent = 4;
        made.rl("10.0.0.2", 7001).rseqRecv = 4;
        made.port = 7501;
        made.ptp("10.0.0.1", 0).bytesRecv = 5;
        made.ptp("10.0.0.2", 0).bytesRecv = 6;
        made.head.faults[2].packets = 7;
        made.head.source.kernelDrops = 8;
        seriesAdd(table, made.snapshot());
    }
    const std::string multicast = "pelmo_multicast_", rl = "pelmo_retransmission_",
                      ptp = "pelmo_point_to_point_";
    const std::pair<std::string, Samples> cases[] = {
        {multicast + "data_packets_total", {{"7500,239.1.1.1", 22}, {"7500,239.1.1.2", 200}}},
        {multicast + "messages_total", {{"7500,239.1.1.1", 10}, {"7500,239.1.1.2", 0}}},
        {multicast + "host_data_packets_total",
         {{"7500,239.1.1.1,10.0.0.1,7001", 2},
          {"7500,239.1.1.1,10.0.0.1,", 20},
          {"7500,239.1.1.2,10.0.0.1,7001", 200}}},
        {multicast + "host_reliability_seconds",
         {{"7500,239.1.1.1,10.0.0.1,7001", 20},
          {"7500,239.1.1.1,10.0.0.1,", 0},
          {"7500,239.1.1.2,10.0.0.1,7001", 0}}},
        {"pelmo_subject_messages_total",
         {{"7500,239.1.1.1,A.B", 4}, {"7500,239.1.1.1,A\\x2eB", 6}}},
        {rl + "requested_packets_sent_total", {{"7500", 8}, {"7501", 0}}},
        {rl + "host_requested_packets_received_total",
         {{"7500,10.0.0.1,7001", 0}, {"7500,10.0.0.2,7001", 8}}},
        {ptp + "payload_bytes_received_total", {{"7500", 0}, {"7501", 22}}},
        {ptp + "host_payload_bytes_received_total",
         {{"7501,10.0.0.1,", 10}, {"7501,10.0.0.2,", 12}}},
        {"pelmo_kernel_dropped_frames_total", {{"", 16}}},
        {"pelmo_watch_intervals_total", {{"", 2}}},
    };
    for (const auto& [name, expected] : cases) {
        EXPECT_EQ(family(name), expected) << name;
    }
    EXPECT_EQ(family("pelmo_fault_packets_total").at(faultRow(static_cast<Fault>(2)).key), 14);
    EXPECT_EQ(family("pelmo_fault_packets_total").size(), kFaultKinds);
}

TEST_F(SeriesTest, RowsGoOnceTheyWereSilentForSoLong) {
    constexpr const char* kData = "pelmo_multicast_data_packets_total";
    add("239.1.1.1", "10.0.0.1", 1);
    add("239.1.1.2", "10.0.0.1", 1);
    add("239.1.1.2", "10.0.0.1", 1);
    EXPECT_EQ(family(kData), (Samples{{"7500,239.1.1.1", 1}, {"7500,239.1.1.2", 2}}));
    add("239.1.1.2", "10.0.0.1", 1);
    EXPECT_EQ(family(kData), (Samples{{"7500,239.1.1.2", 3}}));
    add("239.1.1.1", "10.0.0.1", 5);  // begins anew, and the other's row is still found
    add("239.1.1.2", "10.0.0.1", 1);
    EXPECT_EQ(family(kData), (Samples{{"7500,239.1.1.1", 5}, {"7500,239.1.1.2", 4}}));
    for (int interval = 0; interval < 3; ++interval) {
        seriesAdd(table, {});
    }
    EXPECT_EQ(table.rows.count, 0u);
    EXPECT_EQ(table.rowSeries, 0u);
}

TEST_F(SeriesTest, WhatFindsNoRoomIsInTheOtherRow) {
    allSubjects();
    table.rules.mostSeries = 1000;
    MadeSnapshot made;
    for (int i = 0; i < 300; ++i) {
        made.host("239.1.1.1", "10.0.1." + std::to_string(i % 256), static_cast<uint16_t>(i)).data =
            1;
        made.subject("239.1.1.1", {"S", std::to_string(i)}).msgs = 1;
    }
    seriesAdd(table, made.snapshot());
    EXPECT_LE(samples(), 1000u);
    EXPECT_GT(samples(), 700u);

    // Hosts took all that they may; ports and groups still find room, up to the last of it.
    MadeSnapshot groups;
    for (int i = 0; i < 100; ++i) {
        groups.host("239.2.1." + std::to_string(i), "10.0.0.1", 1).data = 1;
    }
    seriesAdd(table, groups.snapshot());
    EXPECT_LE(samples(), 1000u);
    const Samples data = family("pelmo_multicast_data_packets_total");
    EXPECT_GT(data.size(), 10u);
    EXPECT_EQ(data.at("other,other") + static_cast<double>(data.size()) - 2 + 300, 400);
    for (const std::string name :
         {"pelmo_multicast_host_data_packets_total", "pelmo_subject_messages_total"}) {
        double sum = 0;
        for (const auto& [labels, value] : family(name)) {
            sum += value;
        }
        EXPECT_EQ(sum, name.find("host") != std::string::npos ? 400 : 300);
    }
    EXPECT_GT(table.leftOutSeries, 0u);
    seriesAdd(table, {});
    EXPECT_EQ(table.leftOutSeries, 0u);
}

TEST_F(SeriesTest, WithoutMemoryCountsAreInTheOtherRow) {
    allSubjects();
    MadeSnapshot made;
    made.host("239.1.1.1", "10.0.0.1", 1).data = 3;
    made.subject("239.1.1.1", {"A"}).msgs = 5;
    const SeriesRules rules = table.rules;
    EXPECT_GT(eachAllocationFails([&] {
                  seriesFree(table);
                  seriesAdd(table, made.snapshot());
                  allocationsHeal();
                  double sum = 0;
                  for (const char* name : {"pelmo_multicast_data_packets_total",
                                           "pelmo_multicast_host_data_packets_total",
                                           "pelmo_subject_messages_total"}) {
                      for (const auto& [labels, value] : family(name)) {
                          sum += value;
                      }
                  }
                  ASSERT_EQ(sum, 3 + 3 + 5);
              }),
              0u);
    EXPECT_EQ(table.rules.subjects, rules.subjects);
}

}  // namespace
