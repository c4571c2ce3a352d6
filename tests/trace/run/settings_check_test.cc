#include "trace/run/settings_check.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "tests/support/trace_run.h"
#include "trace/capture/capture_session.h"
#include "trace/settings.h"

namespace {

constexpr const char* kLists = "the filter of -addr, -src, -dst and -port";

TEST(SettingsCheck, RefusesFiltersThatTakeTooLongToCompile) {
    TraceRun run;
    const auto repeated = [](const char* unit, int times) {
        std::string text = "udp";
        for (int i = 0; i < times; ++i)
            text += unit;
        return text;
    };
    const struct {
        std::string filter;  // none: of the lists
        size_t addrs = 0;
        const char* refused = nullptr;  // none: accepted
    } cases[] = {
        {"", 100},
        {"", 10000, kLists},
        {repeated(" or (((((udp)))))", 200)},
        {repeated(" or host 10.0.0.1", 10000), 0, "-filter"},
        {"no filter at all" + std::string(2000, ' ')},  // libpcap refuses it later
    };
    for (const auto& [filter, addrs, refused] : cases) {
        SCOPED_TRACE(filter.substr(0, 60) + std::to_string(addrs));
        traceSettings.srcAddrs.assign(addrs, "10.200.200.200");
        traceSettings.builtFilter = buildFilter(traceSettings.srcAddrs, {}, {});
        traceSettings.filterText =
            filter.empty() ? traceSettings.builtFilter.c_str() : filter.c_str();
        EXPECT_EQ(validateFilter(), refused ? kStatusInvalidArgument : kStatusSuccess);
        const std::string why = ": too long for libpcap to compile in reasonable time.";
        EXPECT_EQ(run.logged(), refused ? Lines({refused + why}) : Lines());
    }
    traceSettings = {};
}

TEST(SettingsCheck, RefusesACaptureWhoseNumberedNamesWouldBeCut) {
    TraceRun run;
    for (const auto& [nameBytes, rotations, limitBytes, fits] : {std::tuple{257u, 99, 1u, true},
                                                                 {258u, 9, 1u, true},
                                                                 {258u, 10, 1u, false},
                                                                 {400u, 10, 0u, true},
                                                                 {400u, 0, 1u, true},
                                                                 {300u, 1, 1u, false}}) {
        const std::string path = "/" + std::string(nameBytes - 1, 'n');
        traceSettings.writeFile = path.c_str();
        traceSettings.captureMaxRotations = rotations;
        traceSettings.captureLimitBytes = limitBytes;
        EXPECT_EQ(validateFiles(), fits ? kStatusSuccess : kStatusInvalidArgument) << nameBytes;
        EXPECT_EQ(run.logged().size(), fits ? 0u : 1u);
    }
    traceSettings = {};
}

}  // namespace
