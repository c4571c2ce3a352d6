// The texts that the server gives out, plain and compressed.
//
// Metrics, events and the newest Snapshot are written when the first client wants them and shared
// by all that come before the next are due (shared_text.h bounds what slow readers hold); files of
// the pages are compressed once. Answers about what is kept (histories, the source, health) are
// each client's own.
//
// Ownership: what textsBegin is given is borrowed until textsEnd. The one who gets a text holds its
// body.
//
// Failure: an empty body where there is no memory for the text. Where a newer one can't be written,
// also because slow readers are in the way, the last one stays; without memory for the compressed
// form of an answer the client gets the plain one.
//
// Threads: those of the server's, with no lock held; but textsTakeInTheWay any. ServerAnswers are
// called on the server's thread, one at a time.

#pragma once

#include <cstddef>
#include <span>

#include "watch/serve/body.h"
#include "watch/serve/events.h"
#include "watch/serve/route.h"

// The text of an event, in which its JSON and a line break are `jsonBytes` from `jsonAt` on.
struct EventPlaces {
    size_t jsonAt, jsonBytes;
};

// What texts are made of. Each writes its own; false where it can't.
struct ServerAnswers {
    bool (*source)(JsonBuffer& out);

    // Of the newest interval that was published, once for each at most.
    bool (*event)(JsonBuffer& out, EventPlaces& places);

    bool (*metrics)(JsonBuffer& out);
    bool (*historyOfTotals)(JsonBuffer& out);
    bool (*historyOfRow)(const RowKey& row, JsonBuffer& out);

    // Sets whether all is well: 503 if not.
    bool (*health)(JsonBuffer& out, bool& isWell);
};

// The text of an answer: the body's bytes from `at` on.
struct ServedText {
    BodyHold body;
    size_t at = 0;
    size_t sizeBytes = 0;
    bool isZipped = false;
};

void textsBegin(const ServerAnswers& answers, std::span<const WebAsset> assets);
void textsEnd();

[[nodiscard]] ServedText textsMetrics(bool takesZipped);

// Empty also where no interval has ended yet. `published` counts what there is to be asked for.
[[nodiscard]] ServedText textsSnapshot(const EventNumbers& published, bool takesZipped);

// A client that takes fragments (zipped.h) gets nothing else: an event that can't be compressed
// waits.
[[nodiscard]] Events textsEvents(const EventNumbers& published, bool isZipped);

[[nodiscard]] ServedText textsSource(bool takesZipped);
[[nodiscard]] ServedText textsHistory(const Route& route, bool takesZipped);
[[nodiscard]] ServedText textsHealth(bool& isWell);

// The compressed form of one of the assets of textsBegin; empty too where that isn't worth it.
[[nodiscard]] ServedText textsZippedAsset(const WebAsset& asset);

// What slow readers hold so that a newer text couldn't be written since this was last asked, to be
// compared only; null where none was in the way.
[[nodiscard]] const Body* textsTakeInTheWay();
