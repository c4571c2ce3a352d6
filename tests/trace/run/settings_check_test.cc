#include "trace/run/settings_check.h"

#include <gtest/gtest.h>

#include "tests/support/trace_run.h"
#include "trace/capture/capture_session.h"
#include "trace/settings.h"

namespace {

constexpr const char* kLists = "the filter of -addr, -src, -dst and -port";

TEST(SettingsCheck, RefusesFiltersThatTakeTooLongToCompile) {
    TraceRun run;
    using Texts = std::vector<const char*>;
    const auto built = [](size_t srcs, size_t dsts, size_t ports) {
        return buildFilter(Texts(srcs, "10.200.200.200"), Texts(dsts, "10.0.0.1"),
                           Texts(ports, "65535"));
    };
    const struct {
        std::string filter;
        const char* refused;  // none: accepted
    } cases[] = {
        {built(100, 100, 100), nullptr},
        {built(250, 250, 0), nullptr},
        {built(0, 0, 150), nullptr},
        {built(10000, 10000, 0), kLists},
        {built(0, 0, 400), kLists},
        {built(150, 150, 150), kLists},
        {std::string(3000, ' ') + "udp", nullptr},
        {std::string(3000, '('), "-filter"},
        {std::string(100000, '1'), "-filter"},
    };
    for (const auto& [filter, refused] : cases) {
        SCOPED_TRACE(filter.substr(0, 60));
        const bool explicitly = refused != kLists;
        traceSettings.builtFilter = explicitly ? "udp" : filter;
        traceSettings.filterText = explicitly ? filter.c_str() : traceSettings.builtFilter.c_str();
        EXPECT_EQ(validateFilter(), refused ? kStatusInvalidArgument : kStatusSuccess);
        const std::string why = ": too long for libpcap to compile in reasonable time.";
        EXPECT_EQ(run.logged(), refused ? Lines({refused + why}) : Lines());
    }
    traceSettings = {};
}

}  // namespace
