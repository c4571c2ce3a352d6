#include "lib/transport/socket/socket.h"

#include <fcntl.h>
#include <netinet/tcp.h>

#include <cstdlib>
#include <functional>
#include <thread>
#include <vector>

#include "lib/transport/socket/socket_internal.h"
#include "tests/runtime/event_stand.h"
#include "tests/support/loopback_peer.h"
#include "tests/support/test.h"

namespace {

constexpr uint32_t kTestClass = 4;

// A callback for one direction that counts, and does what a test asks for.
struct Caller {
    int calls = 0;
    int dones = 0;
    std::function<void()> act;

    static void call(Socket*, void* closure) {
        auto* const self = static_cast<Caller*>(closure);
        ++self->calls;
        if (self->act) self->act();
    }
    static void done(void* closure) { ++static_cast<Caller*>(closure)->dones; }
};

using Result = std::pair<SocketCode, std::string>;

Result readOf(Socket* socket, uint32_t size) {
    std::string bytes(size, '\0');
    uint32_t got = 0;
    const SocketCode code = socketRead(socket, bytes.data(), size, &got);
    return {code, bytes.substr(0, got)};
}

int optionOf(Socket* socket, int level, int name) {
    int value = -1;
    socklen_t size = sizeof(value);
    getsockopt(socketHandle(socket), level, name, &value, &size);
    return value;
}

void awaitPoll(Socket* socket) {
    EXPECT_TRUE(within(60, [&] {
        const LockGuard guard(socket->lock);
        return socket->polls != 0;
    }));
}

struct Sockets : testing::Test {
    ~Sockets() override {
        if (client != nullptr) socketDestroy(client);
    }

    SocketCode startConnect(uint16_t port, SocketMode mode = SocketMode::kNonBlocking) {
        if (client != nullptr) socketDestroy(client);
        client = nullptr;
        EXPECT_EQ(socketCreateClient(&client, classIndex, kFirstIoQueueId, false), kSocketDone);
        socketSetMode(client, mode);
        return socketConnect(client, kLoopbackHost, port);
    }

    void connect() {
        const SocketCode code = startConnect(listener.port);
        EXPECT_TRUE(code == kSocketDone || code == kSocketWouldBlock);
        EXPECT_EQ(socketWaitConnected(client, -1), kStatusSuccess);
        peer = listener.take();
    }

    // IO passes until it is true.
    bool passUntil(const std::function<bool()>& isTrue) const {
        for (int i = 0; i < 1'000 && !isTrue(); ++i) {
            stand.ioPass();
            dispatchAll(stand.queue);
        }
        return isTrue();
    }
    bool passUntilCalled(const Caller& caller, int calls) const {
        return passUntil([&] { return caller.calls >= calls; }) && caller.calls == calls;
    }
    void passes() const {
        for (int i = 0; i < 3; ++i)
            stand.ioPass();
    }

