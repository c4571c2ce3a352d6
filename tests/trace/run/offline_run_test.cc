#include "trace/run/offline_run.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "tests/support/capture_file.h"
#include "tests/support/capture_reset.h"
#include "tests/support/packet_builder.h"
#include "tests/support/scratch_folder.h"
#include "tests/support/trace_run.h"
#include "trace/settings.h"

namespace {

constexpr int32_t kNoon = 43200;
constexpr int32_t kLast = 2147483647;

struct Stamp {
    int32_t seconds;
    uint32_t microseconds = 0;
};

// Each report as "<time> (<elapsed> elapsed seconds) <data packets>", behind the begin line.
Lines reportsOf(const Lines& logged) {
    Lines reports;
    for (const std::string& line : logged) {
        unsigned dataPackets = 0;
        if (line.starts_with("Savefile")) reports.push_back(line);
        if (line.starts_with("Snapshot  ")) reports.push_back(line.substr(10));
        if (std::sscanf(line.c_str(), " Totals %u", &dataPackets) == 1) {
            reports.back() += " " + std::to_string(dataPackets);
        }
    }
    return reports;
}

Lines readStamps(uint32_t updateInterval, const std::vector<Stamp>& stamps) {
    std::vector<SavedFrame> frames;
    PacketHead head;
    for (const Stamp& stamp : stamps) {
        frames.push_back({stamp.seconds, stamp.microseconds, ethernetFrame(dataPacket(head, {}))});
        ++head.seq;
    }
    const Folder folder;
    writeFile(folder.path("in"), captureText(frames));

    TraceRun run;
    traceSettings.updateInterval = updateInterval;
    traceSettings.displaySubjects = false;
    captureState.captureHandle = openOffline(folder.path("in").c_str());
    runOffline();
    resetCapture();
    traceSettings = {};
    return reportsOf(run.logged());
}

const std::string kBeginsAtNoon = "Savefile begins at 1970/01/01-12:00:00";
const std::string kBeginsLast = "Savefile begins at 2038/01/19-03:14:07";

TEST(OfflineRun, TakesSnapshotsByTheTimeOfThePackets) {
    setenv("TZ", "UTC", 1);
    tzset();
    const struct {
        const char* what;
        uint32_t updateInterval;
        std::vector<Stamp> stamps;
        Lines reports;
    } cases[] = {
        {"a packet at the time itself still counts, one later doesn't",
         5,
         {{kNoon, 500000}, {kNoon + 5, 500000}, {kNoon + 5, 500001}},
         {kBeginsAtNoon, "1970-01-01 12:00:05  (5.0 elapsed seconds) 2",
          "1970-01-01 12:00:05  (0.0 elapsed seconds) 1"}},
        {"before 1970",
         5,
         {{-7}, {-1}, {-1}},
         {"Savefile begins at 1969/12/31-23:59:53", "1969-12-31 23:59:58  (5.0 elapsed seconds) 1",
          "1969-12-31 23:59:59  (1.0 elapsed seconds) 2"}},
        {"beyond the end of the 32-bit clock",
         1,
         {{kLast}, {kLast}},
         {kBeginsLast, "1901-12-13 20:45:52  (-4294967295.0 elapsed seconds) 1",
          "2038-01-19 03:14:07  (4294967295.0 elapsed seconds) 1"}},
        {"an interval of all ones is one second back",
         4294967295,
         {{kNoon}, {kNoon}},
         {kBeginsAtNoon, "1970-01-01 11:59:59  (-1.0 elapsed seconds) 1",
          "1970-01-01 12:00:00  (1.0 elapsed seconds) 1"}},
        {"the last packet's time is only noted behind the first",
         10,
         {{kNoon}},
         {kBeginsAtNoon, "1970-01-01 00:00:00  (-43200.0 elapsed seconds) 1"}},
    };
    for (const auto& [what, updateInterval, stamps, reports] : cases) {
        SCOPED_TRACE(what);
        snapshotSetStart({});
        EXPECT_EQ(readStamps(updateInterval, stamps), reports);
    }
}

}  // namespace
