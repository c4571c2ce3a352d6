// What of the core and of JSON no whole run shows.

#include <gtest/gtest.h>

#include <cstring>

#include "tests/support/fail_alloc.h"
#include "watch/core/option_row.h"
#include "watch/core/progress.h"
#include "watch/core/text.h"
#include "watch/json/json_writer.h"

namespace {

TEST(Progress, TellsWhatIsDoneAndHowLongTheRestTakes) {
    constexpr uint64_t kGiga = 1'000'000'000;
    const struct {
        double seconds;
        SavedExtent extent;
        const char* text;
    } cases[] = {
        {0, {0, 100}, ""},
        {5, {500, 0}, ""},
        {10, {kGiga, 4 * kGiga}, " 25%  1.0 of 4.0 GB  0:30 left"},
        {10, {1'500'000, 3'000'000}, " 50%  1.5 of 3.0 MB  0:10 left"},
        {3600, {1, 40}, "  2%  1.0 of 40.0 bytes  2340:00 left"},
        {1e9, {1, 1000 * kGiga}, "  0%  0.0 of 1000.0 GB  5999:59 left"},
        {-1, {10, 20}, " 50%  10.0 of 20.0 bytes  0:00 left"},
        {9, {30, 20}, "100%  20.0 of 20.0 bytes  0:00 left"},
    };
    for (const auto& [seconds, extent, wanted] : cases) {
        char text[kProgressBytes];
        progressText(text, seconds, extent);
        EXPECT_STREQ(text, wanted);
    }
}

TEST(SafeText, IsCutAtACharactersEnd) {
    const struct {
        size_t sizeBytes;
        const char* wanted;
    } cases[] = {{1, ""},       {2, "a"},       {5, "a"},        {6, "a\\xff"},
                 {8, "a\\xff"}, {9, "a\\xff€"}, {20, "a\\xff€b"}};
    for (const auto& [sizeBytes, wanted] : cases) {
        std::string buffer(sizeBytes, '#');
        EXPECT_EQ(safeText("a\xff€b", buffer.data(), sizeBytes), wanted);
        EXPECT_EQ(buffer[std::strlen(wanted)], '\0');
    }
}

TEST(JsonBuffer, DropsAllWhereMemoryRunsOut) {
    SnapHeader snapshot{};
    size_t wholeBytes = 0;
    const size_t failing = eachAllocationFails([&] {
        JsonBuffer buffer;
        for (int i = 0; i < 1000; ++i) {
            jsonAppendObject(buffer, snapshot, &snapshot);
        }
        const bool failed = allocationsFailed() != 0;
        allocationsHeal();
        EXPECT_EQ(buffer.failed, failed);
        if (!failed) wholeBytes = buffer.text().size();
    });
    EXPECT_GT(failing, 2u);
    EXPECT_GT(wholeBytes, 1000000u);

    // A drain takes it in pieces, until it fails.
    static size_t drainedBytes;
    drainedBytes = 0;
    JsonBuffer buffer;
    buffer.drain = [](std::string_view text) { return (drainedBytes += text.size()) < 600000; };
    while (!buffer.failed) {
        jsonAppendObject(buffer, snapshot, nullptr);
    }
    EXPECT_GE(drainedBytes, 600000u);
    EXPECT_LT(drainedBytes, 900000u);
}

}  // namespace
