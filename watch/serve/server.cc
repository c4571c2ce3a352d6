#include "watch/serve/server.h"

#include <microhttpd.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <bit>
#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "lib/base/clock.h"
#include "lib/base/lock.h"
#include "lib/base/log.h"
#include "watch/serve/crowd.h"
#include "watch/serve/events.h"
#include "watch/serve/peer_taken.h"
#include "watch/serve/safe_headers.h"
#include "watch/serve/shared_text.h"
#include "watch/serve/zipped.h"

namespace {

// Enough for a crowd of clients that connect at once: none has to try again.
constexpr int kBacklog = 1024;
// A connection isn't taken before its first byte, or after so many seconds.
constexpr int kDeferSeconds = 5;
// More than clients may be: the extras, and those that are cut off but not yet gone.
constexpr uint32_t kSpareConnections = 2 * kCrowdExtras;
constexpr size_t kHeaderBytes = 1024;
// Metrics are written again for a second scrape only after so much time.
constexpr double kKeepSeconds = 1;
// After capture and whatever else the machine has to do.
constexpr int kNice = 10;
// Less isn't worth a compression.
constexpr size_t kLeastZippedBytes = 1024;

// A connection. Guarded by Server::lock.
struct Client : CrowdMember {
    int descriptor;
    bool hasNul;  // in the path or the query of its request

    // In kAnswer: the text that it is given, to be compared only; null for one of its own.
    const Body* text;

    // In kEvents.
    MHD_Connection* connection;
    EventClient events;
    bool isSuspended;
};

struct Server {
    // Constant after the start.
    const ServerRules* rules = nullptr;
    int listener = -1;
    MHD_Daemon* daemon = nullptr;

    Lock lock = PELMO_LOCK_READY(LockRank::kLeaf);
    Crowd crowd PELMO_GUARDED_BY(lock) = {};
    EventNumbers published PELMO_GUARDED_BY(lock) = {};
    uint64_t cutOffClients PELMO_GUARDED_BY(lock) = 0;
    bool isEnding PELMO_GUARDED_BY(lock) = false;
    // What slow readers hold so that no newer text can be written; null where no text waits for it.
    const Body* inTheWay PELMO_GUARDED_BY(lock) = nullptr;

    // Of the server's thread.
    SharedText events[kStreamEvents];
    SharedText zippedEvents[kStreamEvents];  // the same as fragments (zipped.h)
    SharedText zippedSnapshot;
    EventPlaces places = {};  // of the newest interval's
    EventNumbers asked = {};  // for last
    SharedText metrics;
    SharedText zippedMetrics;
    std::vector<BodyHold> zippedAssets;  // in the order of the assets; empty until one is asked for
    double metricsSeconds = 0;
    bool isNice = false;

