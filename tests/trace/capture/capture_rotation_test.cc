#include "trace/capture/capture_rotation.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <set>
#include <string>
#include <thread>

#include "tests/support/capture_file.h"
#include "tests/support/capture_reset.h"
#include "tests/support/scratch_folder.h"
#include "tests/support/trace_run.h"
#include "trace/settings.h"

namespace {

using Names = std::set<std::string>;

constexpr uint32_t kLimitBytes = 1000;
constexpr size_t kFrameBytes = kLimitBytes - kCaptureHeadBytes - kRecordHeadBytes;

struct CaptureRotation : testing::Test {
    CaptureRotation() {
        traceSettings.writeFile = path.c_str();
        traceSettings.captureLimitBytes = kLimitBytes;
        captureState.captureHandle = pcap_open_dead(DLT_EN10MB, 65535);
        captureState.dumpHandle = openDump(captureState.captureHandle, path.c_str());
        captureState.savingFrames = true;
    }
    ~CaptureRotation() override {
        resetCapture();
        traceSettings = {};
    }

    // What is written so far is then in the file.
    static void closeFile() {
        closeDump(captureState.dumpHandle);
        captureState.dumpHandle = nullptr;
    }

    static void rotations(int32_t count) {
        traceSettings.captureMaxRotations = count;
        captureRotationStart();
    }

    // A frame of one repeated byte; a file is known again by it.
    static void save(size_t sizeBytes, char mark) {
        CaptureContext context = {[](SnapTime, const uint8_t*, size_t) {}};
        const Bytes frame(sizeBytes, static_cast<uint8_t>(mark));
        const auto caplen = static_cast<bpf_u_int32>(sizeBytes);
        const pcap_pkthdr header = {.ts = {}, .caplen = caplen, .len = caplen};
        frameHandler(reinterpret_cast<u_char*>(&context), &header, frame.data());
    }

    static void saveFullFile(char mark) { save(kFrameBytes, mark); }

    // The mark of the file's last frame; 0 for a file without frames, which must be whole.
    [[nodiscard]] char markOf(const std::string& name) const {
        const std::string text = readFile(folder.path(name));
        return text.size() > kCaptureHeadBytes ? text.back() : '\0';
    }

    TraceRun run;
    const Folder folder;
    const std::string path = folder.path("cap");
};

TEST_F(CaptureRotation, WaitsForTheLimitAndThenForTheNext) {
    rotations(3);
    save(kFrameBytes - 1, 'a');
    onRotationTimer();
    EXPECT_EQ(folder.names(), Names({"cap"}));

    save(20, 'b');
    onRotationTimer();
    EXPECT_EQ(folder.names(), Names({"cap", "cap1"}));
    EXPECT_EQ(markOf("cap1"), 'b');

    onRotationTimer();
    EXPECT_EQ(folder.names(), Names({"cap", "cap1"}));
}

TEST_F(CaptureRotation, SeesASizeThatThePositionDoesNotShow) {
    rotations(1);
    ASSERT_EQ(truncate(path.c_str(), kLimitBytes), 0);
    onRotationTimer();
    EXPECT_EQ(folder.names(), Names({"cap", "cap1"}));
}

TEST_F(CaptureRotation, RunsInARing) {
    writeFile(folder.path("cap1"), "of an earlier run");
    rotations(2);
    for (const char mark : {'a', 'b', 'c'}) {
        saveFullFile(mark);
        onRotationTimer();
    }
    EXPECT_EQ(folder.names(), Names({"cap", "cap1", "cap2"}));
    EXPECT_EQ(markOf("cap1"), 'c');
    EXPECT_EQ(markOf("cap2"), 'b');

    closeFile();
    EXPECT_EQ(readFile(path), captureText({}));
}

TEST_F(CaptureRotation, StartsOverWithoutNumberedFiles) {
    rotations(0);
    saveFullFile('a');
    saveFullFile('b');
    pcap_dump_flush(captureState.dumpHandle);
    onRotationTimer();
    EXPECT_EQ(captureState.captureBytes, 0u);
    saveFullFile('c');
    closeFile();
    EXPECT_EQ(folder.names(), Names({"cap"}));
    EXPECT_EQ(readFile(path).size(), kLimitBytes);
    EXPECT_EQ(markOf("cap"), 'c');
}

TEST_F(CaptureRotation, TriesTheSameNumberAgainWhenTheRenameFails) {
    rotations(2);
    mkdir(folder.path("cap1").c_str(), 0700);
    for (const char mark : {'a', 'b'}) {
        saveFullFile(mark);
        onRotationTimer();
        EXPECT_EQ(run.logged(), Lines({"failed to rename raw data file '" + path + "' to '" + path +
                                       "1' during data file rotation."}));
        EXPECT_EQ(folder.names(), Names({"cap", "cap1"}));
    }
    rmdir(folder.path("cap1").c_str());
    saveFullFile('c');
    onRotationTimer();
    EXPECT_EQ(markOf("cap1"), 'c');
}

TEST_F(CaptureRotation, EndsSavingWhenTheFileCannotBeOpenedAnew) {
    const struct {
        int32_t count;
        std::string complaint;
    } cases[] = {
        {2, "failed to open raw data file '"},
        {0, "failed to open save file '"},
    };
    for (const auto& [count, complaint] : cases) {
        SCOPED_TRACE(count);
        const std::string sub = folder.path("sub" + std::to_string(count));
        const std::string inside = sub + "/cap";
        mkdir(sub.c_str(), 0700);
        if (captureState.dumpHandle != nullptr) closeFile();
        captureState.dumpHandle = openDump(captureState.captureHandle, inside.c_str());
        traceSettings.writeFile = inside.c_str();
        rotations(count);
        saveFullFile('a');
        pcap_dump_flush(captureState.dumpHandle);

        // A folder of the name can't be opened, and one with a file in its way not be moved.
        unlink(inside.c_str());
        std::filesystem::create_directories(inside + "/x");
        traceSettings.captureLimitBytes = 1;  // a folder's size reaches that in any file system
        std::filesystem::create_directories(inside + "1/x");  // where count is 0, of no matter
        onRotationTimer();

        EXPECT_EQ(captureState.dumpHandle, nullptr);
        EXPECT_EQ(run.logged().back(), complaint + inside + "'");
        saveFullFile('b');
        onRotationTimer();
        EXPECT_EQ(run.logged(), Lines());
    }
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
    closeFile();

    size_t savedFrames = 0;
    for (const std::string& name : folder.names()) {
        const size_t recordBytes = readFile(folder.path(name)).size() - kCaptureHeadBytes;
        EXPECT_EQ(recordBytes % kSavedBytes, 0u) << name;
        savedFrames += recordBytes / kSavedBytes;
    }
    EXPECT_EQ(savedFrames, frames);
}

TEST_F(CaptureRotation, LeavesTheFileAloneInTheShutdown) {
    rotations(1);
    saveFullFile('a');
    captureState.shuttingDown = true;
    onRotationTimer();
    EXPECT_EQ(folder.names(), Names({"cap"}));
}

}  // namespace
