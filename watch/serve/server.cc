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
#include <utility>

#include "lib/base/clock.h"
#include "lib/base/lock.h"
#include "lib/base/log.h"
#include "watch/serve/crowd.h"
#include "watch/serve/events.h"
#include "watch/serve/peer_taken.h"
#include "watch/serve/safe_headers.h"
#include "watch/serve/shared_text.h"

namespace {

// Of a crowd that comes at once nobody's bytes are lost, only to come again after a crowd's.
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
    uint64_t published PELMO_GUARDED_BY(lock) = 0;  // intervals
    uint64_t cutOffClients PELMO_GUARDED_BY(lock) = 0;
    bool isEnding PELMO_GUARDED_BY(lock) = false;
    // What slow readers hold so that no newer text can be written; null where nobody waits for it.
    const Body* inTheWay PELMO_GUARDED_BY(lock) = nullptr;

    // Of the server's thread.
    SharedText events;
    uint64_t eventNumber = 0;  // of the newest text
    EventPlaces places = {};
    uint64_t asked = 0;  // the interval that was asked for last
    SharedText metrics;
    double metricsSeconds = 0;
    bool closesAfterAnswer = false;  // of the request that is being answered
    bool isNice = false;
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

bool isLate(const Client& client, double nowSeconds) {
    const double seconds = nowSeconds - client.sinceSeconds;
    switch (client.phase) {
        case CrowdPhase::kRequest:
            return seconds > kServerRequestSeconds;
        case CrowdPhase::kAnswer:
            return seconds > kServerAnswerSeconds;
        case CrowdPhase::kEvents:
            return eventsIsStalled(client.events, nowSeconds);
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
    if (status == MHD_HTTP_METHOD_NOT_ALLOWED) isWhole &= addHeader(response, "Allow", "GET");
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

MHD_Result answerBody(MHD_Connection* connection, const BodyHold& body, const char* contentType) {
    if (!body) return answerLine(connection, MHD_HTTP_SERVICE_UNAVAILABLE, "no memory at present");
    return queue(connection, MHD_HTTP_OK, responseOfBody(body, 0, body.text().size()), contentType);
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

// Without memory for newer ones the last stay.
MHD_Result answerMetrics(MHD_Connection* connection, Client* client) {
    const double now = clockSteadySeconds();
    const bool isDue = !server.metrics.newest || now - server.metricsSeconds >= kKeepSeconds;
    if (isDue && mayRenew(server.metrics)) {
        BodyHold body = makeBody(server.rules->answers.metrics);
        server.metricsSeconds = now;
        if (body) sharedTextRenew(server.metrics, std::move(body));
    }
    noteText(client, server.metrics.newest);
    return answerBody(connection, server.metrics.newest, kMetricsText);
}

Event lastEvent() {
    return {server.events.newest, server.eventNumber};
}

// The newest event, written now where nobody wanted it before. Without memory for it, or while slow
// readers are in the way, the one before stays.
Event newestEvent() {
    uint64_t published = 0;
    {
        const LockGuard guard(server.lock);
        published = server.published;
    }
    if (server.asked == published || !mayRenew(server.events)) return lastEvent();
    server.asked = published;
    EventPlaces places{};
    BodyHold body =
        makeBody([&](JsonBuffer& out) { return server.rules->answers.event(out, places); });
    if (!body) return lastEvent();
    sharedTextRenew(server.events, std::move(body));
    server.eventNumber = published;
    server.places = places;
    return lastEvent();
}

MHD_Result answerSnapshot(MHD_Connection* connection, Client* client) {
    const Event newest = newestEvent();
    if (!newest.body) {
        return answerLine(connection, MHD_HTTP_SERVICE_UNAVAILABLE, "no interval has ended yet");
    }
    noteText(client, newest.body);
    return queue(connection, MHD_HTTP_OK,
                 responseOfBody(newest.body, server.places.jsonAt, server.places.jsonBytes), kJson);
}

MHD_Result answerHistory(MHD_Connection* connection, const Route& route) {
    const ServerAnswers& answers = server.rules->answers;
    const bool isRow = route.kind == RouteKind::kHistoryOfRow;
    return answerBody(connection, makeBody([&](JsonBuffer& out) {
                          return isRow ? answers.historyOfRow(route.row, out)
                                       : answers.historyOfTotals(out);
                      }),
                      kJson);
}

// Called by libmicrohttpd for more bytes of an event stream.
ssize_t readEvents(void* context, uint64_t, char* buffer, size_t sizeBytes) {
    auto* const client = static_cast<Client*>(context);
    const Event newest = newestEvent();
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
    bool hasRoom = false;
    {
        const LockGuard guard(server.lock);
        hasRoom = crowdHasRoomForEvents(server.crowd, *client);
        if (hasRoom) {
            client->events = {};
            client->events.sinceSeconds = clockSteadySeconds();
            client->connection = connection;
            setPhaseLocked(client, CrowdPhase::kEvents);
        }
    }
    if (!hasRoom) {
        return answerLine(connection, MHD_HTTP_SERVICE_UNAVAILABLE, "too many follow the events");
    }
    server.closesAfterAnswer = true;
    return queue(connection, MHD_HTTP_OK,
                 MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, kServerClientBytes, readEvents,
                                                   client, nullptr),
                 "text/event-stream");
}

MHD_Result answer(MHD_Connection* connection, Client* client, const Route& route) {
    switch (route.kind) {
        case RouteKind::kAsset:
            return queue(connection, MHD_HTTP_OK, responseOfConstant(route.asset->body),
                         route.asset->contentType, true);
        case RouteKind::kMetrics:
            return answerMetrics(connection, client);
        case RouteKind::kSnapshot:
            return answerSnapshot(connection, client);
        case RouteKind::kEvents:
            return answerEvents(connection, client);
        case RouteKind::kHistoryOfTotals:
        case RouteKind::kHistoryOfRow:
            return answerHistory(connection, route);
        case RouteKind::kHealth:
            return answerBody(connection, makeBody(server.rules->answers.health), kJson);
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

std::string_view headerOf(MHD_Connection* connection, const char* name) {
    const char* const value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
    return value != nullptr ? value : "";
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
    const bool isPlain = std::string_view(method) == "GET" && !hasBody(connection);
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
    if (client == nullptr) {  // nobody would count it, nor cut it off
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
void tellAddress() {
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
    tellAddress();
    return true;
}

void serverPublish() {
    const LockGuard guard(server.lock);
    ++server.published;
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
    server.metrics = {};
    server.events = {};
}