    // Of the request that is being answered.
    bool closesAfterAnswer = false;
    bool takesZipped = false;
    bool isHead = false;
};

Server server;

// Clients, with the lock held.

Client* clientOfMember(CrowdMember* member) {
    return static_cast<Client*>(member);
}

Client* firstLocked() PELMO_REQUIRES(server.lock) {
    return clientOfMember(server.crowd.members);
}

Client* nextOf(const Client* client) {
    return clientOfMember(client->next);
}

void setPhaseLocked(Client* client, CrowdPhase phase) PELMO_REQUIRES(server.lock) {
    crowdSetPhase(server.crowd, *client, phase, clockSteadySeconds());
    client->text = nullptr;
}

void wakeLocked(Client* client) PELMO_REQUIRES(server.lock) {
    if (!std::exchange(client->isSuspended, false)) return;
    MHD_resume_connection(client->connection);
}

// libmicrohttpd owns the socket and closes it, on its thread. It doesn't watch the socket of a
// client that is suspended, and forgets one that is shut then: such a client gets the end of its
// stream. If it doesn't take even that, the next sweep shuts its socket.
void shutLocked(Client* client) PELMO_REQUIRES(server.lock) {
    if (client->isSuspended) return wakeLocked(client);
    shutdown(client->descriptor, SHUT_RDWR);
}

void cutOffLocked(Client* client) PELMO_REQUIRES(server.lock) {
    if (!crowdCut(server.crowd, *client)) return;
    ++server.cutOffClients;
    shutLocked(client);
}

// While a client waits for an event libmicrohttpd doesn't look at its socket.
bool hasLeft(const Client& client) {
    pollfd look{.fd = client.descriptor, .events = POLLRDHUP, .revents = 0};
    return client.isSuspended && poll(&look, 1, 0) == 1;
}

bool isLate(Client& client, double nowSeconds) {
    const double seconds = nowSeconds - client.sinceSeconds;
    switch (client.phase) {
        case CrowdPhase::kRequest:
            return seconds > kServerRequestSeconds;
        case CrowdPhase::kAnswer:
            return seconds > kServerAnswerSeconds;
        case CrowdPhase::kEvents:
            return eventsIsStalled(client.events, client.takenBytes, nowSeconds);
        case CrowdPhase::kIdle:
            return seconds > kServerIdleSeconds;
    }
    return false;
}

// Others wait for a newer text, which the one that the client has long held keeps from being
// written.
bool isInTheWayLocked(const Client& client, double nowSeconds) PELMO_REQUIRES(server.lock) {
    return client.phase == CrowdPhase::kAnswer && client.text != nullptr &&
           client.text == server.inTheWay && nowSeconds - client.sinceSeconds > kEventsReadSeconds;
}

// Answers.

std::string_view headerOf(MHD_Connection* connection, const char* name) {
    const char* const value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
    return value != nullptr ? value : "";
}

constexpr const char* kPlainText = "text/plain; charset=utf-8";
constexpr const char* kJson = "application/json; charset=utf-8";
constexpr const char* kMetricsText = "text/plain; version=0.0.4; charset=utf-8";

bool addHeader(MHD_Response* response, const char* name, std::string_view value) {
    char text[kHeaderBytes];
    if (value.size() >= sizeof text) return false;
    text[value.copy(text, value.size())] = '\0';
    return MHD_add_response_header(response, name, text) == MHD_YES;
}

bool addHeaders(MHD_Response* response, std::string_view contentType, bool isPage) {
    return safeHeadersAdd(response) && addHeader(response, "Content-Type", contentType) &&
           addHeader(response, "Content-Security-Policy",
                     isPage ? kWebContentSecurityPolicy : kSafeHeadersNoPage) &&
           addHeader(response, "Cache-Control", isPage ? "no-cache" : "no-store");
}

// Without memory for an answer the connection is closed.
MHD_Result queue(MHD_Connection* connection,
                 unsigned status,
                 MHD_Response* response,
                 std::string_view contentType,
                 bool isPage = false) {
    if (response == nullptr) return MHD_NO;
    bool isWhole = addHeaders(response, contentType, isPage);
    if (server.closesAfterAnswer)
        isWhole &= addHeader(response, MHD_HTTP_HEADER_CONNECTION, "close");
    if (status == MHD_HTTP_METHOD_NOT_ALLOWED) isWhole &= addHeader(response, "Allow", "GET, HEAD");
    const MHD_Result result = isWhole ? MHD_queue_response(connection, status, response) : MHD_NO;
    MHD_destroy_response(response);
    return result;
}

// libmicrohttpd reads from what it is given and never writes there.
MHD_Response* responseOfConstant(std::string_view text) {
    return MHD_create_response_from_buffer(text.size(), const_cast<char*>(text.data()),
                                           MHD_RESPMEM_PERSISTENT);
}

void dropBody(void* body) {
    (void)BodyHold::adopt(static_cast<Body*>(body));
}

// Of a part of the body, which the response holds.
MHD_Response* responseOfBody(BodyHold body, size_t at, size_t sizeBytes) {
    char* const bytes = const_cast<char*>(body.text().data()) + at;
    Body* const held = body.release();
    MHD_Response* const response =
        MHD_create_response_from_buffer_with_free_callback_cls(sizeBytes, bytes, dropBody, held);
    if (response == nullptr) dropBody(held);
    return response;
}

// Answers that are compressed for those who take that say so to caches in any case.
MHD_Result queueText(MHD_Connection* connection,
                     unsigned status,
                     MHD_Response* response,
                     std::string_view contentType,
                     bool isZipped) {
    if (response == nullptr) return MHD_NO;
    const bool isWhole =
        addHeader(response, "Vary", "Accept-Encoding") &&
        (!isZipped || addHeader(response, MHD_HTTP_HEADER_CONTENT_ENCODING, "gzip"));
    if (isWhole) return queue(connection, status, response, contentType);
    MHD_destroy_response(response);
    return MHD_NO;
}

MHD_Result answerLine(MHD_Connection* connection, unsigned status, const char* line) {
    char text[128];
    const int length = std::snprintf(text, sizeof text, "%s\n", line);
    return queue(
        connection, status,
        MHD_create_response_from_buffer(static_cast<size_t>(length), text, MHD_RESPMEM_MUST_COPY),
        kPlainText);
}

template <typename Write>
BodyHold makeBody(Write write) {
    if (bodyBytes() >= kMostBodyBytes) return {};
    BodyHold body = BodyHold::make();
    if (!body || !write(body.buffer()) || body.buffer().failed) return {};
    body.count();
    return body;
}

MHD_Result answerBody(MHD_Connection* connection,
                      const BodyHold& body,
                      const char* contentType,
                      bool isZipped,
                      unsigned status = MHD_HTTP_OK) {
    if (!body) return answerLine(connection, MHD_HTTP_SERVICE_UNAVAILABLE, "no memory at present");
    return queueText(connection, status, responseOfBody(body, 0, body.text().size()), contentType,
                     isZipped);
}

BodyHold zippedOf(std::string_view text) {
    return makeBody([text](JsonBuffer& out) {
        zippedAppend(out, text);
        return !out.failed;
    });
}

// Of a text of this client's own. Without memory for less it gets the text as it is.
MHD_Result answerText(MHD_Connection* connection, const BodyHold& body, const char* contentType) {
    BodyHold zipped;
    if (body && server.takesZipped && body.text().size() >= kLeastZippedBytes) {
        zipped = zippedOf(body.text());
    }
    const bool isZipped = static_cast<bool>(zipped);
    return answerBody(connection, isZipped ? zipped : body, contentType, isZipped);
}

// May a newer text be written? If not, notes what is in the way.
bool mayRenew(SharedText& text) {
    const bool may = sharedTextMayRenew(text);
    const LockGuard guard(server.lock);
    if (!may && text.old) server.inTheWay = text.old.address();
    return may;
}

void noteText(Client* client, const BodyHold& body) {
    const LockGuard guard(server.lock);
    client->text = body.address();
}

// The compressed form of a text, `plain` or a part of it, written now where that is newer. Without
// memory for it, or while slow readers are in the way, false.
template <typename Append>
bool renewZipped(SharedText& zipped, const SharedText& plain, Append append) {
    if (zipped.newest && zipped.number == plain.number) return true;
    if (!plain.newest || !mayRenew(zipped)) return false;
    BodyHold body = makeBody([&](JsonBuffer& out) {
        append(out);
        return !out.failed;
    });
    if (!body) return false;
    sharedTextRenew(zipped, std::move(body), plain.number);
    return true;
}

// Without memory for newer ones the last stay.
MHD_Result answerMetrics(MHD_Connection* connection, Client* client) {
    const double now = clockSteadySeconds();
    const bool isDue = !server.metrics.newest || now - server.metricsSeconds >= kKeepSeconds;
    if (isDue && mayRenew(server.metrics)) {
        BodyHold body = makeBody(server.rules->answers.metrics);
        server.metricsSeconds = now;
        if (body) sharedTextRenew(server.metrics, std::move(body), server.metrics.number + 1);
    }
    const bool isZipped = server.takesZipped &&
                          renewZipped(server.zippedMetrics, server.metrics, [](JsonBuffer& out) {
                              zippedAppend(out, server.metrics.newest.text());
                          });
    const BodyHold& body = (isZipped ? server.zippedMetrics : server.metrics).newest;
    noteText(client, body);
    return answerBody(connection, body, kMetricsText, isZipped);
}

constexpr std::string_view kSourceBegin = "event: source\ndata: ";

bool writeEvent(StreamEvent kind, JsonBuffer& out, EventPlaces& places) {
    const ServerAnswers& answers = server.rules->answers;
    if (kind == StreamEvent::kSnapshot) return answers.event(out, places);
    out.append(kSourceBegin);
    const bool written = answers.source(out);
    out.append("\n");
    return written;
}

// Brings the event's text up to date: it is written now if this is the first client that wants it.
// Without memory for it, or while slow readers are in the way, the one before stays.
SharedText& newestText(StreamEvent kind) {
    const auto at = static_cast<size_t>(kind);
    SharedText& text = server.events[at];
    uint64_t published = 0;
    {
        const LockGuard guard(server.lock);
        published = server.published.of[at];
    }
    if (server.asked.of[at] == published || !mayRenew(text)) return text;
    server.asked.of[at] = published;
    EventPlaces places{};
    BodyHold body = makeBody([&](JsonBuffer& out) { return writeEvent(kind, out, places); });
    if (!body) return text;
    sharedTextRenew(text, std::move(body), published);
    if (kind == StreamEvent::kSnapshot) server.places = places;
    return text;
}

// A client that takes fragments gets nothing else: an event that can't be compressed waits.
Event newestEvent(StreamEvent kind, bool isZipped) {
    const SharedText& plain = newestText(kind);
    if (!isZipped) return {plain.newest, plain.number};
    SharedText& zipped = server.zippedEvents[static_cast<size_t>(kind)];
    (void)renewZipped(zipped, plain, [&plain](JsonBuffer& out) {
        zippedAppendFragment(out, plain.newest.text());
    });
    return {zipped.newest, zipped.number};
}

Events newestEvents(bool isZipped) {
    return {{newestEvent(StreamEvent::kSource, isZipped),
             newestEvent(StreamEvent::kSnapshot, isZipped)}};
}

MHD_Result answerSnapshot(MHD_Connection* connection, Client* client) {
    const SharedText& plain = newestText(StreamEvent::kSnapshot);
    if (!plain.newest) {
        return answerLine(connection, MHD_HTTP_SERVICE_UNAVAILABLE, "no interval has ended yet");
    }
    const EventPlaces places = server.places;
    const bool isZipped =
        server.takesZipped && renewZipped(server.zippedSnapshot, plain, [&](JsonBuffer& out) {
            zippedAppend(out, plain.newest.text().substr(places.jsonAt, places.jsonBytes));
        });
    if (isZipped) {
        noteText(client, server.zippedSnapshot.newest);
        return answerBody(connection, server.zippedSnapshot.newest, kJson, true);
    }
    noteText(client, plain.newest);
    return queueText(connection, MHD_HTTP_OK,
                     responseOfBody(plain.newest, places.jsonAt, places.jsonBytes), kJson, false);
}

MHD_Result answerHistory(MHD_Connection* connection, const Route& route) {
    const ServerAnswers& answers = server.rules->answers;
    const bool isRow = route.kind == RouteKind::kHistoryOfRow;
    return answerText(connection, makeBody([&](JsonBuffer& out) {
                          return isRow ? answers.historyOfRow(route.row, out)
                                       : answers.historyOfTotals(out);
                      }),
                      kJson);
}

MHD_Result answerHealth(MHD_Connection* connection) {
    bool isWell = true;
    const BodyHold body =
        makeBody([&](JsonBuffer& out) { return server.rules->answers.health(out, isWell); });
    return answerBody(connection, body, kJson, false,
                      isWell ? MHD_HTTP_OK : MHD_HTTP_SERVICE_UNAVAILABLE);
}

// Called by libmicrohttpd for more bytes of an event stream.
ssize_t readEvents(void* context, uint64_t at, char* buffer, size_t sizeBytes) {
    auto* const client = static_cast<Client*>(context);
    const bool isZipped = client->events.isZipped;  // constant while there is a stream
    if (isZipped && at == 0) {
        return static_cast<ssize_t>(kZippedHeader.copy(buffer, sizeBytes));
    }
    const Events newest = newestEvents(isZipped);
    const LockGuard guard(server.lock);
    if (client->isCut || server.isEnding) return MHD_CONTENT_READER_END_OF_STREAM;
    const std::string_view piece =
        eventsNext(client->events, newest, sizeBytes, clockSteadySeconds());
    client->hasToTake = static_cast<bool>(client->events.body);
    client->text = client->events.body ? client->events.body.address() : nullptr;
    if (!piece.empty()) {
        return static_cast<ssize_t>(piece.copy(buffer, piece.size()));
    }
    client->isSuspended = true;
    MHD_suspend_connection(client->connection);
    return 0;
}

MHD_Result answerEvents(MHD_Connection* connection, Client* client) {
    constexpr const char* kEventStream = "text/event-stream";
    if (server.isHead) return queue(connection, MHD_HTTP_OK, responseOfConstant(""), kEventStream);
    bool hasRoom = false;
    {
        const LockGuard guard(server.lock);
        hasRoom = crowdHasRoomForEvents(server.crowd, *client);
        if (hasRoom) {
            client->events = {};
            client->events.isZipped = server.takesZipped;
            client->events.sinceSeconds = clockSteadySeconds();
            client->connection = connection;
            setPhaseLocked(client, CrowdPhase::kEvents);
        }
    }
    if (!hasRoom) {
        return answerLine(connection, MHD_HTTP_SERVICE_UNAVAILABLE, "too many follow the events");
    }
    server.closesAfterAnswer = true;
    return queueText(connection, MHD_HTTP_OK,
                     MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, kServerClientBytes,
                                                       readEvents, client, nullptr),
                     kEventStream, server.takesZipped);
}

