#include "watch/serve/route.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>

#include "watch/serve/listen_address.h"

namespace {

constexpr uint16_t kOk = 200;
constexpr uint16_t kBadRequest = 400;
constexpr uint16_t kForbidden = 403;
constexpr uint16_t kNotFound = 404;
constexpr uint16_t kMethodNotAllowed = 405;
constexpr uint16_t kUriTooLong = 414;
constexpr uint16_t kUnavailable = 503;

struct PathRow {
    std::string_view path;
    RouteKind kind;
};

constexpr PathRow kPaths[] = {
    {"/metrics", RouteKind::kMetrics},    {"/snapshot.json", RouteKind::kSnapshot},
    {"/events", RouteKind::kEvents},      {"/history.json", RouteKind::kHistoryOfTotals},
    {"/source.json", RouteKind::kSource}, {"/healthz", RouteKind::kHealth},
};

void refuse(Route* out, uint16_t status, const char* reason) {
    out->kind = RouteKind::kRefusal;
    out->status = status;
    out->reason = reason;
}

// No name server leads a literal address anywhere else.
bool isNameOfThis(std::string_view header, const RouteRules& rules) {
    const std::string_view name = hostName(header);
    return hostNameIsAddress(name) || hostNamesAreEqual(name, "localhost") ||
           std::ranges::any_of(rules.furtherNames, [name](std::string_view further) {
               return hostNamesAreEqual(name, further);
           });
}

bool isOfOtherSite(const RouteRequest& request, bool isPage) {
    const size_t scheme = request.origin.find("://");
    const bool hasOtherOrigin =
        !request.origin.empty() &&
        (scheme == std::string_view::npos ||
         !hostNamesAreEqual(request.origin.substr(scheme + 3), request.host));
    if (hasOtherOrigin) return true;
    const bool isSame = request.fetchSite.empty() || request.fetchSite == "same-origin" ||
                        request.fetchSite == "none";
    const bool isLink =
        isPage && request.fetchMode == "navigate" && request.fetchDestination == "document";
    return !isSame && !isLink;
}

// The words of a row's query, each as a function that takes its value and answers what is wrong.

struct TableRow {
    std::string_view name;
    BusTable table;
    bool hasGroup, hasSubject;
};

constexpr TableRow kTables[] = {
    {"multicast", BusTable::kMulticast, true, false},
    {"retransmission", BusTable::kRetransmission, false, false},
    {"point_to_point", BusTable::kPointToPoint, false, false},
    {"subjects", BusTable::kSubjects, true, true},
};

struct RowQuery {
    const TableRow* table = nullptr;
    bool hasPort = false, hasGroup = false, hasSubject = false, hasHost = false, hasScid = false;
};

const char* takeTable(std::string_view value, Route*, RowQuery* query) {
    query->table = std::ranges::find(kTables, value, &TableRow::name);
    return query->table != std::end(kTables) ? nullptr : "no such table";
}

// In network order.
bool parsePort(std::string_view value, uint16_t least, uint16_t* out) {
    uint16_t number = 0;
    const char* const end = value.data() + value.size();
    const auto [stop, error] = std::from_chars(value.data(), end, number);
    *out = htons(number);
    return error == std::errc{} && stop == end && number >= least;
}

const char* takePort(std::string_view value, Route* out, RowQuery* query) {
    query->hasPort = parsePort(value, 0, &out->row.port);
    return query->hasPort ? nullptr : "port isn't a number from 0 to 65535";
}

const char* takeScid(std::string_view value, Route* out, RowQuery* query) {
    query->hasScid = parsePort(value, 1, &out->row.scid);
    return query->hasScid ? nullptr : "scid isn't a number from 1 to 65535";
}

bool parseAddress(std::string_view value, uint32_t* out) {
    char text[INET_ADDRSTRLEN];
    if (value.size() >= sizeof text) return false;
    text[value.copy(text, value.size())] = '\0';
    return inet_pton(AF_INET, text, out) == 1;
}

const char* takeGroup(std::string_view value, Route* out, RowQuery* query) {
    query->hasGroup = parseAddress(value, &out->row.group);
    return query->hasGroup ? nullptr : "group isn't an address";
}

const char* takeHost(std::string_view value, Route* out, RowQuery* query) {
    query->hasHost = parseAddress(value, &out->row.host);
    return query->hasHost ? nullptr : "host isn't an address";
}

const char* takeSubject(std::string_view value, Route* out, RowQuery* query) {
    query->hasSubject = subjectFromSafeText(value, out->subject);
    return query->hasSubject ? nullptr : "no subject has this text";
}

struct WordRow {
    std::string_view name;
    const char* (*take)(std::string_view value, Route* out, RowQuery* query);
};

constexpr WordRow kWords[] = {
    {"table", takeTable},     {"port", takePort}, {"group", takeGroup},
    {"subject", takeSubject}, {"host", takeHost}, {"scid", takeScid},
};

const char* takeWord(const QueryPart& part, Route* out, RowQuery* query) {
    const WordRow* const word = std::ranges::find(kWords, part.name, &WordRow::name);
    return word != std::end(kWords) ? word->take(part.value, out, query)
                                    : "no such name in a query";
}

// Do the words make a row together?
const char* settle(const RowQuery& query) {
    if (query.table == nullptr) return "table is missing";
    if (!query.hasPort) return "port is missing";
    if (query.table->hasGroup != query.hasGroup) {
        return query.hasGroup ? "this table has no groups" : "group is missing";
    }
    if (query.table->hasSubject != query.hasSubject) {
        return query.hasSubject ? "this table has no subjects" : "subject is missing";
    }
    return query.hasScid && !query.hasHost ? "scid needs a host" : nullptr;
}

void findRow(std::span<const QueryPart> parts, Route* out) {
    RowQuery query;
    const char* wrong = nullptr;
    for (const QueryPart& part : parts) {
        if (wrong == nullptr) wrong = takeWord(part, out, &query);
    }
    if (wrong == nullptr) wrong = settle(query);
    if (wrong != nullptr) return refuse(out, kBadRequest, wrong);
    out->kind = RouteKind::kHistoryOfRow;
    out->row.table = query.table->table;
    out->row.hasHost = query.hasHost;
    out->row.subject = query.hasSubject ? out->subject : nullptr;
}

}  // namespace

