#include "watch/serve/texts.h"

#include <atomic>
#include <string_view>
#include <utility>
#include <vector>

#include "lib/base/clock.h"
#include "watch/serve/shared_text.h"
#include "watch/serve/zipped.h"

namespace {

// Metrics are written again for a second scrape only after so much time.
constexpr double kKeepSeconds = 1;
// Less isn't worth a compression.
constexpr size_t kLeastZippedBytes = 1024;

constexpr std::string_view kSourceBegin = "event: source\ndata: ";

struct Texts {
    const ServerAnswers* answers = nullptr;
    std::span<const WebAsset> assets;

    SharedText events[kStreamEvents];
    SharedText zippedEvents[kStreamEvents];  // the same as fragments
    SharedText zippedSnapshot;
    EventPlaces places = {};  // of the newest interval's
    EventNumbers asked = {};  // for last
    SharedText metrics;
    SharedText zippedMetrics;
    double metricsSeconds = 0;
    std::vector<BodyHold> zippedAssets;  // in the order of the assets; empty until one is asked for
};

Texts texts;

std::atomic<const Body*> inTheWay = nullptr;

ServedText wholeOf(const BodyHold& body, bool isZipped) {
    if (!body) return {};
    return {body, 0, body.text().size(), isZipped};
}

// Of texts that are a client's own, beyond what is shared: an answer about the server's health has
// room whatever is read slowly.
constexpr size_t kOwnBytes = size_t{64} << 20;

template <typename Write>
BodyHold makeBody(Write write, size_t mostBytes = kMostBodyBytes) {
    if (bodyBytes() >= mostBytes) return {};
    BodyHold body = BodyHold::make();
    if (!body || !write(body.buffer()) || body.buffer().failed) return {};
    body.count();
    return body;
}

BodyHold zippedOf(std::string_view text) {
    return makeBody([text](JsonBuffer& out) {
        zippedAppend(out, text);
        return true;
    });
}

// Of a client's own.
template <typename Write>
ServedText ownText(bool takesZipped, Write write) {
    const BodyHold body = makeBody(write, kMostBodyBytes + kOwnBytes);
    if (!body || !takesZipped || body.text().size() < kLeastZippedBytes)
        return wholeOf(body, false);
    const BodyHold zipped = zippedOf(body.text());
    return zipped ? wholeOf(zipped, true) : wholeOf(body, false);
}

// May a newer text be written? If not, notes what is in the way.
bool mayRenew(SharedText& text) {
    const bool may = sharedTextMayRenew(text);
    if (!may && text.old) inTheWay.store(text.old.address(), std::memory_order_relaxed);
    return may;
}

// The compressed form of a text, `plain` or a part of it, written now where that is newer.
template <typename Append>
bool renewZipped(SharedText& zipped, const SharedText& plain, Append append) {
    if (zipped.newest && zipped.number == plain.number) return true;
    if (!plain.newest || !mayRenew(zipped)) return false;
    BodyHold body = makeBody([&](JsonBuffer& out) {
        append(out);
        return true;
    });
    if (!body) return false;
    sharedTextRenew(zipped, std::move(body), plain.number);
    return true;
}

bool writeEvent(StreamEvent kind, JsonBuffer& out, EventPlaces& places) {
    if (kind == StreamEvent::kSnapshot) return texts.answers->event(out, places);
    out.append(kSourceBegin);
    const bool written = texts.answers->source(out);
    out.append("\n");
    return written;
}

SharedText& newestText(StreamEvent kind, const EventNumbers& published) {
    const auto at = static_cast<size_t>(kind);
    SharedText& text = texts.events[at];
    if (texts.asked.of[at] == published.of[at] || !mayRenew(text)) return text;
    texts.asked.of[at] = published.of[at];
    EventPlaces places{};
    BodyHold body = makeBody([&](JsonBuffer& out) { return writeEvent(kind, out, places); });
    if (!body) return text;
    sharedTextRenew(text, std::move(body), published.of[at]);
    if (kind == StreamEvent::kSnapshot) texts.places = places;
    return text;
}

Event newestEvent(StreamEvent kind, const EventNumbers& published, bool isZipped) {
    const SharedText& plain = newestText(kind, published);
    if (!isZipped) return {plain.newest, plain.number};
    SharedText& zipped = texts.zippedEvents[static_cast<size_t>(kind)];
    (void)renewZipped(zipped, plain, [&plain](JsonBuffer& out) {
        zippedAppendFragment(out, plain.newest.text());
    });
    return {zipped.newest, zipped.number};
}

}  // namespace

void textsBegin(const ServerAnswers& answers, std::span<const WebAsset> assets) {
    texts.answers = &answers;
    texts.assets = assets;
    texts.zippedAssets.resize(assets.size());
}

void textsEnd() {
    texts = {};
}

ServedText textsMetrics(bool takesZipped) {
    const double now = clockSteadySeconds();
    const bool isDue = !texts.metrics.newest || now - texts.metricsSeconds >= kKeepSeconds;
    if (isDue && mayRenew(texts.metrics)) {
        BodyHold body = makeBody(texts.answers->metrics);
        texts.metricsSeconds = now;
        if (body) sharedTextRenew(texts.metrics, std::move(body), texts.metrics.number + 1);
    }
    const bool isZipped =
        takesZipped && renewZipped(texts.zippedMetrics, texts.metrics, [](JsonBuffer& out) {
            zippedAppend(out, texts.metrics.newest.text());
        });
    return wholeOf((isZipped ? texts.zippedMetrics : texts.metrics).newest, isZipped);
}

ServedText textsSnapshot(const EventNumbers& published, bool takesZipped) {
    const SharedText& plain = newestText(StreamEvent::kSnapshot, published);
    if (!plain.newest) return {};
    const auto [at, sizeBytes] = texts.places;
    const bool isZipped =
        takesZipped &&
        renewZipped(texts.zippedSnapshot, plain, [&, at = at, size = sizeBytes](JsonBuffer& out) {
            zippedAppend(out, plain.newest.text().substr(at, size));
        });
    if (isZipped) return wholeOf(texts.zippedSnapshot.newest, true);
    return {plain.newest, at, sizeBytes, false};
}

Events textsEvents(const EventNumbers& published, bool isZipped) {
    return {{newestEvent(StreamEvent::kSource, published, isZipped),
             newestEvent(StreamEvent::kSnapshot, published, isZipped)}};
}

ServedText textsSource(bool takesZipped) {
    return ownText(takesZipped, texts.answers->source);
}

ServedText textsHistory(const Route& route, bool takesZipped) {
    const bool isRow = route.kind == RouteKind::kHistoryOfRow;
    return ownText(takesZipped, [&](JsonBuffer& out) {
        return isRow ? texts.answers->historyOfRow(route.row, out)
                     : texts.answers->historyOfTotals(out);
    });
}

ServedText textsHealth(bool& isWell) {
    return ownText(false, [&](JsonBuffer& out) { return texts.answers->health(out, isWell); });
}

ServedText textsZippedAsset(const WebAsset& asset) {
    if (asset.body.size() < kLeastZippedBytes) return {};
    BodyHold& zipped = texts.zippedAssets[static_cast<size_t>(&asset - texts.assets.data())];
    if (!zipped) zipped = zippedOf(asset.body);
    return wholeOf(zipped, true);
}

const Body* textsTakeInTheWay() {
    return inTheWay.exchange(nullptr, std::memory_order_relaxed);
}