// Compressed when it is first asked for; null where there is no memory.
const BodyHold& zippedAsset(const WebAsset& asset) {
    const std::span assets = server.rules->routes.assets;
    BodyHold& zipped = server.zippedAssets[static_cast<size_t>(&asset - assets.data())];
    if (!zipped) zipped = zippedOf(asset.body);
    return zipped;
}

// The same for all forms of a text: hence weak (RFC 9110, 8.8.1).
std::string tagOf(std::string_view text) {
    char tag[40];
    const uint64_t hash = std::hash<std::string_view>()(text);
    std::snprintf(tag, sizeof tag, "W/\"%zx-%016llx\"", text.size(),
                  static_cast<unsigned long long>(hash));
    return tag;
}

MHD_Result queueAsset(MHD_Connection* connection,
                      unsigned status,
                      MHD_Response* response,
                      const WebAsset& asset,
                      bool isZipped) {
    if (response == nullptr) return MHD_NO;
    const bool isWhole =
        addHeader(response, MHD_HTTP_HEADER_ETAG, tagOf(asset.body)) &&
        addHeader(response, "Vary", "Accept-Encoding") &&
        (!isZipped || addHeader(response, MHD_HTTP_HEADER_CONTENT_ENCODING, "gzip"));
    if (isWhole) return queue(connection, status, response, asset.contentType, true);
    MHD_destroy_response(response);
    return MHD_NO;
}

