#include "trace/capture/capture_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <thread>

#include "tests/support/test.h"
#include "tests/support/trace_run.h"
#include "trace/capture/capture_rotation.h"

namespace {

constexpr size_t kFrameBytes = 1000;
constexpr size_t kSavedBytes = kRecordHeadBytes + kFrameBytes;
constexpr size_t kDiskBytes = 100'000;

struct CaptureFile : SavingRun {
    // Each frame has a second of its own.
    static void save(int32_t from, int32_t to, bpf_u_int32 sizeBytes = kFrameBytes) {
        const Bytes frame(sizeBytes);
        for (int32_t number = from; number < to; ++number)
            captureFileSave({{number, 0}, sizeBytes, sizeBytes}, frame.data());
    }
};

// The frames of a capture, which must be whole.
std::vector<int32_t> framesOf(const std::string& text) {
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

    save(kLater, kLater + 1);  // too soon to look for room again
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
    save(1, 2, kHugeBytes);
    save(2, 3);
    captureFileFlush();
    EXPECT_EQ(readFile(path).size(),
              kCaptureHeadBytes + 2 * kSavedBytes + kRecordHeadBytes + kHugeBytes);
}

using Names = std::set<std::string>;

constexpr uint32_t kLimitBytes = 1000;
constexpr size_t kFillingBytes = kLimitBytes - kCaptureHeadBytes - kRecordHeadBytes;

struct CaptureRotation : SavingRun {
    CaptureRotation() {
        traceSettings.captureLimitBytes = kLimitBytes;
        open("cap");
    }

    static void rotations(int32_t count) {
        traceSettings.captureMaxRotations = count;
        captureRotationStart();
    }

    static void saveFullFile() { handleFrame(Bytes(kFillingBytes)); }
};

TEST_F(CaptureRotation, SparesTheFileAndTriesAgainWhenTheRenameFails) {
    rotations(2);
    mkdir(folder.path("cap1").c_str(), 0700);
    const Lines refused = {"failed to rename raw data file '" + path + "' to '" + path +
                           "1' during data file rotation."};
    for (const Lines& logged : {refused, Lines()}) {
        saveFullFile();
        onRotationTimer();
        EXPECT_EQ(run.logged(), logged);
        EXPECT_EQ(folder.names(), Names({"cap", "cap1"}));
    }
    rmdir(folder.path("cap1").c_str());
    onRotationTimer();
    EXPECT_EQ(readFile(folder.path("cap1")).size(), 2 * kLimitBytes - kCaptureHeadBytes);
}

TEST_F(CaptureRotation, EndsSavingWhenTheFileCannotBeOpenedAgain) {
    for (const auto& [count, file] : {std::pair{2, "raw data"}, {0, "save"}}) {
        SCOPED_TRACE(count);
        ASSERT_TRUE(captureFileOpen(captureState.captureHandle, path.c_str()));
        rotations(count);
        saveFullFile();
        captureFileFlush();
        {
            const LowLimit noFiles(RLIMIT_NOFILE, 0);
            onRotationTimer();
        }
        EXPECT_FALSE(captureFileIsOpen());
        EXPECT_EQ(run.logged().back(),
                  std::string("failed to open ") + file + " file '" + path + "'");
        EXPECT_FALSE(captureFileIsComplete());
        saveFullFile();
        onRotationTimer();
        EXPECT_EQ(run.logged(), Lines());
        captureFileClose();
        EXPECT_EQ(run.logged(), Lines{"1 frames were not saved in '" + path + "'."});
    }
}

// The standard output may be a regular file, and /dev/stdout then is as large; but the link isn't
// the run's to move.
TEST_F(CaptureRotation, NeverMovesALinkOfTheSystem) {
    const int target = ::open(path.c_str(), O_RDWR | O_CREAT, 0600);
    const std::string link = "/proc/self/fd/" + std::to_string(target);
    traceSettings.writeFile = link.c_str();
    ASSERT_TRUE(captureFileOpen(captureState.captureHandle, link.c_str()));
    for (const int32_t count : {2, 0}) {
        rotations(count);
        saveFullFile();
        captureFileFlush();
        const uintmax_t size = std::filesystem::file_size(path);
        onRotationTimer();
        EXPECT_EQ(std::filesystem::file_size(path), size);
        EXPECT_EQ(run.logged(), Lines());
    }
    close(target);
}

TEST_F(CaptureRotation, LosesNoFrameThatComesMeanwhile) {
    constexpr size_t kRotations = 3;
    constexpr size_t kRecordBytes = 100 + kRecordHeadBytes;
    rotations(100000);
    std::atomic<bool> enough = false;
    size_t frames = 0;
    std::thread capture([&enough, &frames] {
        for (; !enough; ++frames) {
            handleFrame(Bytes(100));
            std::this_thread::yield();
        }
    });
    while (folder.names().size() <= kRotations)
        onRotationTimer();
    enough = true;
    capture.join();
    captureFileClose();

    size_t savedFrames = 0;
    for (const std::string& name : folder.names()) {
        const size_t recordBytes = readFile(folder.path(name)).size() - kCaptureHeadBytes;
        EXPECT_EQ(recordBytes % kRecordBytes, 0u) << name;
        savedFrames += recordBytes / kRecordBytes;
    }
    EXPECT_EQ(savedFrames, frames);
}

}  // namespace
