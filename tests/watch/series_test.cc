#include "watch/serve/series.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "tests/support/fail_alloc.h"
#include "tests/watch/snapshot_maker.h"
#include "watch/serve/metrics.h"

TEST(Series, CountsWithoutMemoryAreInTheOtherRow) {
    SeriesTable table = {};
    table.rules = {
        .hosts = true, .subjects = sublistCreate(), .mostSeries = 10000, .expireIntervals = 3};
    ASSERT_TRUE(sublistAdd(table.rules.subjects, packedSubject(">").data(), &table, nullptr));
    SnapshotMaker maker;
    maker.host(7500, "239.1.1.1", "10.0.0.1", 1).data = 3;
    maker.subject(7500, "239.1.1.1", {"A"}, "10.0.0.1", 5);
    const std::string counted[] = {"pelmo_multicast_data_packets_total",
                                   "pelmo_multicast_host_data_packets_total",
                                   "pelmo_subject_messages_total"};
    EXPECT_GT(eachAllocationFails([&] {
                  seriesFree(table);
                  seriesAdd(table, maker.at(10));
                  allocationsHeal();
                  MetricFamilies families;
                  ASSERT_TRUE(metricsOfSeries(table, families));
                  double sum = 0;
                  for (const auto& family : families) {
                      if (std::ranges::find(counted, family.name) == std::end(counted)) continue;
                      for (const auto& metric : family.metric)
                          sum += metric.counter.value;
                  }
                  ASSERT_EQ(sum, 3 + 3 + 5);
              }),
              0u);
    seriesFree(table);
    sublistDestroy(table.rules.subjects);
}