MHD_Result answerAsset(MHD_Connection* connection, const WebAsset& asset) {
    const std::string_view known = headerOf(connection, MHD_HTTP_HEADER_IF_NONE_MATCH);
    if (known == "*" || known.find(tagOf(asset.body)) != std::string_view::npos) {
        return queueAsset(connection, MHD_HTTP_NOT_MODIFIED, responseOfConstant(""), asset, false);
    }
    if (server.takesZipped && asset.body.size() >= kLeastZippedBytes) {
        const BodyHold& zipped = zippedAsset(asset);
        if (zipped) {
            return queueAsset(connection, MHD_HTTP_OK,
                              responseOfBody(zipped, 0, zipped.text().size()), asset, true);
        }
    }
    return queueAsset(connection, MHD_HTTP_OK, responseOfConstant(asset.body), asset, false);
}

MHD_Result answer(MHD_Connection* connection, Client* client, const Route& route) {
    switch (route.kind) {
        case RouteKind::kAsset:
            return answerAsset(connection, *route.asset);
        case RouteKind::kMetrics:
            return answerMetrics(connection, client);
        case RouteKind::kSnapshot:
            return answerSnapshot(connection, client);
        case RouteKind::kEvents:
            return answerEvents(connection, client);
        case RouteKind::kHistoryOfTotals:
        case RouteKind::kHistoryOfRow:
            return answerHistory(connection, route);
        case RouteKind::kSource:
            return answerText(connection, makeBody(server.rules->answers.source), kJson);
        case RouteKind::kHealth:
            return answerHealth(connection);
        case RouteKind::kRefusal:
            return answerLine(connection, route.status, route.reason);
    }
    return MHD_NO;
}

