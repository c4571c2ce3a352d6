#include "lib/base/status.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace {

// Operators meet the texts in logs, programs the numbers in replies; both are for good.
TEST(Status, KeepsItsNumberAndText) {
    const std::pair<pelmoStatus, const char*> cases[] = {
        {0, "Success"},
        {27, "Not permitted"},
        {50, "Operation timed out"},
        {101, "Unable to compele data delivery"},
    };
    for (const auto& [status, text] : cases) {
        EXPECT_STREQ(pelmoStatus_GetText(status), text);
    }
}

TEST(Status, HasATextOfItsOwnOrNone) {
    const std::string none = "unrecognized status";
    size_t known = 0;
    for (pelmoStatus status = 0; status < 1000; ++status) {
        known += pelmoStatus_GetText(status) != none ? 1 : 0;
    }
    EXPECT_EQ(known, 61u);
    EXPECT_EQ(pelmoStatus_GetText(UINT32_MAX), none);
}

}  // namespace
