#include "watch/serve/events.h"

namespace {

constexpr std::string_view kComment = ":\n\n";

bool isSilentForLong(const EventClient& client, double nowSeconds) {
    return nowSeconds - client.sinceSeconds >= kEventsSilenceSeconds;
}

}  // namespace

std::string_view eventsNext(EventClient& client,
                            const Event& newest,
                            size_t mostBytes,
                            double nowSeconds) {
    if (client.body && client.sentBytes == client.body.text().size()) {
        client.body = {};
        client.sinceSeconds = nowSeconds;
    }
    if (!client.body && newest.number > client.number) {
        client.body = newest.body;
        client.number = newest.number;
        client.sentBytes = 0;
        client.sinceSeconds = nowSeconds;
    }
    if (client.body) {
        const std::string_view piece = client.body.text().substr(client.sentBytes, mostBytes);
        client.sentBytes += piece.size();
        return piece;
    }
    if (!isSilentForLong(client, nowSeconds) || mostBytes < kComment.size()) return {};
    client.sinceSeconds = nowSeconds;
    return kComment;
}

bool eventsWakes(const EventClient& client, uint64_t newest, double nowSeconds) {
    return newest > client.number || isSilentForLong(client, nowSeconds);
}

bool eventsIsStalled(const EventClient& client, double nowSeconds) {
    return client.body && nowSeconds - client.sinceSeconds > kEventsReadSeconds;
}
