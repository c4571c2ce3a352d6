// What a connect goes by: the daemon's specification, a daemon that it starts, the frames by which
// both ends agree, the daemon's reply, the session's name, and the wait before the next connect.

#include "lib/transport/daemon/session.h"

#include <sys/stat.h>
#include <sys/wait.h>

#include <csignal>
#include <fstream>
#include <sstream>

#include "lib/transport/daemon/launch.h"
#include "lib/transport/daemon/reconnect.h"
#include "lib/transport/daemon/specification.h"
#include "lib/transport/ipq/hello.h"
#include "tests/support/local_bus.h"
#include "tests/support/misbehaving_daemon.h"
#include "tests/support/scratch_folder.h"

namespace {

// With what the inner message may say otherwise.
SessionReply readReply(bool innerDiffers) {
    const Message reply = newMessage(), data = newMessage();
    pelmoMsg *const outer = reply.get(), *const inner = data.get();
    (void)pelmoMsg_AddString(outer, "mtype", "Reply", 0);
    (void)pelmoMsg_AddString(outer, "gob", "outer", 0);
    (void)pelmoMsg_AddString(outer, "dtyp", "zOk", 0);
    (void)pelmoMsg_AddIPAddr32(inner, "ipaddr", htonl(0x7f000001), 0);
    (void)pelmoMsg_AddIPPort16(inner, "ipport", htons(7500), 0);
    (void)pelmoMsg_AddIPPort16(inner, "cid", htons(0x1a2b), 0);
    (void)pelmoMsg_AddI32(inner, "error", 0, 0);
    (void)pelmoMsg_AddI32(inner, "vmaj", 8, 0);
    (void)pelmoMsg_AddI32(inner, "vmin", 1, 0);
    (void)pelmoMsg_AddI32(inner, "vupd", -2, 0);
    if (innerDiffers) {
        (void)pelmoMsg_AddString(inner, "gob", std::string(100, 'g').c_str(), 0);
        (void)pelmoMsg_AddString(inner, "dtyp", "ZOKS", 0);
    }
    (void)pelmoMsg_AddMsg(outer, "data", inner, 0);
    SessionReply read = {};
    EXPECT_EQ(sessionReadReply(&read, outer), kStatusSuccess);
    return read;
}

TEST(Session, ReadsReplies) {
    const SessionReply read = readReply(false), other = readReply(true);
    EXPECT_TRUE(read.address == 0x7f000001 && read.port == 7500 && read.clientId == 0x1a2b);
    EXPECT_EQ(read.version, (DaemonVersion{8, 1, 0}));
    EXPECT_STREQ(read.gob, "outer");
    EXPECT_EQ(other.gob, std::string(kGobBytes - 1, 'g'));
    EXPECT_TRUE(read.isRouting && !other.isRouting);
}

TEST(Session, IsNamedByWhatTheDaemonSays) {
    const std::string most(kMostSessionChars - 15, 'g'), tooLong = most + "g";
    const struct {
        SessionParts parts;
        std::string name;  // empty: none can be made
    } rows[] = {
        {{0x7f000001, 0, 0, "G"}, "7F000001.G"},
        {{0x0a000001, 0, 0x2b, "G.H"}, "0A000001.U002B.G.H"},
        {{1, 0x1f40, 0x2b, "G"}, "00000001.P1F40.G"},
        {{1, 0, 1, most.c_str()}, "00000001.U0001." + most},
        {{1, 0, 1, tooLong.c_str()}, ""},
        {{1, 0, 0, ""}, ""},
        {{1, 0, 0, "G..H"}, ""},
        {{1, 0, 0, "*"}, ""},
        {{1, 0, 0, "G.>"}, ""},
    };
    for (const auto& [parts, name] : rows) {
        char session[kMostSessionChars + 1] = "";
        EXPECT_EQ(sessionName(session, parts), name.empty() ? kStatusInitFailed : kStatusSuccess);
        EXPECT_EQ(session, name);
    }
    char gob[kGobBytes];
    const auto* link = reinterpret_cast<const void*>(uintptr_t{0x5512345678a});
    sessionMakeGob(gob, {link, 0x1ffffffff, UINT32_MAX});
    EXPECT_STREQ(gob, "2345678AFFFFFFFFFFFFFFFF");
}

const std::string kLongHost(kMostHostChars, 'h');

const NameResolver kNames = {.host =
                                 [](const char* name, uint32_t* out) {
                                     *out = htonl(0x0a000007);
                                     return std::string(name) == "known" || kLongHost == name;
                                 },
                             .service =
                                 [](const char* name, const char*, uint16_t* out) {
                                     *out = htons(7600);
                                     return std::string(name) == "bus";
                                 }};

TEST(Specification, NamesTheDaemon) {
    struct Row {
        const char* argument;
        pelmoStatus status;
        const char* text = "";  // after defaulting; null: as given
        uint32_t address = 0;
        uint16_t port = 7500;
        bool namesHost = false;
        bool isSecure = false;
    };
    const std::string longest = kLongHost + ":7500", tooLong = "h" + longest;
    std::vector<Row> rows = {
        {nullptr, kStatusSuccess, "7500"},
        {"7501", kStatusSuccess, nullptr, 0, 7501},
        {":65535", kStatusSuccess, nullptr, 0, 65535},
        {"bus", kStatusSuccess, nullptr, 0, 7600},
        {"known:bus", kStatusSuccess, nullptr, 0x0a000007, 7600, true},
        {"127.0.0.1:7500", kStatusSuccess, nullptr, 0x7f000001, 7500, true},
        {"tcp::7500", kStatusSuccess, nullptr},
        {"tcp:1.2.3.4:7500", kStatusSuccess, nullptr, 0x01020304, 7500, true},
        {"ssl:known:7500", kStatusSuccess, nullptr, 0x0a000007, 7500, true, true},
        {longest.c_str(), kStatusSuccess, nullptr, 0x0a000007, 7500, true},
        {"-listen", kStatusNotPermitted},
    };
    for (const char* text : {"ipc:",        "ipc:7500",       "tcp:",
                             "ssl:",        "TCP:7500",       "tcp:ssl:7500",
                             ":",           "known:",         "0",
                             "65536",       "4294974796",     "7500x",
                             " 7500",       "+7500",          "known:7500:7501",
                             "1.2.3:7500",  "1.2.3.4.5:7500", "1.2.3.256:7500",
                             "1..2.3:7500", "unknown:7500",   tooLong.c_str()}) {
        rows.push_back({text, kStatusInvalidArgument});
    }
    for (const auto& row : rows) {
        SCOPED_TRACE(row.argument != nullptr ? row.argument : "null");
        DaemonSpecification parsed = {};
        DaemonAddress where = {};
        pelmoStatus status = specificationParse(&parsed, row.argument);
        if (status == kStatusSuccess) status = specificationResolve(&where, parsed, kNames);
        ASSERT_EQ(status, row.status);
        if (status != kStatusSuccess) continue;
        EXPECT_STREQ(parsed.text, row.text != nullptr ? row.text : row.argument);
        EXPECT_TRUE(ntohl(where.address) == row.address && ntohs(where.port) == row.port);
        EXPECT_TRUE(parsed.namesHost == row.namesHost && parsed.isSecure == row.isSecure);
    }
}

TEST(Reconnect, WaitsLongerForEachBreakInARow) {
    const struct {
        double now;
        uint32_t random;
        double seconds;
        uint32_t count;
    } rows[] = {
        {1000, 0, 0, 1},     {1001, 99, 0.099, 2}, {1002, 0, 1, 3},     {1061.9, 99, 2.099, 4},
        {1063, 50, 4.05, 5}, {1064, 0, 8, 6},      {1124, 7, 0.007, 1},  // a minute later
        {1125, 0, 0, 2},     {1187, 0, 0, 1},
    };
    BreakRow row = {};
    for (const auto& each : rows) {
        SCOPED_TRACE(each.now);
        EXPECT_DOUBLE_EQ(reconnectDelay(&row, each.now, each.random), each.seconds);
        EXPECT_EQ(row.count, each.count);
    }
    // A count that no program reaches: the shift goes round, and nothing overflows.
    row = {.count = 33, .lastSeconds = 5};
    EXPECT_DOUBLE_EQ(reconnectDelay(&row, 5, 0), 2147483648.0);
    EXPECT_DOUBLE_EQ(reconnectDelay(&row, 5, 0), 1.0);
    row.count = UINT32_MAX;
    EXPECT_DOUBLE_EQ(reconnectDelay(&row, 5, 3), 0.003);
}

TEST(Hello, AnswersByTheTerms) {
    constexpr uint32_t kMost = kHelloMostBytes;
    const std::pair<Frame, Frame> rows[] = {
        {{2, 2, 0, 1, kMost, kMost}, {3, 2, 0, 1, kMost, kMost}},
        {{2, 2, 7, 1, 100, 200}, {3, 2, 7, 1, 200, 100}},
        {{3, 2, 0, 1, kMost - 1, 5}, {1, 2, 0, 1, 5, kMost - 1}},
        {{3, 2, 0, 1, kMost + 1, 5}, {3, 2, 0, 1, 5, kMost}},
        {{3, 2, 0, 1, 5, UINT32_MAX}, {3, 2, 0, 1, kMost, 5}},
        {{2, 1, 0, 1, 5, 6}, {0, 1, 0, 1, 5, 6}},
        {{3, 2, 0, 2, 5, 6}, {0, 2, 0, 2, 5, 6}},
        {{1, 2, 0, 1, 5, 6}, {0, 2, 0, 1, 5, 6}},
        {{4, 2, 0, 1, 5, 6}, {0, 2, 0, 1, 5, 6}},
    };
    for (const auto& [from, to] : rows) {
        HelloFrame frame;
        std::ranges::copy(frameBytes(from), frame.bytes);
        ipqHelloNegotiate(&frame);
        EXPECT_TRUE(std::ranges::equal(frame.bytes, frameBytes(to))) << from.type << from.limitB;
    }
}

// What the program writes about itself to a named pipe, which ends when it does.
std::string writtenBy(const std::string& pipe, const std::string& script) {
    const std::string whole = "exec 3>'" + pipe + "'; " + script + " >&3";
    const char* const arguments[] = {"sh", "-c", whole.c_str(), nullptr};
    EXPECT_TRUE(launchProgram(arguments));
    std::ostringstream written;
    written << std::ifstream(pipe).rdbuf();
    return written.str();
}

TEST(Launch, SetsAProgramOnItsOwn) {
    const Folder folder;
    const std::string pipe = folder.path("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    constexpr int kInherited = 50;
    ASSERT_EQ(dup2(STDIN_FILENO, kInherited), kInherited);
    const auto former = std::signal(SIGPIPE, SIG_IGN);

    // Its process id, its session's and its group's, and its parent's: the test's own is none of
    // them.
    std::istringstream ids(writtenBy(pipe, "cut -d' ' -f1,4,5,6 /proc/$$/stat"));
    pid_t process = 0, parent = 0, group = 0, session = 0;
    ids >> process >> parent >> group >> session;
    EXPECT_TRUE(process > 0 && group == process && session == process);
    EXPECT_NE(parent, getpid());
    EXPECT_EQ(writtenBy(pipe, "links=$(cd /proc/$$/fd; readlink 0 1 2); echo $links"),
              "/dev/null /dev/null /dev/null\n");
    EXPECT_EQ(writtenBy(pipe, "test -e /proc/$$/fd/50 || echo closed"), "closed\n");
    // Among the first 31; the C library keeps two beyond them.
    const std::string ignored = writtenBy(pipe, "grep SigIgn /proc/$$/status");
    EXPECT_EQ(std::stoull(ignored.substr(ignored.find(':') + 1), nullptr, 16) & 0x7fffffff, 0u);

    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);  // no child is left, dead or alive
    std::signal(SIGPIPE, former);
    close(kInherited);
}

TEST(Launch, ReportsWhatCannotBeStarted) {
    const char* const unknown[] = {"pelmo-program-that-is-not-there", nullptr};
    EXPECT_FALSE(launchProgram(unknown));
    EXPECT_FALSE(launchDaemon(std::string(1000, '7').c_str()));
}

}  // namespace
