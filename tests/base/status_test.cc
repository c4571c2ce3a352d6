#include "lib/base/status.h"

#include <gtest/gtest.h>

#include <utility>

namespace {

// Operators meet the texts in logs, programs the numbers in replies; both are for good.
TEST(Status, KeepsItsNumberAndText) {
    const std::pair<pelmoStatus, const char*> cases[] = {
        {0, "Success"},
        {27, "Not permitted"},
        {50, "Operation timed out"},
        {101, "Unable to compele data delivery"},
        {103, "unrecognized status"},
        {UINT32_MAX, "unrecognized status"},
    };
    for (const auto& [status, text] : cases) {
        EXPECT_STREQ(pelmoStatus_GetText(status), text);
    }
}

}  // namespace