    EventStand stand;
    LoopbackListener listener;
    OwnHandle peer;
    Socket* client = nullptr;
    uint32_t classIndex = kPlainSocketClass;
    Caller reader, writer;
};

TEST_F(Sockets, ServeAndConnect) {
    setenv("PELMO_BINDADDR", "127.0.0.1", 1);
    Socket *server = nullptr, *second = nullptr, *accepted = nullptr;
    for (Socket** each : {&server, &second})
        ASSERT_EQ(socketCreateServer(each, kPlainSocketClass, kFirstIoQueueId, false), kSocketDone);
    EXPECT_EQ(socketAccept(server, &accepted, kFirstIoQueueId), kSocketWrongState);
    EXPECT_EQ(socketBind(server, kLoopbackHost, listener.port, false), kSocketOtherError);
    EXPECT_EQ(socketBind(server, kLoopbackHost, listener.port, true), kSocketDone);
    EXPECT_NE(socketBoundPort(server), listener.port);
    // Nor is it that of one that only has it yet.
    EXPECT_EQ(socketBind(second, kLoopbackHost, socketBoundPort(server), true), kSocketDone);
    EXPECT_NE(socketBoundPort(second), socketBoundPort(server));
    ASSERT_EQ(socketListen(server), kSocketDone);
    ASSERT_EQ(socketOnReadable(server, Caller::call, &reader), kStatusSuccess);
    EXPECT_EQ(socketAccept(server, &accepted, kFirstIoQueueId), kSocketWouldBlock);
    reader.act = [&] { EXPECT_EQ(socketAccept(server, &accepted, kFirstIoQueueId), kSocketDone); };

    (void)startConnect(socketBoundPort(server));
    EXPECT_TRUE(passUntilCalled(reader, 1));
    EXPECT_EQ(socketWaitConnected(client, 0), kStatusSuccess);
    EXPECT_EQ(socketPeerPort(client), socketBoundPort(server));
    EXPECT_EQ(socketPeerAddress(accepted), kLoopbackHost);
    for (Socket* socket : {server, client, accepted}) {
        EXPECT_NE(optionOf(socket, IPPROTO_TCP, TCP_NODELAY), 0);
        EXPECT_NE(fcntl(socketHandle(socket), F_GETFD) & FD_CLOEXEC, 0);
    }
    unsetenv("PELMO_BINDADDR");
    for (const bool isForbidden : {true, false}) {
        if (isForbidden) setenv("PELMO_DISABLE_SO_KEEPALIVE", "1", 1);
        EXPECT_EQ(socketSetKeepAlive(client, true), kStatusSuccess);
        unsetenv("PELMO_DISABLE_SO_KEEPALIVE");
        EXPECT_EQ(optionOf(client, SOL_SOCKET, SO_KEEPALIVE) == 0, isForbidden);
    }
    for (Socket* socket : {accepted, second, server})
        socketDestroy(socket);
}

// The first to see the end of a connect settles it, and one callback runs for it.
TEST_F(Sockets, ReportHowAConnectEnds) {
    const uint16_t refusing = LoopbackListener().port;
    for (const bool waits : {false, true}) {
        for (const bool refused : {false, true}) {
            reader = writer = {};
            (void)startConnect(refused ? refusing : listener.port);
            ASSERT_EQ(socketOnReadable(client, Caller::call, &reader), kStatusSuccess);
            ASSERT_EQ(socketOnWritable(client, Caller::call, &writer), kStatusSuccess);
            if (waits) {
                EXPECT_EQ(socketWaitConnected(client, -1),
                          refused ? kStatusEndOfFile : kStatusSuccess);
            }
            writer.act = [&] { EXPECT_EQ(socketCancelWritable(client, nullptr), kStatusSuccess); };
            EXPECT_TRUE(passUntil([&] { return (refused ? reader : writer).calls == 1; }));
            passes();
            EXPECT_EQ(reader.calls, refused ? 1 : 0);
            EXPECT_EQ(writer.calls, refused ? 0 : 1);
            EXPECT_EQ(readOf(client, 1).first, refused ? kSocketDisconnected : kSocketWouldBlock);
        }
    }
    // One that is set after a failure runs as well.
    (void)startConnect(refusing);
    EXPECT_EQ(socketWaitConnected(client, -1), kStatusEndOfFile);
    writer = {};
    ASSERT_EQ(socketOnWritable(client, Caller::call, &writer), kStatusSuccess);
    EXPECT_TRUE(passUntilCalled(writer, 1));
    EXPECT_EQ(startConnect(refusing, SocketMode::kBlocking), kSocketRefused);
    EXPECT_EQ(startConnect(listener.port, SocketMode::kBlocking), kSocketDone);
}

TEST_F(Sockets, HoldTheReaderBackForItsLeastBytes) {
    connect();
    ASSERT_EQ(socketSetMinRead(client, 4), kStatusSuccess);
    ASSERT_EQ(socketOnReadable(client, Caller::call, &reader), kStatusSuccess);
    reader.act = [&] { EXPECT_EQ(readOf(client, 4), (Result{kSocketDone, "abcd"})); };
    for (const char* text : {"abc", "de"}) {
        passes();
        EXPECT_EQ(reader.calls, 0);
        sendText(peer.number(), text);
    }
    EXPECT_TRUE(passUntilCalled(reader, 1));
    passes();
    EXPECT_EQ(reader.calls, 1);
    reader.act = [&] { socketClose(client); };
    peer.shut();  // four will never come
    EXPECT_TRUE(passUntilCalled(reader, 2));
}

// On an ordinary queue an entry may still wait when its socket is gone.
TEST_F(Sockets, MoveToAnotherQueueAndMayEndThere) {
    for (const bool endsByCallback : {true, false}) {
        connect();
        reader = {};
        reader.act = [&] { socketDestroy(std::exchange(client, nullptr)); };
        ASSERT_EQ(socketOnReadable(client, Caller::call, &reader), kStatusSuccess);
        ASSERT_EQ(socketSetQueue(client, stand.queue), kSocketDone);
        sendText(peer.number(), "x");
        passes();
        EXPECT_EQ(reader.calls, 0);
        EXPECT_EQ(countOf(stand.queue), 1u);
        if (!endsByCallback) reader.act();
        dispatchAll(stand.queue);
        EXPECT_EQ(reader.calls, endsByCallback ? 1 : 0);
    }
}

TEST_F(Sockets, ReportWhenACallbackHasEnded) {
    connect();
    Caller second, former, latter;
    ASSERT_EQ(socketOnReadable(client, Caller::call, &reader), kStatusSuccess);
    reader.act = [&] {
        EXPECT_EQ(socketCancelReadable(client, Caller::done), kStatusSuccess);
        EXPECT_EQ(reader.dones, 0);
        // Another one doesn't run, so its end is reported at once.
        EXPECT_EQ(socketOnReadable(client, Caller::call, &second), kStatusSuccess);
        EXPECT_EQ(socketCancelReadable(client, Caller::done), kStatusSuccess);
        EXPECT_EQ(second.dones, 1);
        EXPECT_EQ(socketOnReadable(client, Caller::call, &second), kStatusSuccess);
    };
    second.act = [&] { socketClose(client); };
    ASSERT_EQ(socketOnWritable(client, Caller::call, &former), kStatusSuccess);
    former.act = [&] {
        // One that was only replaced still runs: a cancel of the new one waits for its end.
        EXPECT_EQ(socketOnWritable(client, Caller::call, &latter), kStatusSuccess);
        EXPECT_EQ(socketCancelWritable(client, Caller::done), kStatusSuccess);
        EXPECT_EQ(latter.dones, 0);
    };
    EXPECT_TRUE(passUntilCalled(former, 1));
    EXPECT_EQ(latter.dones, 1);
    sendText(peer.number(), "x");
    EXPECT_TRUE(passUntilCalled(second, 1));
    EXPECT_EQ(reader.calls, 1);
    EXPECT_EQ(reader.dones, 1);
    EXPECT_EQ(second.dones, 1);  // a close reports nothing
    EXPECT_EQ(socketOnWritable(client, Caller::call, &writer), kStatusInvalidIoSource);
}

TEST_F(Sockets, EndBlockingReadsOnOtherThreads) {
    const MonotonicClock running(nullptr);  // the waits are real ones
    connect();
    socketSetMode(client, SocketMode::kFullyBlocking);
    std::thread writing([&] {
        for (const char* part : {"ab", "cd", "ef"}) {
            awaitPoll(client);
            sendText(peer.number(), part);
        }
    });
    EXPECT_EQ(readOf(client, 5), (Result{kSocketDone, "abcde"}));
    writing.join();
    socketSetDeadline(client, clockSteadySeconds() + 0.01);
    EXPECT_EQ(readOf(client, 5), (Result{kSocketWouldBlock, "f"}));
    socketSetDeadline(client, 0);

    for (void (*end)(Socket*) : {socketInterrupt, socketClose}) {
        connect();
        socketSetMode(client, SocketMode::kBlocking);
        const int handle = socketHandle(client);
        std::thread reading([&] {
            for (int times = 0; times < 2; ++times)
                EXPECT_EQ(readOf(client, 5).first, kSocketDisconnected);
        });
        awaitPoll(client);
        const uint32_t others = end == socketClose ? 1 : 0;  // polls that haven't returned yet
        {
            const LockGuard guard(client->lock);
            client->polls += others;
        }
        end(client);
        // What comes from here on must not be read: the descriptor may be another's by then.
        (void)send(peer.number(), "late", 4, MSG_NOSIGNAL);
        reading.join();
        EXPECT_GE(fcntl(handle, F_GETFD), 0);
        {
            const LockGuard guard(client->lock);
            client->polls -= others;
            if (others != 0) close(std::exchange(client->handle, -1));
        }
        socketClose(client);
        EXPECT_LT(fcntl(handle, F_GETFD), 0);
    }
}

// A class of the test's own: its functions and what they saw.
struct TestClass {
    int asked = 0;  // of a connection
    int begins = 1;
    SocketCode verdict = kSocketDone;
    std::vector<size_t> lengths;

