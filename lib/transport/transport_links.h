// What transports ask of the floors that carry messages out of the process: the daemon connection,
// the reliable endpoint, virtual circuits. Each fills its table when it is linked in; until then a
// table is empty, and no transport of that kind can be made.
//
// Locks: a function is called with a reference on the transport held, and with its object lock not
// held unless the table says so: a caller must expect a changed transport on return.
//
// Failure: statuses are handed to the application as they come.

#pragma once

#include <cstdint>
#include <span>

#include "lib/base/status.h"

struct pelmoMsg;
struct ReliableEndpoint;
struct Transport;
struct VirtualCircuit;

inline constexpr uint32_t kSessionBytes = 64;

struct DaemonVersion {
    uint32_t major, minor, update;

    auto operator<=>(const DaemonVersion&) const = default;
};

// What the transport and its daemon connection both look at. The record is the connection's, made
// and freed by it.
struct DaemonLink {
    // Constant after creation; heap texts, empty for none.
    char* service;
    char* network;
    char* daemon;
    char session[kSessionBytes];

    // Guarded by the transport's object lock; told to the daemon at each connection.
    char* description;  // heap text, null for none
    char* httpAddress;
    bool echo;
    bool hide;
    double reliabilitySeconds;  // negative: not asked for
    DaemonVersion version;      // of the daemon of the last connection
};

struct DaemonLinkOps {
    // Makes `transport->link` and connects; the object lock is held, and left while connecting. On
    // failure nothing stays. Texts may be null. `resume`: may the daemon take up what an earlier
    // connection left?
    pelmoStatus (*create)(Transport* transport,
                          const char* service,
                          const char* network,
                          const char* daemon,
                          bool resume);

    // Of a transport whose last reference is gone.
    void (*destroy)(DaemonLink* link);

    // No reconnect starts afterwards; what was sent leaves first.
    void (*stop)(Transport* transport);

    // kStatusDaemonNotConnected while there is no connection. Messages are borrowed.
    pelmoStatus (*send)(Transport* transport, pelmoMsg* message);
    pelmoStatus (*sendVector)(Transport* transport, std::span<pelmoMsg* const> messages);
    pelmoStatus (*hold)(Transport* transport);
    pelmoStatus (*flush)(Transport* transport);
    pelmoStatus (*setBatchMode)(Transport* transport, uint32_t mode);
    pelmoStatus (*setBlocking)(Transport* transport, bool blocking);
    pelmoStatus (*setWaitLimit)(Transport* transport, uint32_t limit);
    pelmoStatus (*getWaitLimit)(Transport* transport, uint32_t* out);

    // Tells the daemon what is listened to: kind kInterestStart or kInterestStop.
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

    // What the endpoint's callbacks are told. The object lock is held.
    void (*setTransport)(ReliableEndpoint* endpoint, uint32_t transportId);

    // Waits for what was sent to leave, and frees the endpoint. No call of send is under way.
    void (*close)(ReliableEndpoint* endpoint);
};

// All with the circuit's object lock held, under which circuits do all their work.
struct CircuitOps {
    pelmoStatus (*send)(Transport* circuit, pelmoMsg* message);

    // The message's envelope for the peer, for the caller to release. Takes a sequence number.
    pelmoStatus (*wrap)(Transport* circuit, pelmoMsg* message, pelmoMsg** outEnvelope);

    // To the circuit's listeners. Owns the message.
    pelmoStatus (*deliver)(Transport* circuit, pelmoMsg* message);

    // The reason may be null.
    void (*disconnect)(Transport* circuit, const char* reason);

    // Of a transport whose last reference is gone; no lock.
    void (*destroy)(VirtualCircuit* circuit);
};

inline DaemonLinkOps daemonLinkOps{};
inline EndpointOps endpointOps{};
inline CircuitOps circuitOps{};
