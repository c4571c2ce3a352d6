// The server: everything of HTTP that waits. It joins what decides (route.h, events.h) to
// libmicrohttpd, which runs all clients on one thread of its own.
//
//     serverBind  (rights are given up)  serverStart  |  serverPublish ...  |  serverStop
//
// A client can't hold up the publisher, nor make the process grow: the text of an interval is
// written once, when the first client wants it, and shared by all (shared_text.h bounds what slow
// readers hold of them); what a client costs beside them is bounded by kServerClientBytes and
// ServerRules::mostClients. A client has kServerRequestSeconds for a request, kServerAnswerSeconds
// to read an answer and kEventsReadSeconds to read an event, and may be idle for kServerIdleSeconds
// between requests. crowd.h says who goes where there are too many.
//
// Ownership: rules are borrowed for as long as the server runs.
//
// Failure: false, and a line in the log says why.
//
// Threads: the main one starts and stops; any one publishes. The functions of ServerAnswers are
// called on the server's thread, one at a time, with no lock held.

#pragma once

#include <cstdint>

#include "watch/serve/body.h"
#include "watch/serve/events.h"
#include "watch/serve/history.h"
#include "watch/serve/listen_address.h"
#include "watch/serve/route.h"

inline constexpr size_t kServerClientBytes = 32 << 10;  // of a request's head, and of a send
inline constexpr double kServerRequestSeconds = 10;
inline constexpr double kServerAnswerSeconds = 30;
inline constexpr double kServerIdleSeconds = 75;

struct ServerCounts {
    uint64_t clients, eventClients;  // now
    uint64_t cutOffClients;          // since the start
};

// The text of an event, in which its JSON and a line break are `jsonBytes` from `jsonAt` on.
struct EventPlaces {
    size_t jsonAt, jsonBytes;
};

// What answers are made of. Each writes its text; false where it can't.
struct ServerAnswers {
    bool (*source)(JsonBuffer& out);

    // Of the newest interval that was published, once for each at most.
    bool (*event)(JsonBuffer& out, EventPlaces& places);

    bool (*metrics)(JsonBuffer& out);
    bool (*historyOfTotals)(JsonBuffer& out);
    bool (*historyOfRow)(const RowKey& row, JsonBuffer& out);

    // Sets whether all is well: 503 if not.
    bool (*health)(JsonBuffer& out, bool& isWell);
};

struct ServerRules {
    ListenAddress listen;
    uint32_t mostClients;  // half of them may follow events
    RouteRules routes;
    ServerAnswers answers;
};

[[nodiscard]] bool serverBind(const ServerRules& rules);

// Listens from here on, which is logged.
[[nodiscard]] bool serverStart();

// There is a new interval to be asked for, or what is watched has changed.
void serverPublish(StreamEvent kind);

// Cuts off clients whose time is up. Once a second.
void serverSweep();

[[nodiscard]] ServerCounts serverCounts();

// All clients are gone after it.
void serverStop();
