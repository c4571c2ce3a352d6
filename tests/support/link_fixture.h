// An open library whose links to daemons take time, random numbers and timers from the test: no
// test waits for a delay, and a timer fires when the test says so, on the test's thread. And a
// small well-behaved daemon in the test's own process: it greets, agrees, answers start messages,
// keeps what each client listens to, and passes messages on.

#pragma once

#include <atomic>
#include <set>

#include "lib/base/clock.h"
#include "lib/base/cond.h"
#include "lib/containers/subject.h"
#include "lib/msg/envelope_internal.h"
#include "lib/msg/text.h"
#include "lib/pelmo.h"
#include "lib/transport/daemon/link_environment.h"
#include "tests/support/misbehaving_daemon.h"

class LinkFixture : NoCopy {
  public:
    struct Timer {
        uint32_t id;
        double seconds;
        pelmoEventCallback callback;
        void* closure;
    };

    std::atomic<double> now = 1000;
    std::atomic<uint32_t> random = 0;
    std::function<bool(const std::string&)> onLaunch;  // null: no program is found
    std::function<void()> onSleep;                     // in place of a sleep

    LinkFixture() {
        current = this;
        EXPECT_EQ(pelmo_Open(), kStatusSuccess);
        former = linkEnvironment;
        linkEnvironment.now = [] { return current->now.load(); };
        linkEnvironment.random = [](uint32_t) { return current->random.load(); };
        linkEnvironment.createTimer = createTimer;
        linkEnvironment.destroyTimer = destroyTimer;
        linkEnvironment.wait = wait;
        linkEnvironment.names.host = [](const char*, uint32_t*) { return false; };
        linkEnvironment.launch = [](const char* specification) {
            return current->onLaunch && current->onLaunch(specification);
        };
    }
    ~LinkFixture() {
        if (libraryIsOpen()) pelmo_Close();
        linkEnvironment = former;
        current = nullptr;
    }

    size_t timers() {
        const std::lock_guard guard(mutex);
        return armed.size();
    }

    // The next timer that is set, which then counts as fired but isn't run.
    Timer awaitTimer() {
        std::unique_lock lock(mutex);
        EXPECT_TRUE(
            changed.wait_for(lock, std::chrono::seconds(30), [&] { return !armed.empty(); }));
        return armed.empty() ? Timer{} : armed.front();
    }
    static void fire(const Timer& timer) { timer.callback(timer.id, nullptr, timer.closure); }

  private:
    static inline LinkFixture* current = nullptr;
    LinkEnvironment former;
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Timer> armed;
    uint32_t nextTimer = 1;

    static pelmoStatus createTimer(
        uint32_t* out, uint32_t queue, pelmoEventCallback callback, double seconds, void* closure) {
        EXPECT_EQ(queue, kWorkQueueId);
        const std::lock_guard guard(current->mutex);
        *out = current->nextTimer++;
        current->armed.push_back({*out, seconds, callback, closure});
        current->changed.notify_all();
        return kStatusSuccess;
    }
    static pelmoStatus destroyTimer(uint32_t timer, pelmoEventCompletion) {
        const std::lock_guard guard(current->mutex);
        EXPECT_EQ(std::erase_if(current->armed, [&](const Timer& t) { return t.id == timer; }), 1u);
        return kStatusSuccess;
    }
    static pelmoStatus wait(Cond* cond, Lock* lock, double seconds) {
        if (!current->onSleep) return Cond_TimedWait(cond, lock, seconds);
        current->onSleep();
        return kStatusTimeout;
    }
};

class TestDaemon : NoCopy {
  public:
    struct Behaviour {
        DaemonVersion version = {8, 5, 2};
        std::string gob = "GOB";

        // Of one connection: after so many bytes of the session it breaks, after so many messages
        // it reads no further.
        size_t bytesUntilBreak = SIZE_MAX;
        size_t messagesUntilDeaf = SIZE_MAX;
    };

    // On a free port of 127.0.0.1. `port` 0: any.
    explicit TestDaemon(uint16_t port = 0) : wantedPort(port) {}

    [[nodiscard]] uint16_t port() const { return ntohs(frame.listener.port); }
    [[nodiscard]] std::string specification() const { return std::to_string(port()); }

    // For the clients to come: the usual behaviour, changed.
    void behave(const std::function<void(Behaviour&)>& change) {
        const std::lock_guard guard(frame.mutex);
        behaviour = {};
        change(behaviour);
    }

    void breakConnections() { frame.breakConnections(); }

    // What came since the last call, each message as text: "start SESSION rc=true ..." with the
    // fields from there on, "L SUBJECT", "C SUBJECT", "SUBJECT {FIELDS}" or "{FIELDS}".
    Texts taken() {
        const std::lock_guard guard(frame.mutex);
        return std::exchange(noted, {});
    }

    // Returns what came once there are so many, or once one of them is the text.
    Texts await(size_t count) {
        EXPECT_TRUE(frame.await([&] { return noted.size() >= count; }));
        return taken();
    }
    Texts await(const std::string& text) {
        EXPECT_TRUE(frame.await([&] { return std::ranges::count(noted, text) != 0; })) << text;
        return taken();
    }

    // Returns once so many connections were accepted in all, or are open.
    void awaitAccepted(size_t count) {
        EXPECT_TRUE(frame.await([&] { return frame.acceptedCount >= count; }));
    }
    void awaitOpen(size_t count) {
        EXPECT_TRUE(frame.await([&] { return frame.openCount == count; }));
    }