// What libmicrohttpd calls, all on its thread.

struct QueryParts {
    QueryPart parts[kSafeQueryParts];
    size_t count;
    bool isLong;  // there are more
};

MHD_Result takeQueryPart(void* context,
                         MHD_ValueKind,
                         const char* name,
                         size_t nameBytes,
                         const char* value,
                         size_t valueBytes) {
    auto* const query = static_cast<QueryParts*>(context);
    if (query->count == kSafeQueryParts) {
        query->isLong = true;
        return MHD_NO;
    }
    query->parts[query->count++] = {
        {name, nameBytes},
        value != nullptr ? std::string_view(value, valueBytes) : std::string_view()};
    return MHD_YES;
}

Client* clientOf(MHD_Connection* connection) {
    const MHD_ConnectionInfo* const info =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
    return info != nullptr ? static_cast<Client*>(info->socket_context) : nullptr;
}

// Does the request say that it brings something?
bool hasBody(MHD_Connection* connection) {
    const auto has = [connection](const char* name) {
        return MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name) != nullptr;
    };
    return has(MHD_HTTP_HEADER_CONTENT_LENGTH) || has(MHD_HTTP_HEADER_TRANSFER_ENCODING);
}

RouteRequest requestOf(MHD_Connection* connection, const char* method, const char* path) {
    return {.method = method,
            .path = path,
            .host = headerOf(connection, MHD_HTTP_HEADER_HOST),
            .query = {},
            .origin = headerOf(connection, MHD_HTTP_HEADER_ORIGIN),
            .fetchSite = headerOf(connection, "Sec-Fetch-Site"),
            .fetchMode = headerOf(connection, "Sec-Fetch-Mode"),
            .fetchDestination = headerOf(connection, "Sec-Fetch-Dest")};
}

