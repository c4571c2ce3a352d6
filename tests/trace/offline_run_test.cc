#include "trace/offline_run.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "tests/support/capture_file.h"
#include "tests/support/packet_builder.h"
#include "tests/support/scratch_folder.h"
#include "tests/support/trace_run.h"
#include "trace/capture_session.h"
#include "trace/capture_state.h"
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

Lines readCapture(uint32_t updateInterval, const std::vector<SavedFrame>& frames) {
    const Folder folder;
    const std::string path = folder.path("in");
    writeFile(path, captureText(frames));

    TraceRun run;
    traceSettings.updateInterval = updateInterval;
    traceSettings.displaySubjects = false;
    captureState.captureHandle = openOffline(path.c_str());
    runOffline();
    pcap_close(captureState.captureHandle);
    captureState.captureHandle = nullptr;
    traceSettings = {};
    return reportsOf(run.logged());
}

Lines readStamps(uint32_t updateInterval, const std::vector<Stamp>& stamps) {
    std::vector<SavedFrame> frames;
    PacketHead head;
    for (const Stamp& stamp : stamps) {
        frames.push_back({stamp.seconds, stamp.microseconds, ethernetFrame(dataPacket(head, {}))});
        ++head.seq;
    }
    return readCapture(updateInterval, frames);
}

struct OfflineRun : testing::Test {
    OfflineRun() {
        setenv("TZ", "UTC", 1);
        tzset();
    }
};

const std::string kBeginsAtNoon = "Savefile begins at 1970/01/01-12:00:00";
const std::string kBeginsLast = "Savefile begins at 2038/01/19-03:14:07";

TEST_F(OfflineRun, TakesSnapshotsByTheTimeOfThePackets) {
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
        {"one packet brings one snapshot, however wide the gap",
         10,
         {{kNoon}, {kNoon + 60}, {kNoon + 61}, {kNoon + 62}},
         {kBeginsAtNoon, "1970-01-01 12:00:10  (10.0 elapsed seconds) 1",
          "1970-01-01 12:00:20  (10.0 elapsed seconds) 1",
          "1970-01-01 12:00:30  (10.0 elapsed seconds) 1",
          "1970-01-01 12:01:02  (32.0 elapsed seconds) 1"}},
        {"time that stands still",
         0,
         {{kNoon}, {kNoon}, {kNoon}},
         {kBeginsAtNoon, "1970-01-01 12:00:00  (0.0 elapsed seconds) 3"}},
        {"an interval of 0",
         0,
         {{kNoon}, {kNoon, 1}, {kNoon + 1}},
         {kBeginsAtNoon, "1970-01-01 12:00:00  (0.0 elapsed seconds) 1",
          "1970-01-01 12:00:00  (0.0 elapsed seconds) 1",
          "1970-01-01 12:00:01  (1.0 elapsed seconds) 1"}},
        {"time that runs backwards",
         3,
         {{kNoon}, {kNoon + 4}, {kNoon - 2}},
         {kBeginsAtNoon, "1970-01-01 12:00:03  (3.0 elapsed seconds) 1",
          "1970-01-01 11:59:58  (-5.0 elapsed seconds) 2"}},
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
        {"no packet", 10, {}, {"1970-01-01 00:00:00  (0.0 elapsed seconds) 0"}},
    };
    for (const auto& [what, updateInterval, stamps, reports] : cases) {
        SCOPED_TRACE(what);
        snapshotSetStart({});
        EXPECT_EQ(readStamps(updateInterval, stamps), reports);
    }
}

TEST_F(OfflineRun, AnyPacketMovesTheClock) {
    const Bytes foreign = ethernetFrame(udpPacket({}, Bytes(8)));
    const Bytes ours = ethernetFrame(dataPacket({}, {}));
    EXPECT_EQ(readCapture(5, {{kNoon, 0, foreign}, {kNoon + 1, 0, ours}, {kNoon + 6, 0, foreign}}),
              (Lines{kBeginsAtNoon, "1970-01-01 12:00:05  (5.0 elapsed seconds) 1",
                     "1970-01-01 12:00:06  (1.0 elapsed seconds) 0"}));
}

}  // namespace
