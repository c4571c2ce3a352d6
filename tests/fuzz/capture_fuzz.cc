// A capture of any bytes: each frame that the reader hands on lies within its bounds, and peels to
// a packet that lies within the frame.

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>

#include "tests/fuzz/fuzz.h"
#include "watch/capture/capture_reader.h"
#include "watch/capture/peel.h"

namespace {

// Whatever a compressed input becomes, it is read for so long.
constexpr size_t kMostFrames = 20000;

uint64_t sumOf(std::span<const uint8_t> bytes) {
    uint64_t sum = 0;
    for (const uint8_t byte : bytes)
        sum += byte;
    return sum;
}

void checkFrame(const CaptureFrame& frame) {
    const std::span<const uint8_t> bytes(frame.bytes, frame.capturedBytes);
    require(frame.wireBytes >= frame.capturedBytes && frame.capturedBytes <= (66 << 10));
    for (const uint16_t linkType :
         {frame.linkType, uint16_t{kLinkEthernet}, uint16_t{kLinkRaw}, uint16_t{kLinkCooked2}}) {
        const PeeledFrame peeled = peelFrame(bytes, frame.wireBytes, linkType);
        require(peeled.reason != NotRead::kFiltered);
        const bool isPlainBus = frameIsPlainBus(bytes, frame.wireBytes, linkType);
        require(!isPlainBus || (peeled.reason == NotRead::kNothing && peeled.isPlain));
        if (peeled.ip.empty()) continue;
        require(peeled.ip.size() >= 20 && peeled.ip.data() >= bytes.data() &&
                peeled.ip.data() + peeled.ip.size() <= bytes.data() + bytes.size());
        volatile uint64_t read = sumOf(peeled.ip);
        (void)read;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static std::atomic<bool> stopped = false;
    const int file = memfd_create("capture", MFD_CLOEXEC);
    require(file >= 0 && write(file, data, size) == static_cast<ssize_t>(size));
    require(lseek(file, 0, SEEK_SET) == 0);
    const OwnedCaptureReader reader = captureReaderOpen(file, stopped);
    require(reader != nullptr);
    CaptureFrame frame;
    for (size_t count = 0; count < kMostFrames; ++count) {
        if (captureReaderNext(*reader, &frame) != ReadResult::kFrame) break;
        checkFrame(frame);
    }
    // With what the head said, and with what it might have said.
    const CaptureClock found = captureReaderClock(*reader).value_or(CaptureClock{true, true, 1, 0});
    for (const bool isPcapng : {false, true}) {
        const CaptureClock clock = {isPcapng, found.isSwapped, found.ticksASecond,
                                    found.offsetSeconds};
        (void)captureTailSeconds({data, std::min(size, kCaptureTailBytes)}, clock);
    }
    return 0;
}
