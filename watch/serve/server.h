// The server: everything of HTTP that waits. It joins what decides (route.h, events.h) and the
// texts that it gives out (texts.h) to libmicrohttpd, which runs all clients on one thread of its
// own.
//
//     serverBind  (rights are given up)  serverStart  |  serverPublish ...  |  serverStop
//
// A client can't hold up the publisher, nor make the process grow: the text of an interval is
// written once, when the first client wants it, and shared by all (texts.h); what a client costs
// beside them is bounded by kServerClientBytes and ServerRules::mostClients. A client has
// kServerRequestSeconds for a request, kServerAnswerSeconds to read an answer and
// kEventsReadSeconds to read an event, and may be idle for kServerIdleSeconds between requests.
// crowd.h says who goes where there are too many.
//
// Ownership: rules are borrowed for as long as the server runs.
//
// Failure: false, and a line in the log says why.
//
// Threads: the main one starts and stops; any one publishes.

#pragma once

#include <cstdint>

#include "watch/serve/events.h"
#include "watch/serve/listen_address.h"
#include "watch/serve/route.h"
#include "watch/serve/texts.h"

inline constexpr size_t kServerClientBytes = 32 << 10;  // of a request's head, and of a send
inline constexpr double kServerRequestSeconds = 10;
inline constexpr double kServerAnswerSeconds = 30;
inline constexpr double kServerIdleSeconds = 75;

struct ServerCounts {
    uint64_t clients, eventClients;  // now
    uint64_t cutOffClients;          // since the start
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
