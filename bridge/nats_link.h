// The connection to NATS: libnats under the calls that the bridge needs.
//
// libnats connects again by itself, for good, to whichever of the servers is there; the link
// reports that it is up or down. Where libnats gives a connection up, since the credentials are
// refused again and again, the link makes a new one every five seconds.
//
// Publishing to a stream is done by hand, with a reply subject for the stream's answer: libnats's
// own asynchronous publishing doesn't say which message an answer was for.
//
// Ownership: a message that is handed to a callback is destroyed by it. Texts of errors have
// neither passwords nor keys.
//
// Threads: callbacks run on threads of libnats's, several at a time, with no lock of the link's
// held, and may call the link. natsLinkClose waits for them.

#pragma once

#include <nats/nats.h>

#include <cstdint>
#include <string>
#include <vector>

#include "bridge/options.h"

// A header that each message has, and its value. A null value: none.
struct NatsHeader {
    const char* name;
    const char* value;
};

struct NatsEvents {
    void* closure;
    // The server's URL, for people, and the largest body that it takes.
    void (*up)(void* closure, const std::string& server, size_t mostBytes);
    void (*down)(void* closure, const char* reason);
    void (*ended)(void* closure, const char* reason);
    // Answers to messages that were sent with natsLinkAnswerSubject(number).
    void (*answer)(void* closure, uint64_t number, natsMsg* answer);
    void (*error)(void* closure, const char* text);
};

struct NatsLink {
    NatsEvents events = {};
    std::string answerPrefix;
    natsOptions* options = nullptr;
    natsConnection* connection = nullptr;
    jsCtx* streams = nullptr;
    natsSubscription* answers = nullptr;
};

// Connects in the background; `fault` is what is wrong with the options, files among them.
[[nodiscard]] bool natsLinkOpen(NatsLink& link,
                                const BridgeOptions& options,
                                const NatsEvents& events,
                                std::string& fault);

// Sends what is waiting, for two seconds at most.
void natsLinkClose(NatsLink& link);

// Why it isn't connected.
[[nodiscard]] std::string natsLinkFault(const NatsLink& link);
[[nodiscard]] std::string natsLinkAnswerSubject(const NatsLink& link, uint64_t number);

// A message that the caller publishes by natsConnection_PublishMsg and destroys. Null: no memory,
// or a subject or a header that libnats doesn't take.
[[nodiscard]] natsMsg* natsLinkMessage(const std::string& subject,
                                       const std::string& reply,
                                       const std::string& body,
                                       const std::vector<NatsHeader>& headers);

// The value of a header, or null.
[[nodiscard]] const char* natsHeaderOf(natsMsg* message, const char* name);

// What libnats says of its last call on this thread, which failed.
[[nodiscard]] std::string natsFaultText(natsStatus status, jsErrCode code = jsErrCode{});

// Makes the stream with these subjects where there is none of the name. `fault` where there is one
// that doesn't have them, or JetStream doesn't answer.
[[nodiscard]] bool natsLinkStream(NatsLink& link,
                                  const std::string& name,
                                  const std::vector<std::string>& subjects,
                                  std::string& fault);

// What a stream answered to a message.
enum class StreamAnswer { kTaken, kPassing, kRefused };
[[nodiscard]] StreamAnswer streamAnswerRead(std::string_view body,
                                            bool nobodyThere,
                                            std::string& fault);
