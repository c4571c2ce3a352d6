// The interface that transports need from the floors that carry messages out of the process: the
// daemon connection, the reliable endpoint, virtual circuits. Each floor fills its table when it is
// linked in; while a table is empty, no transport of that kind can be made.
//
// Locks: a function is called with a reference to the transport held and, unless the table says
// otherwise, without its object lock: the transport may have changed when it returns.
//
// Failure: statuses are passed on to the application unchanged.

#pragma once

#include <cstdint>
#include <span>

#include "lib/base/status.h"
#include "lib/runtime/send_losses.h"

struct pelmoDirectTraffic;
struct pelmoMsg;
struct ReliableEndpoint;
struct Transport;
struct VirtualCircuit;

struct DaemonVersion {
    uint32_t major, minor, update;

    auto operator<=>(const DaemonVersion&) const = default;
};

// The connection's own record.
struct DaemonLink;

// Texts of a connection, constant and valid as long as it.
struct DaemonLinkTexts {
    const char* session;  // the elements of an inbox between "_INBOX" and its number
    const char* daemon;   // as given, after defaulting
};

// An inbox prefix holds no longer one, and a connection whose session would be longer isn't made.
inline constexpr uint32_t kMostSessionChars = 55;

// What was sent and hasn't left yet, and what breaks have lost since the link was made.
struct DaemonLinkUnsent {
    SendLosses waiting;
    SendLosses lost;
};

struct DaemonLinkOps {
    // Connects for a transport without a link, which keeps what it gets. The object lock is held
    // once, released while the call waits, and held again when it returns. `daemon` may be null.
    // `resume`: may the daemon resume what an earlier connection left unfinished? A failed connect
    // may leave a link, too: callbacks of the broken connection can still be running, so that it
    // ends with the transport.
    pelmoStatus (*create)(DaemonLink** out, Transport* transport, const char* daemon, bool resume);

    DaemonLinkTexts (*texts)(const DaemonLink* link);

    // Frees the link of a transport whose last reference is gone.
    void (*destroy)(DaemonLink* link);

    // Sends what is still waiting; a connect that is under way ends, and no other starts. Gives up
    // at the deadline, on the steady clock, or once nothing has moved for a time of its own.
    SendLosses (*stop)(Transport* transport, double deadline);

    // kStatusDaemonNotConnected while there is no connection. Messages are borrowed. `*taken`: how
    // many of the first ones may have left, on failure too.
    pelmoStatus (*send)(Transport* transport, pelmoMsg* message);
    pelmoStatus (*sendVector)(Transport* transport,
                              std::span<pelmoMsg* const> messages,
                              uint32_t* taken);

    // A setting that has changed, for daemons of that version and above; others aren't sent it.
    // Without a connection nothing is lost: the next one begins with the settings as they are.
    pelmoStatus (*control)(Transport* transport, pelmoMsg* message, DaemonVersion since);

    DaemonLinkUnsent (*unsent)(Transport* transport);

    pelmoStatus (*hold)(Transport* transport);
    pelmoStatus (*flush)(Transport* transport);
    pelmoStatus (*setBatchMode)(Transport* transport, uint32_t mode);
    pelmoStatus (*setBlocking)(Transport* transport, bool blocking);
    pelmoStatus (*setWaitLimit)(Transport* transport, uint32_t limit);
    pelmoStatus (*getWaitLimit)(Transport* transport, uint32_t* out);

    // Announces to the daemon that listening to a subject begins or ends: kInterestStart or
    // kInterestStop.
    pelmoStatus (*interest)(Transport* transport, const uint8_t* subject, const char* kind);
};

inline constexpr const char* kInterestStart = "L";
inline constexpr const char* kInterestStop = "C";

struct EndpointOps {
    // Host and port as the inbox's subject writes them. Messages are borrowed.
    pelmoStatus (*send)(ReliableEndpoint* endpoint,
                        uint32_t host,
                        uint16_t port,
                        std::span<pelmoMsg* const> messages);

    // Passed on to the endpoint's callbacks. The object lock is held.
    void (*setTransport)(ReliableEndpoint* endpoint, uint32_t transportId);

    // Any lock may be held.
    void (*traffic)(ReliableEndpoint* endpoint, pelmoDirectTraffic* out);

    // A reference, for a send that a destroy of the transport may meet.
    void (*retain)(ReliableEndpoint* endpoint);
    void (*release)(ReliableEndpoint* endpoint);

    // Waits until everything has been sent, and gives the transport's reference back. Gives up as
    // DaemonLinkOps.stop does.
    SendLosses (*close)(ReliableEndpoint* endpoint, double deadline);
};

// Functions with a circuit are called with its object lock held once, but for deliver.
struct CircuitOps {
    // Wrap and send, with the lock released meanwhile. Messages are borrowed and ready; when one of
    // many can't be wrapped, none is sent. `*taken` as with DaemonLinkOps.
    pelmoStatus (*send)(Transport* circuit, pelmoMsg* message);
    pelmoStatus (*sendVector)(Transport* circuit,
                              std::span<pelmoMsg* const> messages,
                              uint32_t* taken);

    // Delivers to the circuit's listeners and takes ownership of the message. Called without the
    // lock.
    pelmoStatus (*deliver)(Transport* circuit, pelmoMsg* message);

    // The reason may be null.
    void (*disconnect)(Transport* circuit, const char* reason);

    // Frees the circuit of a transport whose last reference is gone; called without a lock.
    void (*destroy)(VirtualCircuit* circuit);
};

inline DaemonLinkOps daemonLinkOps{};
inline EndpointOps endpointOps{};
inline CircuitOps circuitOps{};