    static inline TestClass* current = nullptr;

    static SocketCode begin(Socket* socket) {
        if (current->asked++ < current->begins) return kSocketWouldBlock;
        socketSetUserData(socket, current);
        return current->verdict;
    }
    static SocketCode sendVector(Socket* socket, const GatherList* list, uint32_t* out) {
        auto* const self = static_cast<TestClass*>(socketUserData(socket));
        self->lengths.clear();
        for (uint32_t i = 0; i < list->count; ++i)
            self->lengths.push_back(list->entries[i].iov_len);
        *out = list->total;
        return kSocketDone;
    }
};

struct SocketClasses : Sockets {
    SocketClasses() {
        TestClass::current = &own;
        static const uint32_t once = socketClassRegister({.index = kTestClass,
                                                          .connected = TestClass::begin,
                                                          .accepted = TestClass::begin,
                                                          .sendVector = TestClass::sendVector});
        EXPECT_EQ(once, 1u);
        classIndex = kTestClass;
    }
    TestClass own;
};

// What a class begins with goes on at each event of the direction that it waits for.
TEST_F(SocketClasses, BeginBeforeTheFirstByte) {
    own.begins = 2;
    (void)startConnect(listener.port);
    ASSERT_EQ(socketOnWritable(client, Caller::call, &writer), kStatusSuccess);
    EXPECT_TRUE(passUntil([&] { return own.asked == 1; }));
    peer = listener.take();
    passes();
    EXPECT_EQ(own.asked, 1);  // room to write isn't asked for
    EXPECT_EQ(readOf(client, 1).first, kSocketWouldBlock);
    {
        const MonotonicClock running(nullptr);  // the wait is a real one
        EXPECT_EQ(socketWaitConnected(client, 0.01), kStatusTimeout);
    }
    sendText(peer.number(), "x");
    EXPECT_TRUE(passUntilCalled(writer, 1));
    EXPECT_EQ(own.asked, 3);
    EXPECT_EQ(readOf(client, 9), (Result{kSocketDone, "x"}));

    own.asked = 0;
    own.verdict = kSocketOtherError;
    reader = {};
    (void)startConnect(listener.port);
    ASSERT_EQ(socketOnReadable(client, Caller::call, &reader), kStatusSuccess);
    socketSetCrossMode(client, SocketCrossMode::kReadNeedsWritable);
    EXPECT_TRUE(passUntilCalled(reader, 1));
    EXPECT_EQ(socketWaitConnected(client, -1), kStatusEndOfFile);
}

TEST_F(SocketClasses, WaitForTheReadinessOfTheirCrossMode) {
    own.begins = 0;
    connect();
    ASSERT_EQ(socketOnReadable(client, Caller::call, &reader), kStatusSuccess);
    ASSERT_EQ(socketOnWritable(client, Caller::call, &writer), kStatusSuccess);
    const struct {
        SocketCrossMode mode;
        bool readable;
        bool reads, writes;
    } cases[] = {
        {SocketCrossMode::kNormal, false, false, true},
        {SocketCrossMode::kWriteNeedsReadable, false, false, false},
        {SocketCrossMode::kReadNeedsWritable, false, true, false},
        {SocketCrossMode::kNormal, true, true, true},
        {SocketCrossMode::kWriteNeedsReadable, true, false, true},
    };
    for (const auto& c : cases) {
        if (c.readable) sendText(peer.number(), "x");
        EXPECT_EQ(socketSetCrossMode(client, c.mode), kStatusSuccess);
        passes();
        reader.calls = writer.calls = 0;
        passes();
        EXPECT_EQ(reader.calls != 0, c.reads) << static_cast<int>(c.mode);
        EXPECT_EQ(writer.calls != 0, c.writes) << static_cast<int>(c.mode);
    }
}

TEST_F(SocketClasses, GetNoMoreThanOneSendMayMove) {
    own.begins = 0;
    connect();
    const std::string bytes(kMostSendBytes + 1, 'x');
    GatherList list;
    ASSERT_TRUE(gatherInit(&list, 4));
    for (const uint32_t length : {0x10000u, kMostSendBytes + 1, 5u})
        ASSERT_TRUE(gatherAdd(&list, bytes.data(), length));
    uint32_t out = 0;
    EXPECT_EQ(socketWriteVector(client, &list, &out), kSocketDone);
    EXPECT_EQ(out, kMostSendBytes);
    EXPECT_EQ(own.lengths, (std::vector<size_t>{0x10000, 0x10000}));
    EXPECT_EQ(list.entries[1].iov_len, kMostSendBytes + 1);
    EXPECT_EQ(list.count, 3u);
    gatherDropBytes(&list, out);
    EXPECT_EQ(list.total, 0x10006u);
    EXPECT_EQ(list.count, 2u);

    gatherClear(&list);
    for (uint32_t i = 0; i < kMostSendEntries + 1; ++i)
        ASSERT_TRUE(gatherAdd(&list, bytes.data(), 1));
    EXPECT_EQ(socketWriteVector(client, &list, &out), kSocketDone);
    EXPECT_EQ(out, kMostSendEntries);
    socketSetMode(client, SocketMode::kFullyBlocking);
    EXPECT_EQ(socketWriteVector(client, &list, &out), kSocketWrongState);

    gatherFree(&list);
}

}  // namespace
