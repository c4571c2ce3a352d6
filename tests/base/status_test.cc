#include "lib/base/status.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// Operators meet the texts in logs, programs the numbers in replies; both are for good.
TEST(Status, KeepsItsNumberAndText) {
    const struct {
        pelmoStatus status, number;
        const char* text;
    } cases[] = {
        {kStatusSuccess, 0, "Success"},
        {kStatusInitFailed, 1, "Initialization failed"},
        {kStatusInvalidTransport, 2, "Invalid transport"},
        {kStatusInvalidArgument, 3, "Invalid argument"},
        {kStatusNotInitialized, 4, "Not Initialized"},
        {kStatusNoMemory, 19, "Memory allocation failed"},
        {kStatusNotPermitted, 27, "Not permitted"},
        {kStatusNotFound, 35, "Item not found"},
        {kStatusConversionFailed, 38, "Conversion failed"},
        {kStatusInvalidMessage, 42, "Invalid message"},
        {kStatusCorruptMessage, 45, "The contents of the message are corrupt"},
        {kStatusTimeout, 50, "Operation timed out"},
        {kStatusInvalidQueueGroup, 63, "Invalid queue group"},
        {kStatusOsError, 68, "OS error"},
        {kStatusDeliveryFailed, 101, "Unable to compele data delivery"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.status, c.number);
        EXPECT_STREQ(pelmoStatus_GetText(c.status), c.text);
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
