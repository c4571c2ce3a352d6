// The library opened, and the transport with its settings made.
//
//     Connection connection;
//     const ExitStatus made = connectionOpen(connection, settings);
//     if (made != kExitDone) return made;
//
// The destructor destroys the transport, flushing what was sent, and closes the library.
//
// Threads: one, which is not a callback's.

#pragma once

#include <optional>

#include "bus/link_news.h"
#include "bus/settings.h"

struct Connection {
    uint32_t transport = kNoId;
    bool opened = false;
    LinkNews news;

    Connection() = default;
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
};

// Any failure is reported. kExitUsage for fields of the command line that no message takes. A
// signal ends the process: `isToSend` says that nothing was sent then, which is a failure.
[[nodiscard]] ExitStatus connectionOpen(Connection& connection,
                                        const BusSettings& settings,
                                        bool isToSend = false);

// Destroys the transport before the end, and answers the status of that; kStatusSuccess for none.
[[nodiscard]] pelmoStatus connectionEnd(Connection& connection, std::optional<double> mostSeconds);