MHD_Result onRequest(void*,
                     MHD_Connection* connection,
                     const char* path,
                     const char* method,
                     const char*,
                     const char*,
                     size_t*,
                     void** requestContext) {
    Client* const client = clientOf(connection);
    if (client == nullptr) return MHD_NO;
    // A connection goes on only after an answer that waited for the request's end. Requests that
    // bring something are answered before it, and their connections closed: nothing that follows
    // may be taken for another request.
    const bool isHead = std::string_view(method) == "HEAD";
    const bool isPlain = (isHead || std::string_view(method) == "GET") && !hasBody(connection);
    if (*requestContext == nullptr && isPlain) {
        *requestContext = client;
        return MHD_YES;
    }
    RouteRequest request = requestOf(connection, method, path);
    {
        const LockGuard guard(server.lock);
        setPhaseLocked(client, CrowdPhase::kAnswer);
        request.hasNul = std::exchange(client->hasNul, false);
        request.isExtra = client->isExtra;
    }
    server.closesAfterAnswer = !isPlain || request.isExtra;
    server.isHead = isHead;
    server.takesZipped = zippedIsAccepted(headerOf(connection, MHD_HTTP_HEADER_ACCEPT_ENCODING));
    QueryParts query{};
    MHD_get_connection_values_n(connection, MHD_GET_ARGUMENT_KIND, takeQueryPart, &query);
    request.query = {query.parts, query.count};
    request.isLong = query.isLong;
    Route route;
    routeFind(request, server.rules->routes, &route);
    return answer(connection, client, route);
}