  private:
    struct Client {
        DaemonWire& wire;
        const Behaviour behaviour;
        std::set<std::string> interest{};
    };
    const uint16_t wantedPort;
    Behaviour behaviour;
    Texts noted;
    std::set<Client*> clients;
    DaemonFrame frame{[this](DaemonWire& wire, size_t) { serve(wire); }, wantedPort};

    void serve(DaemonWire& wire) {
        std::unique_lock lock(frame.mutex);
        Client client{wire, behaviour};
        clients.insert(&client);
        lock.unlock();
        Bytes image;
        if (agree(wire)) {
            wire.bytesLeft = client.behaviour.bytesUntilBreak;
            for (size_t count = 0; count != client.behaviour.messagesUntilDeaf; ++count) {
                if (!wire.readMessage(&image) || loadBe32At(image.data()) == 0) break;
                const Message message = messageFrom(image);
                lock.lock();
                takeLocked(client, message.get());
                lock.unlock();
                if (count + 1 == client.behaviour.messagesUntilDeaf) (void)wire.pause(-1);
            }
        }
        lock.lock();
        clients.erase(&client);
    }
    static bool agree(DaemonWire& wire) {
        Bytes answer, frame;
        const bool agrees = wire.write(greetingBytes()) && wire.read(kGreetingSize, &answer) &&
                            wire.write(frameBytes()) && wire.read(kFrameSize, &frame) &&
                            wire.write(frameBytes({.type = 1}));
        EXPECT_TRUE(!agrees || answer == be32(0) + be32(4) + be32(1)) << "a daemon of this host";
        return agrees;
    }

    static std::string fieldOf(pelmoMsg* message, const char* name) {
        const char* text = nullptr;
        return pelmoMsg_GetString(message, name, &text, 0) == kStatusSuccess ? text : "";
    }
    void takeLocked(Client& client, pelmoMsg* message) {
        const std::string kind = fieldOf(message, "mtype");
        const uint8_t* subject = nullptr;
        const bool isSent = pelmoMsg_GetSubject(message, "sub", &subject, 0) == kStatusSuccess;
        char text[kSubjectTextBytes] = "";
        if (isSent) (void)subjectToText(text, sizeof text, subject);
        if (kind == "I") {
            (void)client.wire.write(replyBytes(
                {.gob = client.behaviour.gob.c_str(), .version = client.behaviour.version}));
            const std::string all = shownText(message);
            noted.push_back("start " + fieldOf(message, "session") + " " +
                            all.substr(all.find("rc=")));
        } else if (kind == "L" || kind == "C") {
            if (kind == "L") client.interest.insert(text);
            if (kind == "C") client.interest.erase(text);
            noted.push_back(kind + " " + text);
        } else {
            if (isSent) passOnLocked(message, text);
            if (isSent) (void)msgOpenEnvelope(message);
            noted.push_back(text + std::string(isSent ? " " : "") + shownText(message));
        }
        frame.changed.notify_all();
    }
    // To those who listen to the subject itself, or to all.
    void passOnLocked(pelmoMsg* message, const char* subject) {
        const Bytes image = imageOf(message);
        for (const Client* client : clients) {
            if (client->interest.contains(subject) || client->interest.contains(">")) {
                (void)client->wire.write(image);
            }
        }
    }
};

// A network transport, its daemon, and a queue that the test dispatches.

inline const std::string kSession = "7F000001.U002A.GOB";
inline const std::string kOwnInboxes = "L _INBOX." + kSession + ".>";
inline const Texts kFirstWords = {"start  rc=true}", "start " + kSession + " rc=true}",
                                  kOwnInboxes};
inline const Texts kNextWords = {kFirstWords[1], kFirstWords[1], kOwnInboxes};

inline std::string textMessage(const std::string& subject, const std::string& text) {
    return subject + " {text=\"" + text + "\"}";
}

using Behaviour = TestDaemon::Behaviour;

struct Link : testing::Test {
    LinkFixture fixture;
    TestDaemon daemon;
    uint32_t queue = 0;
    uint32_t id = kNoId;

    void SetUp() override { ASSERT_EQ(pelmoQueue_Create(&queue), kStatusSuccess); }
    void TearDown() override {
        if (id != kNoId) {
            EXPECT_EQ(pelmoTransport_Destroy(id), kStatusSuccess);
        }
        EXPECT_EQ(fixture.timers(), 0u);
    }
    pelmoStatus create(const char* service = nullptr, const char* prefix = "") {
        return pelmoTransport_CreateNetwork(&id, service, nullptr,
                                            (prefix + daemon.specification()).c_str());
    }
    void connect() {
        ASSERT_EQ(create(), kStatusSuccess);
        EXPECT_EQ(daemon.await(3), kFirstWords);
    }
    // What the daemon has heard since the last call.
    Texts heard() {
        EXPECT_EQ(sendText(id, "END", "."), kStatusSuccess);
        Texts texts = daemon.await(textMessage("END", "."));
        texts.pop_back();
        return texts;
    }
    // Hands the transport what comes from outside.
    void arrive(const std::vector<std::pair<std::string, const char*>>& subjectsAndTexts) const {
        std::vector<pelmoMsg*> batch;
        for (const auto& [subject, text] : subjectsAndTexts)
            batch.push_back(messageOn(subject.c_str(), text).release());
        Transport_DeliverBatch(recordOf<Transport>(id), batch);
        dispatchAll(queue);
    }
    void breakAndRepair() {
        daemon.breakConnections();
        fixture.fire(fixture.awaitTimer());
    }
    void dispatchUntil(const TestListener& listener, size_t count) const {
        while (listener.texts.size() < count) {
            ASSERT_EQ(pelmoQueue_TimedDispatch(queue, 30), kStatusSuccess);
        }
    }
};
