#include "watch/serve/events.h"

namespace {

constexpr std::string_view kComment = ":\n\n";
// As a block that isn't compressed (RFC 1951, 3.2.4).
constexpr std::string_view kZippedComment("\x00\x03\x00\xfc\xff:\n\n", 8);

bool isSilentForLong(const EventClient& client, double nowSeconds) {
    return nowSeconds - client.sinceSeconds >= kEventsSilenceSeconds;
}

void begin(EventClient& client, const Event& event, size_t kind, double nowSeconds) {
    client.body = event.body;
    client.numbers.of[kind] = event.number;
    client.sentBytes = 0;
    client.sinceSeconds = nowSeconds;
}

}  // namespace

std::string_view eventsNext(EventClient& client,
                            const Events& newest,
                            size_t mostBytes,
                            double nowSeconds) {
    if (client.body && client.sentBytes == client.body.text().size()) {
        client.body = {};
        client.sinceSeconds = nowSeconds;
    }
    for (size_t kind = 0; !client.body && kind < kStreamEvents; ++kind) {
        if (newest.of[kind].number > client.numbers.of[kind]) {
            begin(client, newest.of[kind], kind, nowSeconds);
        }
    }
    if (client.body) {
        const std::string_view piece = client.body.text().substr(client.sentBytes, mostBytes);
        client.sentBytes += piece.size();
        return piece;
    }
    const std::string_view comment = client.isZipped ? kZippedComment : kComment;
    if (!isSilentForLong(client, nowSeconds) || mostBytes < comment.size()) return {};
    client.sinceSeconds = nowSeconds;
    return comment;
}

bool eventsWakes(const EventClient& client, const EventNumbers& newest, double nowSeconds) {
    for (size_t kind = 0; kind < kStreamEvents; ++kind) {
        if (newest.of[kind] > client.numbers.of[kind]) return true;
    }
    return isSilentForLong(client, nowSeconds);
}

bool eventsIsStalled(EventClient& client, uint64_t takenBytes, double nowSeconds) {
    if (!client.body) {
        client.takenBytes = takenBytes;
        return false;
    }
    if (nowSeconds - client.sinceSeconds <= kEventsReadSeconds) return false;
    if (takenBytes - client.takenBytes < kEventsLeastBytes) return true;
    client.takenBytes = takenBytes;
    client.sinceSeconds = nowSeconds;
    return false;
}
