// The commands at work within this process, and what they are made of: lines, pace, latencies.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <latch>
#include <random>
#include <thread>

#include "bus/histogram.h"
#include "bus/line_input.h"
#include "bus/owned_message.h"
#include "bus/pace.h"
#include "bus/run_commands.h"
#include "bus/stop.h"

namespace {

constexpr uint32_t kLocal = kIntraProcessTransportId;

// The library open for the test's own sends, and the commands' as they run.
struct OpenLibrary {
    OpenLibrary() {
        static const pelmoStatus installed = stopInstall();
        EXPECT_EQ(installed, kStatusSuccess);
        EXPECT_EQ(pelmo_Open(), kStatusSuccess);
    }
    ~OpenLibrary() { pelmo_Close(); }
    OpenLibrary(const OpenLibrary&) = delete;
    OpenLibrary& operator=(const OpenLibrary&) = delete;
};

BusSettings localSettings(const char* subject, uint64_t count) {
    BusSettings settings;
    settings.local = true;
    settings.seconds = 60;  // a test that fails ends all the same
    settings.subjects.push_back(subject);
    settings.count = count;
    return settings;
}

void awaitListener(const char* subject) {
    while (pelmoTransport_HasInterest(kLocal, subject) == 0) {
        std::this_thread::yield();
    }
}

void sendOne(const char* subject, const char* reply, const char* text) {
    const OwnedMessage msg = messageMake();
    ASSERT_EQ(pelmoMsg_AddString(msg.get(), "t", text, 0), kStatusSuccess);
    ASSERT_EQ(pelmoMsg_SetSendSubject(msg.get(), subject), kStatusSuccess);
    if (reply != nullptr) {
        ASSERT_EQ(pelmoMsg_SetReplySubject(msg.get(), reply), kStatusSuccess);
    }
    ASSERT_EQ(pelmoTransport_Send(kLocal, msg.get()), kStatusSuccess);
}

// What the command prints, with its exit status behind it.
template <typename Body>
std::string outputOf(ExitStatus (*run)(const BusSettings&),
                     const BusSettings& settings,
                     Body body) {
    testing::internal::CaptureStdout();
    ExitStatus ended = kExitFailed;
    std::thread command([&] { ended = run(settings); });
    body();
    command.join();
    return testing::internal::GetCapturedStdout() + std::to_string(ended);
}

}  // namespace

TEST(BusRun, ListenPrintsALineForEachMessage) {
    const OpenLibrary library;
    BusSettings settings = localSettings("A.B", 2);
    settings.subjects.push_back("C.>");
    const auto send = [] {
        awaitListener("C.D");
        sendOne("A.B", nullptr, "two\nlines\x1b");
        sendOne("A", nullptr, "nobody's");
        sendOne("C.D", "_INBOX.7", "x");
        sendOne("A.B", nullptr, "one too many");
    };
    EXPECT_EQ(outputOf(runListen, settings, send),
              "A.B {t=\"two\\nlines\\x1b\"}\nC.D reply=_INBOX.7 {t=\"x\"}\n0");

    settings.json = true;
    settings.count = 3;
    EXPECT_EQ(outputOf(runListen, settings, send),
              "{\"subject\":\"A.B\",\"fields\":[{\"name\":\"t\",\"type\":\"string\",\"value\":"
              "\"two\\nlines\\u001b\"}]}\n"
              "{\"subject\":\"C.D\",\"reply\":\"_INBOX.7\",\"fields\":[{\"name\":\"t\",\"type\":"
              "\"string\",\"value\":\"x\"}]}\n"
              "{\"subject\":\"A.B\",\"fields\":[{\"name\":\"t\",\"type\":\"string\",\"value\":"
              "\"one too many\"}]}\n0");

    settings.count = 100;
    settings.seconds = 0.05;
    settings.quiet = true;
    EXPECT_EQ(outputOf(runListen, settings, [] {}), "3");
}

// An answer is the request's own fields, or those of the command line, and what was added to both.
TEST(BusRun, RequestsAreAnswered) {
    const OpenLibrary library;
    for (const bool hasFields : {false, true}) {
        BusSettings answers = localSettings("Q", 3);
        answers.quiet = true;
        answers.sequence = true;
        BusSettings requests = localSettings("Q", 3);
        requests.json = true;
        requests.sizeBytes = 1;
        ASSERT_EQ(textFieldParse("q=7", requests.fields.emplace_back()), "");
        if (hasFields) {
            ASSERT_EQ(textFieldParse("a:i8=1", answers.fields.emplace_back()), "");
        }

        ExitStatus asked = kExitFailed;
        std::string printed = outputOf(runAnswer, answers, [&] {
            awaitListener("Q");
            asked = runRequest(requests);
        });
        EXPECT_EQ(asked, kExitDone);
        EXPECT_EQ(printed.back(), '0');
        const std::string body = hasFields ? R"({"name":"a","type":"i8","value":1},)"
                                           : R"({"name":"q","type":"string","value":"7"},)"
                                             R"({"name":"pad","type":"opaque","value":"00"},)";
        EXPECT_NE(printed.find(body + R"({"name":"seq","type":"u64","value":3}]})"),
                  std::string::npos)
            << printed;
        EXPECT_EQ(std::ranges::count(printed, '\n'), 3);
    }
    BusSettings lonely = localSettings("NOBODY", 1);
    lonely.seconds = 0.01;
    EXPECT_EQ(runRequest(lonely), kExitUnanswered);
}

