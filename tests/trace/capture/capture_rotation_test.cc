#include "trace/capture/capture_rotation.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "tests/support/capture_file.h"
#include "tests/support/saving_run.h"
#include "tests/support/test.h"

namespace {

using Names = std::set<std::string>;

constexpr uint32_t kLimitBytes = 1000;
constexpr size_t kFrameBytes = kLimitBytes - kCaptureHeadBytes - kRecordHeadBytes;

struct CaptureRotation : SavingRun {
    CaptureRotation() {
        traceSettings.captureLimitBytes = kLimitBytes;
        open("cap");
    }

    static void rotations(int32_t count) {
        traceSettings.captureMaxRotations = count;
        captureRotationStart();
    }

    // A frame of one repeated byte; a file is known again by it.
    static void save(size_t sizeBytes, char mark) {
        handleFrame(Bytes(sizeBytes, static_cast<uint8_t>(mark)));
    }

    static void saveFullFile(char mark) { save(kFrameBytes, mark); }
};

TEST_F(CaptureRotation, SeesASizeThatThePositionDoesNotShow) {
    rotations(1);
    ASSERT_EQ(truncate(path.c_str(), kLimitBytes), 0);
    onRotationTimer();
    EXPECT_EQ(folder.names(), Names({"cap", "cap1"}));
}

TEST_F(CaptureRotation, SparesTheFileAndTriesAgainWhenTheRenameFails) {
    rotations(2);
    mkdir(folder.path("cap1").c_str(), 0700);
    const Lines told = {"failed to rename raw data file '" + path + "' to '" + path +
                        "1' during data file rotation."};
    for (const Lines& logged : {told, Lines()}) {
        saveFullFile('a');
        onRotationTimer();
        EXPECT_EQ(run.logged(), logged);
        EXPECT_EQ(folder.names(), Names({"cap", "cap1"}));
    }
    rmdir(folder.path("cap1").c_str());
    onRotationTimer();
    EXPECT_EQ(readFile(folder.path("cap1")).size(), 2 * kLimitBytes - kCaptureHeadBytes);
}

TEST_F(CaptureRotation, EndsSavingWhenTheFileCannotBeOpenedAnew) {
    for (const auto& [count, file] : {std::pair{2, "raw data"}, {0, "save"}}) {
        SCOPED_TRACE(count);
        ASSERT_TRUE(captureFileOpen(captureState.captureHandle, path.c_str()));
        rotations(count);
        saveFullFile('a');
        captureFileFlush();

        {
            const LowLimit noFiles(RLIMIT_NOFILE, 0);
            onRotationTimer();
        }
        EXPECT_FALSE(captureFileIsOpen());
        EXPECT_EQ(run.logged().back(),
                  std::string("failed to open ") + file + " file '" + path + "'");
        EXPECT_FALSE(captureFileIsComplete());
        saveFullFile('b');
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
        saveFullFile('a');
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
    constexpr size_t kSavedBytes = 100 + kRecordHeadBytes;
    rotations(100000);
    std::atomic<bool> enough = false;
    size_t frames = 0;
    std::thread capture([&enough, &frames] {
        for (; !enough; ++frames) {
            save(100, 'a');
            std::this_thread::yield();
        }
    });
    while (folder.names().size() <= kRotations) {
        onRotationTimer();
    }
    enough = true;
    capture.join();
    captureFileClose();

    size_t savedFrames = 0;
    for (const std::string& name : folder.names()) {
        const size_t recordBytes = readFile(folder.path(name)).size() - kCaptureHeadBytes;
        EXPECT_EQ(recordBytes % kSavedBytes, 0u) << name;
        savedFrames += recordBytes / kSavedBytes;
    }
    EXPECT_EQ(savedFrames, frames);
}

}  // namespace
