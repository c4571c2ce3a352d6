#include "lib/base/status.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

namespace {

// What operators meet in logs and programs in replies, once more by hand.
const std::map<pelmoStatus, std::string> kTexts = {
    {0, "Success"},
    {1, "Initialization failed"},
    {2, "Invalid transport"},
    {3, "Invalid argument"},
    {4, "Not Initialized"},
    {5, "Arguments conflict"},
    {16, "Could not resolve service specification"},
    {17, "Could not resolve network specification"},
    {18, "Could not resolve daemon specification"},
    {19, "Memory allocation failed"},
    {20, "Invalid subject"},
    {21, "Not connected to daemon"},
    {22, "Wrong version"},
    {23, "Subject collision detected"},
    {24, "Virtual circuit not connected"},
    {27, "Not permitted"},
    {30, "Invalid name"},
    {31, "Invalid type"},
    {32, "Invalid size"},
    {33, "Invalid field count"},
    {35, "Item not found"},
    {36, "Field id already in use"},
    {37, "Field id conflicts with existing field id"},
    {38, "Conversion failed"},
    {39, "Handlers 0-127 are reserved"},
    {40, "Encoder failed"},
    {41, "Decoder failed"},
    {42, "Invalid message"},
    {43, "Invalid field argument"},
    {44, "Invalid instance argument"},
    {45, "The contents of the message are corrupt"},
    {46, "Message text encodings do not match"},
    {50, "Operation timed out"},
    {51, "Operation interrupted"},
    {52, "Invalid dispatchable or not type queue or queue group"},
    {53, "Invalid dispatcher"},
    {60, "Invalid event"},
    {61, "Invalid callback"},
    {62, "Invalid queue"},
    {63, "Invalid queue group"},
    {64, "Invalid time interval"},
    {65, "Invalid IO source"},
    {66, "Invalid IO condition"},
    {67, "Socket limit reached"},
    {68, "OS error"},
    {70, "Insufficient buffer"},
    {71, "End of file reached"},
    {72, "Invalid file"},
    {73, "File not found"},
    {74, "IO operation failed"},
    {80, "Not file owner"},
    {90, "Too many neighbors"},
    {91, "Already exists"},
    {100, "Requested port already in-use"},
    {101, "Unable to compele data delivery"},
    {102, "Queue size limit reached"},
    {110, "Invalid content desc"},
    {111, "Invalid serialized buffer"},
    {115, "Descriptor not found"},
    {116, "The contents of the serialized buffer are corrupt"},
    {117, "Supported by in-process module library only"},
};

TEST(Status, HasItsTextOrNone) {
    EXPECT_EQ(kTexts.size(), 61u);
    for (pelmoStatus status = 0; status < 1000; ++status) {
        const auto found = kTexts.find(status);
        const std::string text = found != kTexts.end() ? found->second : "unrecognized status";
        EXPECT_EQ(pelmoStatus_GetText(status), text) << status;
    }
    EXPECT_STREQ(pelmoStatus_GetText(UINT32_MAX), "unrecognized status");
}

TEST(Status, NamesStandForTheirNumbers) {
    const struct {
        pelmoStatus status, number;
    } cases[] = {
        {kStatusInvalidTransport, 2}, {kStatusInvalidArgument, 3},   {kStatusNotInitialized, 4},
        {kStatusNoMemory, 19},        {kStatusNotPermitted, 27},     {kStatusInvalidType, 31},
        {kStatusNotFound, 35},        {kStatusConversionFailed, 38}, {kStatusInvalidMessage, 42},
        {kStatusCorruptMessage, 45},  {kStatusTimeout, 50},          {kStatusInvalidDispatcher, 53},
        {kStatusInvalidEvent, 60},    {kStatusInvalidQueue, 62},     {kStatusInvalidQueueGroup, 63},
        {kStatusOsError, 68},         {kStatusDeliveryFailed, 101},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.status, c.number);
    }
}

}  // namespace
