// A small well-behaved daemon in the test's own process, on sockets of its own: it greets, agrees,
// answers start messages, keeps what each client listens to, and passes messages on. Clients are
// heard in order, each by a thread.

#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "lib/transport/transport_links.h"
#include "tests/support/loopback_peer.h"
#include "tests/support/test.h"

struct pelmoMsg;

class TestDaemon : public NoCopy {
  public:
    struct Manners {
        uint32_t greeting = 4;
        DaemonVersion version = {8, 5, 2};
        std::string gob = "GOB";
        bool hangsUp = false;  // ahead of its greeting

        // Of one connection: after so many bytes it breaks, after so many messages it reads no
        // further. Negative: never.
        int32_t bytesUntilBreak = -1;
        int32_t messagesUntilDeaf = -1;
    };

    // On a free port of 127.0.0.1. `port` 0: any.
    explicit TestDaemon(uint16_t port = 0);
    ~TestDaemon();

    [[nodiscard]] uint16_t port() const { return ntohs(listener_.port); }
    [[nodiscard]] std::string specification() const { return std::to_string(port()); }

    // For the clients to come: the usual manners, changed.
    void behave(const std::function<void(Manners&)>& change);

    // To every client that listens to the subject.
    void send(const char* subject, const char* text);

    void breakConnections();

    // What came since the last call, each message as text: "start SESSION rc=true ..." with the
    // fields from there on, "L SUBJECT", "C SUBJECT", "SUBJECT {FIELDS}" or "{FIELDS}".
    std::vector<std::string> taken();

    // Returns what came once there are so many, or once one of them is the text.
    std::vector<std::string> await(size_t count);
    std::vector<std::string> await(const std::string& text);

    // Returns once so many connections were accepted in all, or are open.
    void awaitAccepted(size_t count);
    void awaitOpen(size_t count);

  private:
    struct Client;

    void accept();
    void serve(Client* client);
    bool open(Client* client, const Manners& manners);
    void take(Client* client, pelmoMsg* message, const Manners& manners);
    void passOn(pelmoMsg* message);
    bool reply(Client* client, const Manners& manners);

    LoopbackListener listener_;
    std::mutex mutex_;
    std::condition_variable changed_;
    Manners manners_;
    std::vector<std::string> told_;
    std::list<Client> clients_;
    size_t openCount_ = 0;
    size_t acceptedCount_ = 0;
    std::thread acceptor_;
};
