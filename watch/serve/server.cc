#include "watch/serve/server.h"

#include <microhttpd.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "lib/base/clock.h"
#include "lib/base/lock.h"
#include "lib/base/log.h"
#include "watch/serve/events.h"

namespace {

// Of a crowd that comes at once nobody's bytes are lost, only to come again behind a crowd's.
constexpr int kBacklog = 1024;
// A connection isn't taken ahead of its first byte, but behind so many seconds.
constexpr int kDeferSeconds = 5;
// More than clients may be: whoever comes when all places are taken is looked at, and one goes.
constexpr uint32_t kSpareConnections = 32;
constexpr size_t kQueryParts = 16;
constexpr size_t kHeaderBytes = 1024;
// Metrics and their kind are made anew for a second scrape behind so much time only.
constexpr double kKeepSeconds = 1;
// Behind capture and whatever else the machine has to do.
constexpr int kNice = 10;

enum class Phase : uint8_t {
    kRequest,  // its head is awaited
    kAnswer,
    kEvents,
    kIdle,  // between two requests
};

// A connection. Guarded by Server::lock.
struct Client {
    Client *previous, *next;
    int descriptor;
    Phase phase;
    double sinceSeconds;  // of the phase
    bool isCut;           // its socket is shut, and libmicrohttpd will notice

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
    Client* clients PELMO_GUARDED_BY(lock) = nullptr;
    uint64_t published PELMO_GUARDED_BY(lock) = 0;  // intervals
    ServerCounts counts PELMO_GUARDED_BY(lock) = {};
    uint64_t cutClients PELMO_GUARDED_BY(lock) = 0;  // of counts.clients
    bool isEnding PELMO_GUARDED_BY(lock) = false;

    // Of the server's thread.
    Event newest = {};
    EventPlaces places = {};
    uint64_t asked = 0;  // the interval that was asked for last
    BodyHold metrics;
    double metricsSeconds = 0;
    bool isNice = false;
};

Server server;

// Clients, with the lock held.

void enterClientLocked(Client* client) PELMO_REQUIRES(server.lock) {
    client->next = server.clients;
    if (server.clients != nullptr) server.clients->previous = client;
    server.clients = client;
    ++server.counts.clients;
}

void leaveClientLocked(Client* client) PELMO_REQUIRES(server.lock) {
    (client->previous != nullptr ? client->previous->next : server.clients) = client->next;
    if (client->next != nullptr) client->next->previous = client->previous;
    --server.counts.clients;
    if (client->isCut) --server.cutClients;
}

void setPhaseLocked(Client* client, Phase phase) PELMO_REQUIRES(server.lock) {
    if (client->phase == Phase::kEvents) --server.counts.eventClients;
    if (phase == Phase::kEvents) ++server.counts.eventClients;
    client->phase = phase;
    client->sinceSeconds = clockSteadySeconds();
}

void wakeLocked(Client* client) PELMO_REQUIRES(server.lock) {
    if (!std::exchange(client->isSuspended, false)) return;
    MHD_resume_connection(client->connection);
}

// libmicrohttpd owns the socket and closes it, on its thread.
void shutLocked(Client* client) PELMO_REQUIRES(server.lock) {
    if (std::exchange(client->isCut, true)) return;
    ++server.cutClients;
    shutdown(client->descriptor, SHUT_RDWR);
    wakeLocked(client);
}

void cutOffLocked(Client* client) PELMO_REQUIRES(server.lock) {
    ++server.counts.cutOffClients;
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
        case Phase::kRequest:
            return seconds > kServerRequestSeconds;
        case Phase::kAnswer:
            return seconds > kServerAnswerSeconds;
        case Phase::kEvents:
            return eventsIsStalled(client.events, nowSeconds);
        case Phase::kIdle:
            return seconds > kServerIdleSeconds;
    }
    return false;
}