// Each message of a run is the same but for its number, and none is sent twice.
TEST(BusRun, SendNumbersItsMessages) {
    const OpenLibrary library;
    uint32_t queue = kNoId;
    uint32_t event = kNoId;
    std::string numbers;
    const auto take = [](uint32_t, pelmoMsg* msg, void* closure) {
        const char* text = nullptr;
        EXPECT_EQ(pelmoMsg_ConvertToString(msg, &text), kStatusSuccess);
        *static_cast<std::string*>(closure) += text;
    };
    ASSERT_EQ(pelmoQueue_Create(&queue), kStatusSuccess);
    ASSERT_EQ(pelmoEvent_CreateListener(&event, queue, take, kLocal, "S", &numbers),
              kStatusSuccess);
    BusSettings settings = localSettings("S", 70);
    settings.sequence = true;
    settings.sizeBytes = 2;
    ASSERT_EQ(textFieldParse("x=y", settings.fields.emplace_back()), "");
    EXPECT_EQ(runSend(settings), kExitDone);
    while (pelmoQueue_TimedDispatch(queue, 0) == kStatusSuccess) {
    }
    std::string expected;
    for (int i = 1; i <= 70; ++i) {
        expected += "{x=\"y\" pad=[2 opaque bytes] seq=" + std::to_string(i) + "}";
    }
    EXPECT_EQ(numbers, expected);
    pelmoEvent_DestroyEx(event, nullptr);
    pelmoQueue_DestroyEx(queue, nullptr, nullptr);
}

// Lines of any length, in pieces of any size, the last one without its break.
TEST(BusRun, LinesComeWholeOutOfPieces) {
    const OpenLibrary library;
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
    LineInput input;
    input.descriptor = ends[0];
    std::string_view line;
    const auto write = [&](std::string_view text) {
        EXPECT_EQ(::write(ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
    };
    EXPECT_EQ(lineInputNext(input, false, line), LineResult::kNone);
    write("one\n\ntw");
    EXPECT_EQ(lineInputNext(input, false, line), LineResult::kLine);
    EXPECT_EQ(line, "one");
    EXPECT_EQ(lineInputNext(input, false, line), LineResult::kLine);
    EXPECT_EQ(line, "");
    write("o\nthree");
    EXPECT_EQ(lineInputNext(input, true, line), LineResult::kLine);
    EXPECT_EQ(line, "two");
    close(ends[1]);
    EXPECT_EQ(lineInputNext(input, true, line), LineResult::kLine);
    EXPECT_EQ(line, "three");
    EXPECT_EQ(input.lineNumber, 4u);
    EXPECT_EQ(lineInputNext(input, true, line), LineResult::kEnd);
    close(ends[0]);
}

TEST(BusPace, HoldsTheRateWithoutDrift) {
    Pace pace = paceStart(3, 1000);
    std::mt19937 random(5);
    int64_t now = 1000;
    for (int i = 0; i < 30'000; ++i) {
        const int64_t due = paceDue(pace);
        EXPECT_LE(std::abs(due - (1000 + i * kSecond / 3)), i / 1'000'000 + 10);
        // Each send is late, by up to almost an interval.
        now = std::max(now, due) + static_cast<int64_t>(random() % (330 * kMillisecond));
        paceNext(pace, now);
    }
    // A stall isn't caught up with: the next one is due an interval from now.
    now = paceDue(pace) + 60 * kSecond;
    paceNext(pace, now);
    EXPECT_NEAR(static_cast<double>(paceDue(pace) - now), kSecond / 3.0, 2);
    EXPECT_EQ(paceDue(paceStart(0, 1000)), 0);
    EXPECT_EQ(paceDue(Pace{1e-300, 0, 1}), kNever);
}

TEST(BusHistogram, IsWithinAPartOfTheTruth) {
    std::mt19937_64 random(11);
    Histogram histogram;
    std::vector<uint64_t> values;
    EXPECT_EQ(histogramAt(histogram, 0.5), 0u);
    for (int i = 0; i < 20'000; ++i) {
        values.push_back(random() >> random() % 64);
        histogramAdd(histogram, values.back());
    }
    for (const uint64_t edge : {uint64_t{0}, uint64_t{255}, uint64_t{256}, UINT64_MAX}) {
        values.push_back(edge);
        histogramAdd(histogram, edge);
    }
    std::ranges::sort(values);
    for (const double part : {0.0, 0.001, 0.1, 0.25, 0.5, 0.9, 0.99, 0.999, 1.0}) {
        const auto rank = static_cast<size_t>(std::ceil(part * static_cast<double>(values.size())));
        const uint64_t truth = values[rank != 0 ? rank - 1 : 0];
        const uint64_t found = histogramAt(histogram, part);
        EXPECT_GE(found, truth);
        EXPECT_LE(found - truth, truth / 128);
        EXPECT_TRUE(found == truth || truth >= 256);
    }
    EXPECT_EQ(histogram.least, 0u);
    EXPECT_EQ(histogram.most, UINT64_MAX);
}
