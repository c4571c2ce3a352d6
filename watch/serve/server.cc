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

#include "lib/base/clock.h"
#include "lib/base/lock.h"
#include "lib/base/log.h"
#include "watch/serve/crowd.h"
#include "watch/serve/events.h"
#include "watch/serve/peer_taken.h"
#include "watch/serve/safe_headers.h"
#include "watch/serve/texts.h"
#include "watch/serve/zipped.h"

namespace {

// Enough for a crowd of clients that connect at once: none has to try again.
constexpr int kBacklog = 1024;
// A connection isn't taken before its first byte, or after so many seconds.
constexpr int kDeferSeconds = 5;
// More than clients may be: the extras, and those that are cut off but not yet gone.
constexpr uint32_t kSpareConnections = 2 * kCrowdExtras;
constexpr size_t kHeaderBytes = 1024;
// After capture and whatever else the machine has to do.
constexpr int kNice = 10;

// A connection. Guarded by Server::lock.
struct Client : CrowdMember {
    int descriptor;
    bool hasNul;  // in the path or the query of its request

    // In kAnswer and kEvents: the text that it is given, to be compared only.
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

    // Of the server's thread.
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
bool isInTheWay(const Client& client, const Body* text, double nowSeconds) {
    return client.phase == CrowdPhase::kAnswer && client.text != nullptr && client.text == text &&
           nowSeconds - client.sinceSeconds > kEventsReadSeconds;
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

// What an answer says beside its text.
struct AnswerHead {
    std::string_view contentType;
    unsigned status = MHD_HTTP_OK;
    bool isPage = false;
    bool varies =
        false;  // compressed for those who take that, which caches have to know in any case
    bool isZipped = false;
    std::string tag = {};  // empty: none
};

bool addHeaders(MHD_Response* response, const AnswerHead& head) {
    const auto add = [response](const char* name, std::string_view value) {
        return addHeader(response, name, value);
    };
    return safeHeadersAdd(response) && add("Content-Type", head.contentType) &&
           add("Content-Security-Policy",
               head.isPage ? kWebContentSecurityPolicy : kSafeHeadersNoPage) &&
           add("Cache-Control", head.isPage ? "no-cache" : "no-store") &&
           (!head.varies || add("Vary", "Accept-Encoding")) &&
           (!head.isZipped || add(MHD_HTTP_HEADER_CONTENT_ENCODING, "gzip")) &&
           (head.tag.empty() || add(MHD_HTTP_HEADER_ETAG, head.tag)) &&
           (head.status != MHD_HTTP_METHOD_NOT_ALLOWED || add("Allow", "GET, HEAD")) &&
           (!server.closesAfterAnswer || add(MHD_HTTP_HEADER_CONNECTION, "close"));
}

// Takes the response. Without memory for an answer the connection is closed.
MHD_Result queue(MHD_Connection* connection, MHD_Response* response, const AnswerHead& head) {
    if (response == nullptr) return MHD_NO;
    const bool isWhole = addHeaders(response, head);
    const MHD_Result result =
        isWhole ? MHD_queue_response(connection, head.status, response) : MHD_NO;
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

// The response holds the text's body.
MHD_Response* responseOfText(ServedText text) {
    char* const bytes = const_cast<char*>(text.body.text().data()) + text.at;
    Body* const held = text.body.release();
    MHD_Response* const response = MHD_create_response_from_buffer_with_free_callback_cls(
        text.sizeBytes, bytes, dropBody, held);
    if (response == nullptr) dropBody(held);
    return response;
}

MHD_Result answerLine(MHD_Connection* connection, unsigned status, const char* line) {
    char text[128];
    const int length = std::snprintf(text, sizeof text, "%s\n", line);
    return queue(
        connection,
        MHD_create_response_from_buffer(static_cast<size_t>(length), text, MHD_RESPMEM_MUST_COPY),
        {.contentType = kPlainText, .status = status});
}

MHD_Result answerText(MHD_Connection* connection,
                      Client* client,
                      ServedText text,
                      const char* contentType,
                      unsigned status = MHD_HTTP_OK) {
    if (!text.body) {
        return answerLine(connection, MHD_HTTP_SERVICE_UNAVAILABLE, "no memory at present");
    }
    {
        const LockGuard guard(server.lock);
        client->text = text.body.address();
    }
    const AnswerHead head = {
        .contentType = contentType, .status = status, .varies = true, .isZipped = text.isZipped};
    return queue(connection, responseOfText(std::move(text)), head);
}

EventNumbers published() {
    const LockGuard guard(server.lock);
    return server.published;
}

MHD_Result answerSnapshot(MHD_Connection* connection, Client* client) {
    ServedText text = textsSnapshot(published(), server.takesZipped);
    if (text.body) return answerText(connection, client, std::move(text), kJson);
    return answerLine(connection, MHD_HTTP_SERVICE_UNAVAILABLE, "no interval has ended yet");
}

MHD_Result answerHealth(MHD_Connection* connection, Client* client) {
    bool isWell = true;
    ServedText text = textsHealth(isWell);
    return answerText(connection, client, std::move(text), kJson,
                      isWell ? MHD_HTTP_OK : MHD_HTTP_SERVICE_UNAVAILABLE);
}

// Called by libmicrohttpd for more bytes of an event stream.
ssize_t readEvents(void* context, uint64_t at, char* buffer, size_t sizeBytes) {
    auto* const client = static_cast<Client*>(context);
    const bool isZipped = client->events.isZipped;  // constant while there is a stream
    if (isZipped && at == 0) {
        return static_cast<ssize_t>(kZippedHeader.copy(buffer, sizeBytes));
    }
    const Events newest = textsEvents(published(), isZipped);
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
    if (server.isHead) {
        return queue(connection, responseOfConstant(""), {.contentType = kEventStream});
    }
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
    return queue(connection,
                 MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, kServerClientBytes, readEvents,
                                                   client, nullptr),
                 {.contentType = kEventStream, .varies = true, .isZipped = server.takesZipped});
}

// The same for all forms of a text: hence weak (RFC 9110, 8.8.1).
std::string tagOf(std::string_view text) {
    char tag[40];
    const uint64_t hash = std::hash<std::string_view>()(text);
    std::snprintf(tag, sizeof tag, "W/\"%zx-%016llx\"", text.size(),
                  static_cast<unsigned long long>(hash));
    return tag;
}

MHD_Result answerAsset(MHD_Connection* connection, const WebAsset& asset) {
    AnswerHead head = {
        .contentType = asset.contentType, .isPage = true, .varies = true, .tag = tagOf(asset.body)};
    const std::string_view known = headerOf(connection, MHD_HTTP_HEADER_IF_NONE_MATCH);
    if (known == "*" || known.find(head.tag) != std::string_view::npos) {
        head.status = MHD_HTTP_NOT_MODIFIED;
        return queue(connection, responseOfConstant(""), head);
    }
    ServedText zipped = server.takesZipped ? textsZippedAsset(asset) : ServedText{};
    if (!zipped.body) return queue(connection, responseOfConstant(asset.body), head);
    head.isZipped = true;
    return queue(connection, responseOfText(std::move(zipped)), head);
}

MHD_Result answer(MHD_Connection* connection, Client* client, const Route& route) {
    const bool zips = server.takesZipped;
    switch (route.kind) {
        case RouteKind::kAsset:
            return answerAsset(connection, *route.asset);
        case RouteKind::kMetrics:
            return answerText(connection, client, textsMetrics(zips), kMetricsText);
        case RouteKind::kSnapshot:
            return answerSnapshot(connection, client);
        case RouteKind::kEvents:
            return answerEvents(connection, client);
        case RouteKind::kHistoryOfTotals:
        case RouteKind::kHistoryOfRow:
            return answerText(connection, client, textsHistory(route, zips), kJson);
        case RouteKind::kSource:
            return answerText(connection, client, textsSource(zips), kJson);
        case RouteKind::kHealth:
            return answerHealth(connection, client);
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
    textsBegin(rules.answers, rules.routes.assets);
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
    const Body* const inTheWay = textsTakeInTheWay();
    const LockGuard guard(server.lock);
    for (Client* client = firstLocked(); client != nullptr; client = nextOf(client)) {
        if (client->hasToTake) crowdTook(*client, peerTakenBytes(client->descriptor), now);
        if (client->isCut) shutLocked(client);
        if (isLate(*client, now) || isInTheWay(*client, inTheWay, now)) cutOffLocked(client);
        if (hasLeft(*client) && crowdCut(server.crowd, *client)) shutLocked(client);
        if (client->isSuspended && eventsWakes(client->events, server.published, now)) {
            wakeLocked(client);
        }
    }
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
    textsEnd();
}