// The one that goes where there are too many: of those without an answer under way the longest
// silent, else the newcomer.
Client* chooseSurplusLocked(Client* newcomer) PELMO_REQUIRES(server.lock) {
    Client* chosen = newcomer;
    for (Client* client = server.clients; client != nullptr; client = client->next) {
        const bool asks = client->phase == Phase::kAnswer || client->phase == Phase::kEvents;
        if (asks || client->isCut) continue;
        // Many come in one step of the clock: the list has the newest first.
        if (client->sinceSeconds <= chosen->sinceSeconds) chosen = client;
    }
    return chosen;
}

// Answers.

struct Header {
    const char* name;
    const char* value;
};

constexpr Header kHeaders[] = {
    {"X-Content-Type-Options", "nosniff"},
    {"X-Frame-Options", "DENY"},
    {"Referrer-Policy", "no-referrer"},
    {"Cross-Origin-Resource-Policy", "same-origin"},
    {"Cross-Origin-Opener-Policy", "same-origin"},
};

constexpr std::string_view kNoPage = "default-src 'none'; frame-ancestors 'none'; base-uri 'none'";
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
    bool isWhole = addHeader(response, "Content-Type", contentType);
    for (const Header& header : kHeaders) {
        isWhole &= addHeader(response, header.name, header.value);
    }
    isWhole &= addHeader(response, "Content-Security-Policy",
                         isPage ? kWebContentSecurityPolicy : kNoPage);
    return isWhole && addHeader(response, "Cache-Control", isPage ? "no-cache" : "no-store");
}

// Without memory for an answer the connection is closed.
MHD_Result queue(MHD_Connection* connection,
                 unsigned status,
                 MHD_Response* response,
                 std::string_view contentType,
                 bool isPage = false) {
    if (response == nullptr) return MHD_NO;
    bool isWhole = addHeaders(response, contentType, isPage);
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
    BodyHold body = BodyHold::make();
    if (!body || !write(body.buffer()) || body.buffer().failed) return {};
    return body;
}

MHD_Result answerBody(MHD_Connection* connection, const BodyHold& body, const char* contentType) {
    if (!body) return answerLine(connection, MHD_HTTP_SERVICE_UNAVAILABLE, "out of memory");
    return queue(connection, MHD_HTTP_OK, responseOfBody(body, 0, body.text().size()), contentType);
}

MHD_Result answerMetrics(MHD_Connection* connection) {
    const double now = clockSteadySeconds();
    if (!server.metrics || now - server.metricsSeconds >= kKeepSeconds) {
        server.metrics = makeBody(server.rules->answers.metrics);
        server.metricsSeconds = now;
    }
    return answerBody(connection, server.metrics, kMetricsText);
}

// The newest event, written now where nobody wanted it before. Without memory for it the one before
// stays.
const Event& newestEvent() {
    uint64_t published = 0;
    {
        const LockGuard guard(server.lock);
        published = server.published;
    }
    if (std::exchange(server.asked, published) == published) return server.newest;
    EventPlaces places{};
    BodyHold body =
        makeBody([&](JsonBuffer& out) { return server.rules->answers.event(out, places); });
    if (body) {
        server.newest = {std::move(body), published};
        server.places = places;
    }
    return server.newest;
}

MHD_Result answerSnapshot(MHD_Connection* connection) {
    const Event& newest = newestEvent();
    if (!newest.body) {
        return answerLine(connection, MHD_HTTP_SERVICE_UNAVAILABLE, "no interval has ended yet");
    }
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
    const Event& newest = newestEvent();
    const LockGuard guard(server.lock);
    if (client->isCut) return MHD_CONTENT_READER_END_WITH_ERROR;
    if (server.isEnding) return MHD_CONTENT_READER_END_OF_STREAM;
    const std::string_view piece =
        eventsNext(client->events, newest, sizeBytes, clockSteadySeconds());
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
        hasRoom = server.counts.eventClients < server.rules->mostClients / 2;
        if (hasRoom) {
            client->events = {};
            client->events.sinceSeconds = clockSteadySeconds();
            client->connection = connection;
            setPhaseLocked(client, Phase::kEvents);
        }
    }
    if (!hasRoom) {
        return answerLine(connection, MHD_HTTP_SERVICE_UNAVAILABLE, "too many follow the events");
    }
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
            return answerMetrics(connection);
        case RouteKind::kSnapshot:
            return answerSnapshot(connection);
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
    QueryPart parts[kQueryParts];
    size_t count;
};