// Called for the path and for each name and value of the query.
size_t onUnescape(void*, MHD_Connection* connection, char* text) {
    const size_t length = MHD_http_unescape(text);
    Client* const client = clientOf(connection);
    if (client != nullptr && std::memchr(text, '\0', length) != nullptr) client->hasNul = true;
    return length;
}

void onCompleted(void*, MHD_Connection* connection, void**, MHD_RequestTerminationCode) {
    Client* const client = clientOf(connection);
    if (client == nullptr) return;
    BodyHold dropped;
    const LockGuard guard(server.lock);
    std::swap(dropped, client->events.body);
    client->isSuspended = false;
    setPhaseLocked(client, CrowdPhase::kIdle);
}

void beNice() {
    if (std::exchange(server.isNice, true)) return;
    (void)setpriority(PRIO_PROCESS, 0, kNice);  // of this thread alone; it goes without, too
}

// The library may have none of a client that has gone.
CrowdAddress addressOf(MHD_Connection* connection) {
    const MHD_ConnectionInfo* const info =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
    const sockaddr* const peer = info != nullptr ? info->client_addr : nullptr;
    in6_addr six = IN6ADDR_ANY_INIT;
    if (peer == nullptr) return std::bit_cast<CrowdAddress>(six);
    if (peer->sa_family == AF_INET6) {
        sockaddr_in6 whole{};
        std::memcpy(&whole, peer, sizeof whole);
        six = whole.sin6_addr;
    } else {
        sockaddr_in whole{};
        std::memcpy(&whole, peer, sizeof whole);
        six.s6_addr[10] = six.s6_addr[11] = 0xff;
        std::memcpy(&six.s6_addr[12], &whole.sin_addr, sizeof whole.sin_addr);
    }
    return std::bit_cast<CrowdAddress>(six);
}

void openClient(MHD_Connection* connection, void** context) {
    beNice();
    const int descriptor =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
    auto* const client = new (std::nothrow) Client{};
    *context = client;
    if (client == nullptr) {  // it would be neither counted nor cut off
        shutdown(descriptor, SHUT_RDWR);
        return;
    }
    client->descriptor = descriptor;
    client->address = addressOf(connection);
    const LockGuard guard(server.lock);
    CrowdMember* const surplus = crowdEnter(server.crowd, *client, clockSteadySeconds());
    if (surplus == nullptr) return;
    ++server.cutOffClients;
    shutLocked(clientOfMember(surplus));
}

void closeClient(void** context) {
    auto* const client = static_cast<Client*>(std::exchange(*context, nullptr));
    if (client == nullptr) return;
    {
        const LockGuard guard(server.lock);
        crowdLeave(server.crowd, *client);
    }
    delete client;
}

void onConnection(void*,
                  MHD_Connection* connection,
                  void** context,
                  MHD_ConnectionNotificationCode code) {
    if (code == MHD_CONNECTION_NOTIFY_STARTED) {
        openClient(connection, context);
    } else {
        closeClient(context);
    }
}

bool refuse(const char* what) {
    char text[kListenTextBytes];
    listenAddressText(server.rules->listen, text);
    logPrint("unable to %s %s: %s.", what, text, std::strerror(errno));
    return false;
}

