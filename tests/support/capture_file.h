// Capture files built byte by byte in libpcap's classic format, in either byte order.

#pragma once

#include "tests/support/packet_builder.h"

struct SavedFrame {
    int32_t seconds;
    uint32_t microseconds;
    Bytes bytes;
};

struct CaptureStyle {
    bool bigEndian = false;
    bool nanoseconds = false;  // fractions of time stamps are nanoseconds
    uint32_t snapshotBytes = 65535;
    uint32_t linkType = 1;  // Ethernet
};

constexpr size_t kCaptureHeadBytes = 24;
constexpr size_t kRecordHeadBytes = 16;

[[nodiscard]] std::string captureText(const std::vector<SavedFrame>& frames,
                                      const CaptureStyle& style = {});