MHD_Result takeQueryPart(void* context,
                         MHD_ValueKind,
                         const char* name,
                         size_t nameBytes,
                         const char* value,
                         size_t valueBytes) {
    auto* const query = static_cast<QueryParts*>(context);
    if (query->count == kQueryParts) return MHD_NO;
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
    // A connection goes on only behind an answer that waited for the request's end. Requests that
    // bring something are answered ahead of it, and their connections closed.
    if (*requestContext == nullptr && std::string_view(method) == "GET") {
        *requestContext = client;
        return MHD_YES;
    }
    {
        const LockGuard guard(server.lock);
        setPhaseLocked(client, Phase::kAnswer);
    }
    QueryParts query{};
    MHD_get_connection_values_n(connection, MHD_GET_ARGUMENT_KIND, takeQueryPart, &query);
    const char* const host =
        MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_HOST);
    const RouteRequest request{.method = method,
                               .path = path,
                               .host = host != nullptr ? host : "",
                               .query = {query.parts, query.count}};
    Route route;
    routeFind(request, server.rules->routes, &route);
    return answer(connection, client, route);
}

void onCompleted(void*, MHD_Connection* connection, void**, MHD_RequestTerminationCode) {
    Client* const client = clientOf(connection);
    if (client == nullptr) return;
    BodyHold dropped;
    const LockGuard guard(server.lock);
    std::swap(dropped, client->events.body);
    client->isSuspended = false;
    setPhaseLocked(client, Phase::kIdle);
}

void beNice() {
    if (std::exchange(server.isNice, true)) return;
    (void)setpriority(PRIO_PROCESS, 0, kNice);  // of this thread alone; it goes without, too
}

void openClient(MHD_Connection* connection, void** context) {
    beNice();
    auto* const client = new (std::nothrow) Client{};
    *context = client;
    if (client == nullptr) return;  // its requests are refused
    client->descriptor =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
    const LockGuard guard(server.lock);
    enterClientLocked(client);
    setPhaseLocked(client, Phase::kRequest);
    if (server.counts.clients - server.cutClients > server.rules->mostClients) {
        cutOffLocked(chooseSurplusLocked(client));
    }
}

void closeClient(void** context) {
    auto* const client = static_cast<Client*>(std::exchange(*context, nullptr));
    if (client == nullptr) return;
    {
        const LockGuard guard(server.lock);
        leaveClientLocked(client);
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
        MHD_OPTION_END);
    if (server.daemon == nullptr) return refuse("serve on");
    tellAddress();
    return true;
}

void serverPublish() {
    const LockGuard guard(server.lock);
    ++server.published;
    for (Client* client = server.clients; client != nullptr; client = client->next) {
        wakeLocked(client);
    }
}

void serverSweep() {
    const double now = clockSteadySeconds();
    const LockGuard guard(server.lock);
    for (Client* client = server.clients; client != nullptr; client = client->next) {
        if (!client->isCut && isLate(*client, now)) cutOffLocked(client);
        if (hasLeft(*client)) shutLocked(client);
        if (client->isSuspended && eventsWakes(client->events, server.published, now)) {
            wakeLocked(client);
        }
    }
}

ServerCounts serverCounts() {
    const LockGuard guard(server.lock);
    ServerCounts counts = server.counts;
    counts.clients -= server.cutClients;
    return counts;
}

void serverStop() {
    if (server.daemon == nullptr) return;
    {
        const LockGuard guard(server.lock);
        server.isEnding = true;
        for (Client* client = server.clients; client != nullptr; client = client->next) {
            wakeLocked(client);
        }
    }
    MHD_stop_daemon(std::exchange(server.daemon, nullptr));
    server.metrics = {};
    server.newest = {};
}