// The port too where the system chose it.
void logAddress() {
    ListenAddress bound = server.rules->listen;
    (void)getsockname(server.listener, reinterpret_cast<sockaddr*>(&bound.address),
                      &bound.sizeBytes);
    char text[kListenTextBytes];
    listenAddressText(bound, text);
    logPrint("listening on http://%s/.", text);
}

}  // namespace

bool serverBind(const ServerRules& rules) {
    server.rules = &rules;
    server.zippedAssets.resize(rules.routes.assets.size());
    {
        const LockGuard guard(server.lock);
        server.crowd.most = rules.mostClients;
    }
    const int family = rules.listen.address.ss_family;
    server.listener = socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (server.listener < 0) return refuse("make a socket for");
    const int on = 1;
    (void)setsockopt(server.listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    (void)setsockopt(server.listener, IPPROTO_TCP, TCP_DEFER_ACCEPT, &kDeferSeconds,
                     sizeof kDeferSeconds);
    const auto* const address = reinterpret_cast<const sockaddr*>(&rules.listen.address);
    return bind(server.listener, address, rules.listen.sizeBytes) == 0 || refuse("listen on");
}

bool serverStart() {
    if (listen(server.listener, kBacklog) != 0) return refuse("listen on");
    server.daemon = MHD_start_daemon(
        MHD_USE_EPOLL_INTERNAL_THREAD | MHD_ALLOW_SUSPEND_RESUME | MHD_USE_ITC, 0, nullptr, nullptr,
        onRequest, nullptr, MHD_OPTION_LISTEN_SOCKET, server.listener, MHD_OPTION_CONNECTION_LIMIT,
        server.rules->mostClients + kSpareConnections, MHD_OPTION_CONNECTION_MEMORY_LIMIT,
        kServerClientBytes, MHD_OPTION_NOTIFY_COMPLETED, onCompleted, nullptr,
        MHD_OPTION_NOTIFY_CONNECTION, onConnection, nullptr, MHD_OPTION_STRICT_FOR_CLIENT, 1,
        MHD_OPTION_UNESCAPE_CALLBACK, onUnescape, nullptr, MHD_OPTION_END);
    if (server.daemon == nullptr) return refuse("serve on");
    logAddress();
    return true;
}

void serverPublish(StreamEvent kind) {
    const LockGuard guard(server.lock);
    ++server.published.of[static_cast<size_t>(kind)];
    for (Client* client = firstLocked(); client != nullptr; client = nextOf(client)) {
        wakeLocked(client);
    }
}

void serverSweep() {
    const double now = clockSteadySeconds();
    const LockGuard guard(server.lock);
    for (Client* client = firstLocked(); client != nullptr; client = nextOf(client)) {
        if (client->hasToTake) crowdTook(*client, peerTakenBytes(client->descriptor), now);
        if (client->isCut) shutLocked(client);
        if (isLate(*client, now) || isInTheWayLocked(*client, now)) cutOffLocked(client);
        if (hasLeft(*client) && crowdCut(server.crowd, *client)) shutLocked(client);
        if (client->isSuspended && eventsWakes(client->events, server.published, now)) {
            wakeLocked(client);
        }
    }
    server.inTheWay = nullptr;
}

ServerCounts serverCounts() {
    const LockGuard guard(server.lock);
    return {.clients = server.crowd.count,
            .eventClients = server.crowd.eventCount,
            .cutOffClients = server.cutOffClients};
}

void serverStop() {
    if (server.daemon == nullptr) return;
    {
        const LockGuard guard(server.lock);
        server.isEnding = true;
        for (Client* client = firstLocked(); client != nullptr; client = nextOf(client)) {
            wakeLocked(client);
        }
    }
    MHD_stop_daemon(std::exchange(server.daemon, nullptr));
    server.zippedAssets.clear();
    for (SharedText* const text :
         {&server.metrics, &server.zippedMetrics, &server.events[0], &server.events[1],
          &server.zippedEvents[0], &server.zippedEvents[1], &server.zippedSnapshot}) {
        *text = {};
    }
}
