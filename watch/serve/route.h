// Routing: from a request to what is answered. It decides, and knows no connection.
//
//     /                the live page, and its files (watch/web/assets.h)
//     /metrics         for Prometheus
//     /snapshot.json   the last interval, as the form "json" prints it
//     /events          each interval as it ends (server-sent events)
//     /history.json    the last 15 minutes: of the totals, or of a row that the query names
//     /source.json     what is watched, and how that is
//     /healthz         whether the program runs and captures
//
// The query of /history.json names a row as the JSON of a Snapshot does: table, port, group,
// subject, host and scid; without host it is all of the group, port or subject.
//
// A browser is refused where its request comes from another site's page: such a page may have a
// name of its own lead to this machine, or load what it may not read to make this machine work.
// Only a link to the live page is followed.
//
// Ownership: views are of the request, and valid as long as that is; Route owns the rest.
//
// Threads: any; no state.

#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "lib/containers/subject.h"
#include "watch/serve/history.h"
#include "watch/web/assets.h"

enum class RouteKind : uint8_t {
    kAsset,
    kMetrics,
    kSnapshot,
    kEvents,
    kHistoryOfTotals,
    kHistoryOfRow,
    kSource,
    kHealth,
    kRefusal,
};

struct QueryPart {
    std::string_view name, value;
};

struct RouteRequest {
    std::string_view method = {};
    std::string_view path = {};
    std::string_view host = {};  // the Host header; empty for none
    std::span<const QueryPart> query = {};

    // Headers by which a browser says what a request is for; empty for none.
    std::string_view origin = {};
    std::string_view fetchSite = {}, fetchMode = {}, fetchDestination = {};

    bool hasNul = false;   // "%00" in the path or the query
    bool isLong = false;   // the query has more parts than are looked at
    bool isExtra = false;  // all places are taken (crowd.h)
};

struct RouteRules {
    std::span<const char* const> furtherNames;  // names to be called by besides "localhost"
    std::span<const WebAsset> assets;
};

// Points into itself: not to be copied.
struct Route {
    RouteKind kind;
    uint16_t status;        // of HTTP
    const char* reason;     // of kRefusal: one line without its end
    const WebAsset* asset;  // of kAsset
    RowKey row;             // of kHistoryOfRow; its subject is `subject` below
    uint8_t subject[kSubjectMaxBytes];
};

void routeFind(const RouteRequest& request, const RouteRules& rules, Route* out);

// From the safe text of a subject (watch/core/text.h) back to the subject. False if no subject has
// this text.
[[nodiscard]] bool subjectFromSafeText(std::string_view text, uint8_t (&packed)[kSubjectMaxBytes]);
