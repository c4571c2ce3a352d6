// A daemon that does what a script says, right or wrong: a port on the loopback, and a thread that
// plays one script a connection with plain system sockets.
//
//     MisbehavingDaemon daemon({greet() + hangUp(), goodSession() + serve()});
//     pelmoTransport_CreateNetwork(&transport, nullptr, nullptr, daemon.name().c_str());
//
// A script is a list of steps, and its end closes the connection, as does a step that the client
// doesn't let go on. The last script stands for all further connections, which are taken one by
// one.
//
// Threads: the steps run on the daemon's thread and end with the daemon. All else is for the
// test's.

#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/loopback_peer.h"
#include "tests/support/message_values.h"
#include "tests/support/test.h"

// One connection, as a step sees it. All calls answer false where the client has closed it, or the
// daemon ends.
class DaemonWire {
  public:
    [[nodiscard]] bool write(const Bytes& bytes);
    [[nodiscard]] bool read(size_t size, Bytes* out);

    // A message with its head; noted for the test.
    [[nodiscard]] bool readMessage(Bytes* out);

    // Lets time pass; ends early with the connection.
    [[nodiscard]] bool pause(int milliseconds);

    // Waits for the test's word.
    [[nodiscard]] bool awaitGate();

    void resetAtEnd();

  private:
    friend class MisbehavingDaemon;
    DaemonWire(class MisbehavingDaemon& owner, int connection)
        : daemon(owner), handle(connection) {}
    [[nodiscard]] bool await(short events, int milliseconds = -1);
    [[nodiscard]] bool readSome(size_t most, Bytes* out);

    class MisbehavingDaemon& daemon;
    int handle;
};

using DaemonStep = std::function<bool(DaemonWire&)>;
using DaemonScript = std::vector<DaemonStep>;

DaemonScript operator+(DaemonScript left, const DaemonScript& right);

class MisbehavingDaemon : public NoCopy {
  public:
    explicit MisbehavingDaemon(std::vector<DaemonScript> connections);
    ~MisbehavingDaemon();

    // "127.0.0.1:PORT"
    [[nodiscard]] std::string name() const;

    // Lets one gate go on, now or when it is reached.
    void openGate();

    // Further connections are refused.
    void stopListening();

    // Waits until there were so many; false where they don't come in ten seconds.
    [[nodiscard]] bool awaitConnections(size_t count);
    [[nodiscard]] bool awaitGates(size_t count);  // that connections have come to

    // What clients sent, with their heads, in order; keep-alives aside.
    [[nodiscard]] std::vector<Bytes> messages();
    [[nodiscard]] uint64_t bytesRead() const { return readBytes; }

  private:
    friend class DaemonWire;
    void run();
    [[nodiscard]] bool await(const std::function<bool()>& isTrue);

    LoopbackListener listener;
    std::vector<DaemonScript> scripts;
    OwnHandle stopRead, stopWrite;  // a byte in it ends the thread
    std::atomic<uint64_t> readBytes{0};

    std::mutex mutex;  // guards all below
    std::condition_variable changed;
    bool ending = false;
    size_t connections = 0;
    size_t gatesReached = 0;
    size_t gatesOpen = 0;
    std::vector<Bytes> received;

    std::thread thread;  // last: it uses all the rest
};

// Steps

struct Greeting {
    uint32_t first = 0;
    uint32_t version = 4;
};
[[nodiscard]] DaemonScript greet(const Greeting& greeting = {});
[[nodiscard]] DaemonScript takeAnswer();

struct Frame {
    uint32_t type = 2;
    uint32_t version = 2;
    uint16_t queueLimit = 0;
    uint16_t format = 1;
    uint32_t limitA = 0x4000000;
    uint32_t limitB = 0x4000000;
};
[[nodiscard]] Bytes frameBytes(const Frame& frame);
[[nodiscard]] DaemonScript sendFrame(const Frame& frame);
[[nodiscard]] DaemonScript takeFrame();
[[nodiscard]] DaemonScript takeMessage();

// A reply to a start message.
struct Reply {
    const char* without = "";  // the field that is left out
    const char* mtype = "R";
    int64_t error = -1;  // negative: none
};
[[nodiscard]] Bytes replyBytes(const Reply& reply = {});
[[nodiscard]] DaemonScript reply(const Reply& reply = {});

// A message of an application, with its envelope.
[[nodiscard]] Bytes messageBytes(const char* subject, const std::string& text);

[[nodiscard]] DaemonScript sendBytes(const Bytes& bytes);
[[nodiscard]] DaemonScript sendOneByOne(const Bytes& bytes);
[[nodiscard]] DaemonScript pauseFor(int milliseconds);
[[nodiscard]] DaemonScript gate();
[[nodiscard]] DaemonScript hangUp();
[[nodiscard]] DaemonScript reset();  // hangs up, and drops what is under way

// Neither reads nor writes until the client closes.
[[nodiscard]] DaemonScript silence();

// Reads all messages, and answers the close notice.
[[nodiscard]] DaemonScript serve();

// All up to the second start message.
[[nodiscard]] DaemonScript goodHandshake();
[[nodiscard]] DaemonScript goodSession();
