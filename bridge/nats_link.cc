#include "bridge/nats_link.h"

#include <charconv>

#include "programs/json.h"

namespace {

constexpr int64_t kReconnectMilliseconds = 250;
constexpr int64_t kJitterMilliseconds = 100;
constexpr int64_t kPingMilliseconds = 2000;
constexpr int kMostPingsOut = 2;
constexpr int64_t kCloseMilliseconds = 2000;
constexpr const char* kAnswerPrefix = "_INBOX.";

NatsLink& linkOf(void* closure) {
    return *static_cast<NatsLink*>(closure);
}

std::string lastErrorOf(natsConnection* connection) {
    const char* text = nullptr;
    const natsStatus status = natsConnection_GetLastError(connection, &text);
    if (text != nullptr && *text != '\0') return text;
    return natsStatus_GetText(status);
}

// A URL may carry a user's name and password.
std::string serverOf(natsConnection* connection) {
    char url[256];
    if (natsConnection_GetConnectedUrl(connection, url, sizeof url) != NATS_OK) return "NATS";
    std::string text = url;
    const size_t user = text.find('@');
    const size_t scheme = text.find("://");
    if (user == std::string::npos || scheme == std::string::npos) return text;
    return text.substr(0, scheme + 3) + text.substr(user + 1);
}

// The connection is the callback's: the link may not have it yet.
void onUp(natsConnection* connection, void* closure) {
    const NatsLink& link = linkOf(closure);
    const int64_t mostBytes = natsConnection_GetMaxPayload(connection);
    link.events.up(link.events.closure, serverOf(connection), static_cast<size_t>(mostBytes));
}

void onDown(natsConnection* connection, void* closure) {
    const NatsLink& link = linkOf(closure);
    link.events.down(link.events.closure, lastErrorOf(connection).c_str());
}

void onEnded(natsConnection* connection, void* closure) {
    const NatsLink& link = linkOf(closure);
    link.events.ended(link.events.closure, lastErrorOf(connection).c_str());
}

void onError(natsConnection*, natsSubscription*, natsStatus status, void* closure) {
    const NatsLink& link = linkOf(closure);
    link.events.error(link.events.closure, natsStatus_GetText(status));
}

void onAnswer(natsConnection*, natsSubscription*, natsMsg* answer, void* closure) {
    const NatsLink& link = linkOf(closure);
    std::string_view subject = natsMsg_GetSubject(answer);
    subject.remove_prefix(std::min(subject.size(), link.answerPrefix.size()));
    uint64_t number = 0;
    const auto [stop, error] =
        std::from_chars(subject.data(), subject.data() + subject.size(), number);
    if (error == std::errc{} && stop == subject.data() + subject.size()) {
        link.events.answer(link.events.closure, number, answer);
    } else {
        natsMsg_Destroy(answer);
    }
}

// The first step that failed is named in the fault.
struct Steps {
    std::string& fault;
    bool isGood = true;

