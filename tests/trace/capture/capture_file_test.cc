#include "trace/capture/capture_file.h"

#include <cstring>

#include "tests/support/capture_file.h"
#include "tests/support/saving_run.h"
#include "tests/support/test.h"

namespace {

constexpr size_t kFrameBytes = 1000;
constexpr size_t kSavedBytes = kRecordHeadBytes + kFrameBytes;
constexpr size_t kDiskBytes = 100'000;

struct CaptureFile : SavingRun {
    // Frames are told apart by their seconds.
    static void save(int32_t from, int32_t to) {
        const Bytes frame(kFrameBytes);
        for (int32_t number = from; number < to; ++number)
            captureFileSave({{number, 0}, kFrameBytes, kFrameBytes}, frame.data());
    }
};

// The frames of a capture, which must be whole.
std::vector<int32_t> framesOf(const std::string& text) {
    const std::string head = captureText({});
    EXPECT_EQ(text.substr(0, kCaptureHeadBytes), head);
    EXPECT_EQ((text.size() - kCaptureHeadBytes) % kSavedBytes, 0u);
    std::vector<int32_t> frames;
    for (size_t at = kCaptureHeadBytes; at + kSavedBytes <= text.size(); at += kSavedBytes) {
        int32_t number = 0;
        std::memcpy(&number, text.data() + at, sizeof number);
        frames.push_back(number);
    }
    return frames;
}

TEST_F(CaptureFile, HasWholeFramesOnAFullDiskAndGoesOn) {
    constexpr int32_t kLater = 1000;
    const FixedMonotonic clock(1000);
    open("save");
    {
        const LowLimit full(RLIMIT_FSIZE, kDiskBytes);
        save(0, kLater);
    }
    const std::string name = "save file '" + path + "'";
    EXPECT_EQ(run.logged(), Lines({"failed to write " + name +
                                   ": File too large; frames are lost "
                                   "until it can be written again."}));
    EXPECT_EQ(framesOf(readFile(path)).size(), kDiskBytes / kSavedBytes);

    save(kLater, kLater + 1);  // so soon nobody looks for room
    FixedMonotonic::set(1001);
    save(kLater + 1, kLater + 3);
    captureFileClose();
    const std::vector<int32_t> frames = framesOf(readFile(path));
    ASSERT_GT(frames.size(), 2u);
    EXPECT_EQ(frames.back(), kLater + 2);
    const size_t early = frames.size() - 2;
    for (size_t i = 0; i < early; ++i)
        EXPECT_EQ(frames[i], static_cast<int32_t>(i));
    EXPECT_EQ(run.logged(), Lines({name + " can be written again; " +
                                   std::to_string(kLater + 1 - early) + " frames were lost."}));
    EXPECT_FALSE(captureFileIsComplete());
}

TEST_F(CaptureFile, TakesFramesLargerThanItsBuffer) {
    constexpr bpf_u_int32 kHugeBytes = 200'000;
    open("save");
    save(0, 1);
    const Bytes huge(kHugeBytes, 7);
    captureFileSave({{1, 0}, kHugeBytes, kHugeBytes}, huge.data());
    save(2, 3);
    captureFileFlush();
    const size_t sizeBytes = readFile(path).size();
    EXPECT_EQ(sizeBytes, kCaptureHeadBytes + 2 * kSavedBytes + kRecordHeadBytes + kHugeBytes);
    EXPECT_EQ(captureFileBytes(), sizeBytes);
}

}  // namespace
