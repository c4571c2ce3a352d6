#include "bus/commands.h"

namespace {

constexpr size_t kManySubjects = SIZE_MAX;

const char* checkSend(const BusSettings& settings) {
    const int ways = settings.original + (settings.prefix != nullptr) + (settings.to != nullptr);
    if (settings.lines && settings.json) return "--lines and --json exclude each other";
    if (ways > 1) return "--original, --prefix and --to exclude each other";
    if (settings.speed && !settings.pace) return "--speed needs --pace";
    if (settings.pace && settings.rate > 0) return "--pace and --rate exclude each other";
    if (settings.pace && !settings.json) return "--pace needs --json";
    if (ways > 0 && !settings.json) return "--original, --prefix and --to need --json";
    return ways == 0 && settings.subjects.empty() ? "needs a SUBJECT" : nullptr;
}

constexpr const char* kListenUsage = "print each message on the subjects; > has advisories too";
constexpr const char* kSendUsage = "send a message, or --count N of them";
constexpr const char* kRequestUsage = "send a request and print its answer";
constexpr const char* kAnswerUsage = "answer requests, with their own fields where none are given";
constexpr const char* kAcceptUsage = "accept a virtual circuit";
constexpr const char* kConnectUsage = "connect to an accepting end";
constexpr const char* kBenchSendUsage = "how many messages can be sent a second";
constexpr const char* kBenchRequestUsage = "how soon requests are answered";
constexpr const char* kBenchListenUsage = "how many messages arrive a second";

constexpr const char* kFields = "SUBJECT [FIELD...]";
constexpr size_t kMany = kManySubjects;

constexpr Command kCommands[] = {
    {"listen", nullptr, "SUBJECT...", kForListen, 1, kMany, false, kListenUsage, runListen, {}},
    {"send", nullptr, kFields, kForSend, 0, 1, true, kSendUsage, runSend, checkSend},
    {"request", nullptr, kFields, kForRequest, 1, 1, true, kRequestUsage, runRequest, {}},
    {"answer", nullptr, kFields, kForAnswer, 1, 1, true, kAnswerUsage, runAnswer, {}},
    {"circuit", "accept", "SUBJECT", kForCircuit, 1, 1, false, kAcceptUsage, runCircuitAccept, {}},
    {"circuit",
     "connect",
     "SUBJECT",
     kForCircuit,
     1,
     1,
     false,
     kConnectUsage,
     runCircuitConnect,
     {}},
    {"bench", "send", "[SUBJECT]", kForBenchSend, 0, 1, false, kBenchSendUsage, runBenchSend, {}},
    {"bench",
     "request",
     "[SUBJECT]",
     kForBenchRequest,
     0,
     1,
     false,
     kBenchRequestUsage,
     runBenchRequest,
     {}},
    {"bench",
     "listen",
     "[SUBJECT]",
     kForBenchListen,
     0,
     1,
     false,
     kBenchListenUsage,
     runBenchListen,
     {}},
};

}  // namespace

std::span<const Command> commandsAll() {
    return kCommands;
}
