#include "tests/support/capture_file.h"

#include <algorithm>

namespace {

constexpr uint32_t kMicrosecondMagic = 0xa1b2c3d4;
constexpr uint32_t kNanosecondMagic = 0xa1b23c4d;
constexpr uint32_t kVersion24 = 2u << 16 | 4u;  // two words of 16 bits

void append(std::string& text, Bytes bigEndian, bool keepOrder) {
    if (!keepOrder) std::reverse(bigEndian.begin(), bigEndian.end());
    text.append(bigEndian.begin(), bigEndian.end());
}

}  // namespace

std::string captureText(const std::vector<SavedFrame>& frames, const CaptureStyle& style) {
    std::string text;
    const auto word = [&](uint32_t value) { append(text, be32(value), style.bigEndian); };
    word(style.nanoseconds ? kNanosecondMagic : kMicrosecondMagic);
    append(text, be16(kVersion24 >> 16), style.bigEndian);
    append(text, be16(kVersion24 & 0xffff), style.bigEndian);
    for (const uint32_t value : {0u, 0u, style.snapshotBytes, style.linkType}) {
        word(value);
    }
    for (const SavedFrame& frame : frames) {
        const auto sizeBytes = static_cast<uint32_t>(frame.bytes.size());
        word(static_cast<uint32_t>(frame.seconds));
        word(frame.microseconds);
        word(sizeBytes);
        word(sizeBytes);
        text.append(frame.bytes.begin(), frame.bytes.end());
    }
    return text;
}