void routeFind(const RouteRequest& request, const RouteRules& rules, Route* out) {
    *out = {};
    out->status = kOk;
    if (request.hasNul) return refuse(out, kBadRequest, "the path or query has a NUL");
    if (request.isLong) return refuse(out, kUriTooLong, "the query has too many parts");
    if (!isNameOfThis(request.host, rules)) {
        return refuse(out, kForbidden, "this host isn't served; see the option --host");
    }
    const auto asset = std::ranges::find(rules.assets, request.path, &WebAsset::path);
    const PathRow* const path = std::ranges::find(kPaths, request.path, &PathRow::path);
    if (asset == rules.assets.end() && path == std::end(kPaths)) {
        return refuse(out, kNotFound, "not found");
    }
    if (request.method != "GET" && request.method != "HEAD") {
        return refuse(out, kMethodNotAllowed, "only GET and HEAD are answered");
    }
    if (isOfOtherSite(request, asset != rules.assets.end())) {
        return refuse(out, kForbidden, "requests of other sites' pages aren't answered");
    }
    const bool isReserved = path != std::end(kPaths) &&
                            (path->kind == RouteKind::kMetrics || path->kind == RouteKind::kHealth);
    if (request.isExtra && !isReserved) return refuse(out, kUnavailable, "too many clients");
    if (asset != rules.assets.end()) {
        out->kind = RouteKind::kAsset;
        out->asset = &*asset;
        return;
    }
    out->kind = path->kind;
    if (path->kind == RouteKind::kHistoryOfTotals && !request.query.empty()) {
        findRow(request.query, out);
    }
}

// Subjects

namespace {

// The buffer's size as subjectAppendBytes wants it: the subject stays below.
constexpr int32_t kRoom = kSubjectMaxBytes + 1;

// The character at the start of the text, and takes it off. False where a backslash begins neither
// "\\" nor "\xHH".
bool takeCharacter(std::string_view& text, char* out) {
    constexpr size_t kHexBytes = 4;
    if (text[0] != '\\') {
        *out = text[0];
        text.remove_prefix(1);
        return true;
    }
    if (text.starts_with("\\\\")) {
        *out = '\\';
        text.remove_prefix(2);
        return true;
    }
    if (!text.starts_with("\\x") || text.size() < kHexBytes) return false;
    uint8_t byte = 0;
    const char* const end = text.data() + kHexBytes;
    if (std::from_chars(text.data() + 2, end, byte, 16).ptr != end) return false;
    *out = static_cast<char>(byte);
    text.remove_prefix(kHexBytes);
    return true;
}

bool appendElement(std::string_view text, uint8_t* packed) {
    char characters[kSubjectMaxBytes];
    size_t length = 0;
    while (!text.empty()) {
        if (length == sizeof characters || !takeCharacter(text, &characters[length])) return false;
        ++length;
    }
    return subjectAppendBytes(packed, kRoom, characters, length) >= 0;
}

}  // namespace

bool subjectFromSafeText(std::string_view text, uint8_t (&packed)[kSubjectMaxBytes]) {
    if (subjectInit(packed, sizeof packed) < 0) return false;
    while (!text.empty()) {
        const size_t dot = text.find('.');
        if (!appendElement(text.substr(0, dot), packed)) return false;
        if (dot == std::string_view::npos) return true;
        text.remove_prefix(dot + 1);
        if (text.empty()) return appendElement(text, packed);
    }
    return true;
}
