// A small well-behaved daemon in the test's own process: it greets, agrees, answers start messages,
// keeps what each client listens to, and passes messages on.

#pragma once

#include <set>

#include "lib/containers/subject.h"
#include "lib/containers/sublist.h"
#include "lib/msg/envelope_internal.h"
#include "lib/msg/text.h"
#include "tests/support/daemon_frame.h"
#include "tests/support/local_bus.h"

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
    struct Client : NoCopy {
        DaemonWire& wire;
        const Behaviour behaviour;
        SubjectList* interest = sublistCreate();

        Client(DaemonWire& connection, const Behaviour& how) : wire(connection), behaviour(how) {}
        ~Client() { sublistDestroy(interest); }
    };
    const uint16_t wantedPort;
    Behaviour behaviour;
    Texts noted;
    std::set<Client*> clients;
    DaemonFrame frame{[this](DaemonWire& wire, size_t) { serve(wire); }, wantedPort};

    void serve(DaemonWire& wire) {
        std::unique_lock lock(frame.mutex);
        Client client(wire, behaviour);
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
            if (kind == "L") (void)sublistAdd(client.interest, subject, &client, nullptr);
            if (kind == "C") (void)sublistRemove(client.interest, subject, nullptr, nullptr);
            noted.push_back(kind + " " + text);
        } else {
            if (isSent) passOnLocked(message, subject);
            if (isSent) (void)msgOpenEnvelope(message);
            noted.push_back(text + std::string(isSent ? " " : "") + shownText(message));
        }
        frame.changed.notify_all();
    }
    void passOnLocked(pelmoMsg* message, const uint8_t* subject) {
        const Bytes image = imageOf(message);
        for (const Client* client : clients) {
            if (sublistMatch(client->interest, subject) != nullptr) {
                (void)client->wire.write(image);
            }
        }
    }
};