    void take(const char* what, natsStatus status) {
        if (!isGood || status == NATS_OK) return;
        isGood = false;
        fault = std::string(what) + ": " + natsStatus_GetText(status);
    }
};

void setSecurity(natsOptions* made, const BridgeOptions& options, Steps& steps) {
    if (!options.credentials.empty()) {
        steps.take("--credentials", natsOptions_SetUserCredentialsFromFiles(
                                        made, options.credentials.c_str(), nullptr));
    }
    if (!options.tlsCa.empty()) {
        steps.take("--tls-ca", natsOptions_SetSecure(made, true));
        steps.take("--tls-ca", natsOptions_LoadCATrustedCertificates(made, options.tlsCa.c_str()));
    }
    if (!options.tlsCert.empty()) {
        steps.take("--tls-cert and --tls-key",
                   natsOptions_LoadCertificatesChain(made, options.tlsCert.c_str(),
                                                     options.tlsKey.c_str()));
    }
}

void setConnection(NatsLink& link, const BridgeOptions& options, Steps& steps) {
    std::vector<const char*> servers;
    for (const std::string& server : options.servers) {
        servers.push_back(server.c_str());
    }
    natsOptions* const made = link.options;
    steps.take("--nats",
               natsOptions_SetServers(made, servers.data(), static_cast<int>(servers.size())));
    steps.take("--name", natsOptions_SetName(made, ("pelmobridge " + options.name).c_str()));
    steps.take("--nats", natsOptions_SetMaxReconnect(made, -1));
    steps.take("--nats", natsOptions_SetReconnectWait(made, kReconnectMilliseconds));
    steps.take("--nats",
               natsOptions_SetReconnectJitter(made, kJitterMilliseconds, kJitterMilliseconds));
    steps.take("--nats", natsOptions_SetPingInterval(made, kPingMilliseconds));
    steps.take("--nats", natsOptions_SetMaxPingsOut(made, kMostPingsOut));
    // What the bridge publishes comes back neither to itself, nor by libnats's own buffer.
    steps.take("--nats", natsOptions_SetNoEcho(made, true));
    steps.take("--nats", natsOptions_SetFailRequestsOnDisconnect(made, true));
    steps.take("--nats", natsOptions_SetDisconnectedCB(made, onDown, &link));
    steps.take("--nats", natsOptions_SetReconnectedCB(made, onUp, &link));
    steps.take("--nats", natsOptions_SetClosedCB(made, onEnded, &link));
    steps.take("--nats", natsOptions_SetErrorHandler(made, onError, &link));
    steps.take("--nats", natsOptions_SetRetryOnFailedConnect(made, true, onUp, &link));
}

}  // namespace

bool natsLinkOpen(NatsLink& link,
                  const BridgeOptions& options,
                  const NatsEvents& events,
                  std::string& fault) {
    link.events = events;
    Steps steps{fault};
    steps.take("libnats", natsOptions_Create(&link.options));
    if (!steps.isGood) return false;
    setConnection(link, options, steps);
    setSecurity(link.options, options, steps);
    if (!steps.isGood) return false;
    const natsStatus status = natsConnection_Connect(&link.connection, link.options);
    if (status != NATS_NOT_YET_CONNECTED) steps.take("--nats", status);
    if (steps.isGood) {
        natsInbox* inbox = nullptr;
        steps.take("inbox", natsInbox_Create(&inbox));
        link.answerPrefix = steps.isGood ? std::string(inbox) + "." : kAnswerPrefix;
        natsInbox_Destroy(inbox);
        steps.take("inbox",
                   natsConnection_Subscribe(&link.answers, link.connection,
                                            (link.answerPrefix + "*").c_str(), onAnswer, &link));
        steps.take("inbox", natsSubscription_SetPendingLimits(link.answers, -1, -1));
        steps.take("streams", natsConnection_JetStream(&link.streams, link.connection, nullptr));
    }
    if (steps.isGood && status == NATS_OK) onUp(link.connection, &link);
    return steps.isGood;
}

void natsLinkClose(NatsLink& link) {
    if (link.connection != nullptr)
        (void)natsConnection_FlushTimeout(link.connection, kCloseMilliseconds);
    natsSubscription_Destroy(link.answers);
    jsCtx_Destroy(link.streams);
    natsConnection_Destroy(link.connection);
    natsOptions_Destroy(link.options);
    link.answers = nullptr;
    link.streams = nullptr;
    link.connection = nullptr;
    link.options = nullptr;
    (void)nats_CloseAndWait(0);  // until none of its threads calls back
}

std::string natsLinkFault(const NatsLink& link) {
    return lastErrorOf(link.connection);
}

std::string natsLinkAnswerSubject(const NatsLink& link, uint64_t number) {
    return link.answerPrefix + std::to_string(number);
}

natsMsg* natsLinkMessage(const std::string& subject,
                         const std::string& reply,
                         const std::string& body,
                         const std::vector<NatsHeader>& headers) {
    natsMsg* message = nullptr;
    const char* const replyText = reply.empty() ? nullptr : reply.c_str();
    natsStatus status = natsMsg_Create(&message, subject.c_str(), replyText, body.data(),
                                       static_cast<int>(body.size()));
    for (const NatsHeader& header : headers) {
        if (status == NATS_OK && header.value != nullptr)
            status = natsMsgHeader_Set(message, header.name, header.value);
    }
    if (status == NATS_OK) return message;
    natsMsg_Destroy(message);
    return nullptr;
}

const char* natsHeaderOf(natsMsg* message, const char* name) {
    const char* value = nullptr;
    return natsMsgHeader_Get(message, name, &value) == NATS_OK ? value : nullptr;
}

bool natsLinkStream(NatsLink& link,
                    const std::string& name,
                    const std::vector<std::string>& subjects,
                    std::string& fault) {
    jsStreamInfo* info = nullptr;
    jsErrCode code = jsErrCode{};
    natsStatus status = js_GetStreamInfo(&info, link.streams, name.c_str(), nullptr, &code);
    if (status == NATS_NOT_FOUND) {
        std::vector<const char*> texts;
        texts.reserve(subjects.size());
        for (const std::string& subject : subjects) {
            texts.push_back(subject.c_str());
        }
        jsStreamConfig config;
        jsStreamConfig_Init(&config);
        config.Name = name.c_str();
        config.Subjects = texts.data();
        config.SubjectsLen = static_cast<int>(texts.size());
        status = js_AddStream(&info, link.streams, &config, nullptr, &code);
    }
    jsStreamInfo_Destroy(info);
    if (status == NATS_OK) return true;
    fault = natsFaultText(status, code);
    return false;
}

std::string natsFaultText(natsStatus status, jsErrCode code) {
    const char* const last = nats_GetLastError(nullptr);
    std::string text = last != nullptr && *last != '\0' ? last : natsStatus_GetText(status);
    if (code != 0) text += " (" + std::to_string(code) + ")";
    return text;
}

namespace {

// What a message of this size or kind will always be answered with.
constexpr int64_t kStreamRefusesSize = 10054;
constexpr int64_t kStreamRefusesHeaders = 10040;

// The node of the value of a key, or null.
const JsonNode* valueOf(const JsonTape& tape, uint32_t object, std::string_view key) {
    if (tape.nodes[object].kind != JsonKind::kObject) return nullptr;
    for (uint32_t at = object + 1; at < tape.nodes[object].next;) {
        const uint32_t value = tape.nodes[at].next;
        if (jsonTapeToken(tape, at) == key) return &tape.nodes[value];
        at = tape.nodes[value].next;
    }
    return nullptr;
}

}  // namespace

StreamAnswer streamAnswerRead(std::string_view body, bool nobodyThere, std::string& fault) {
    fault = "no stream takes the subject";
    if (nobodyThere) return StreamAnswer::kPassing;
    JsonTape tape;
    fault = "an answer that isn't a stream's";
    if (!jsonTapeRead(tape, body)) return StreamAnswer::kPassing;
    const JsonNode* const error = valueOf(tape, 0, "error");
    if (error == nullptr)
        return valueOf(tape, 0, "stream") != nullptr ? StreamAnswer::kTaken
                                                     : StreamAnswer::kPassing;
    const auto node = static_cast<uint32_t>(error - tape.nodes.data());
    const JsonNode* const text = valueOf(tape, node, "description");
    if (text != nullptr && text->kind == JsonKind::kString) {
        jsonTapeString(tape, static_cast<uint32_t>(text - tape.nodes.data()), fault);
    }
    const JsonNode* const number = valueOf(tape, node, "err_code");
    int64_t code = 0;
    if (number != nullptr && number->kind == JsonKind::kNumber) {
        const std::string_view digits = body.substr(number->begin, number->end - number->begin);
        std::from_chars(digits.data(), digits.data() + digits.size(), code);
    }
    const bool isForGood = code == kStreamRefusesSize || code == kStreamRefusesHeaders;
    return isForGood ? StreamAnswer::kRefused : StreamAnswer::kPassing;
}
