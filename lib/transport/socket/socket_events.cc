// Callbacks: the IO events that a socket needs, and what runs when one fires.

#include <cstdlib>
#include <utility>

#include "lib/runtime/event.h"
#include "lib/runtime/fixed_ids.h"
#include "lib/transport/socket/socket_internal.h"

namespace {

constexpr double kRateSeconds = 10.0;
constexpr uint32_t kConditions[kSocketEvents] = {kIoRead, kIoWrite, kIoException};

using Needs = bool[kSocketEvents];

// While the system connects, any event may be its end. While the class begins a connection, only
// one direction is watched: the other would be ready all the time.
void needsLocked(const Socket* socket, Needs& out) PELMO_REQUIRES(socket->lock) {
    const bool readNeedsWritable = socket->crossMode == SocketCrossMode::kReadNeedsWritable;
    const bool writeNeedsReadable = socket->crossMode == SocketCrossMode::kWriteNeedsReadable;
    switch (socket->state) {
        case SocketState::kClosed:
        case SocketState::kOpen:
            return;
        case SocketState::kConnecting:
            out[kReadEvent] = !socket->beginning || !readNeedsWritable;
            out[kWriteEvent] = !socket->beginning || readNeedsWritable;
            out[kExceptEvent] = !socket->beginning;
            return;
        default: {
            const bool reads = socket->reader != nullptr && !socket->reader->knowsFailure;
            const bool writes = socket->writer != nullptr && !socket->writer->knowsFailure;
            out[kReadEvent] = (reads && !readNeedsWritable) || (writes && writeNeedsReadable);
            out[kWriteEvent] = (writes && !writeNeedsReadable) || (reads && readNeedsWritable);
        }
    }
}

void onEventGone(uint32_t, void* socket) {
    socketRelease(static_cast<Socket*>(socket));
}

// The event may be gone already, since the library's close destroys all events. The caller holds a
// reference, so that the event's isn't the last.
void endEventLocked(Socket* socket, uint32_t* event) PELMO_REQUIRES(socket->lock) {
    const uint32_t ended = std::exchange(*event, kNoId);
    if (ended == kNoId) return;
    if (pelmoEvent_DestroyEx(ended, onEventGone) != kStatusSuccess) socketRelease(socket);
}

// Leaves the lock for the callback, and for what waits for its end. A failed socket is ready all
// the time, so its events end with the one run that reports the failure.
void runLocked(Socket* socket, SocketHandler* handler) PELMO_REQUIRES(socket->lock) {
    if (handler->knowsFailure) return;
    if (socket->state == SocketState::kFailed) {
        handler->knowsFailure = true;
        (void)socketAdjustEventsLocked(socket);  // only ends events
    }
    const SocketCallback callback = handler->callback;
    void* const passed = handler->closure;
    ++handler->runs;
    Lock_Leave(&socket->lock);
    callback(socket, passed);
    Lock_Enter(&socket->lock);
    if (--handler->runs != 0 || !handler->cancelled) return;
    const SocketDone done = handler->done;
    void* const closure = handler->closure;
    std::free(handler);
    if (done == nullptr) return;
    Lock_Leave(&socket->lock);
    done(closure);
    Lock_Enter(&socket->lock);
}

// At the end of the stream the callback runs even for fewer bytes than it waits for.
bool hasEnoughLocked(Socket* socket) PELMO_REQUIRES(socket->lock) {
    if (socket->state != SocketState::kConnected) return true;
    if (socket->peekCount >= socket->minRead) return true;
    const SocketCode code = socketFillPeekLocked(socket, socket->minRead);
    if (code == kSocketDone) return socket->peekCount >= socket->minRead;
    return code != kSocketWouldBlock;
}

void runReaderLocked(Socket* socket) PELMO_REQUIRES(socket->lock) {
    if (socket->reader == nullptr || !hasEnoughLocked(socket)) return;
    runLocked(socket, socket->reader);
}

void runWriterLocked(Socket* socket) PELMO_REQUIRES(socket->lock) {
    if (socket->writer != nullptr) runLocked(socket, socket->writer);
}

// One callback runs when a connect ends: on failure the one for reading.
void onConnectEventLocked(Socket* socket) PELMO_REQUIRES(socket->lock) {
    if (!socketConnectAdvanceLocked(socket)) return;
    const bool failed = socket->state != SocketState::kConnected;
    SocketHandler* const handler =
        failed && socket->reader != nullptr ? socket->reader : socket->writer;
    if (handler != nullptr) runLocked(socket, handler);
}

void onSocketEvent(uint32_t event, pelmoMsg*, void* closure) {
    auto* const socket = static_cast<Socket*>(closure);
    const LockGuard guard(socket->lock);
    const bool isRead = event == socket->events[kReadEvent];
    const bool isWrite = event == socket->events[kWriteEvent];
    if (!isRead && !isWrite && event != socket->events[kExceptEvent]) return;
    if (socket->state == SocketState::kConnecting) {
        onConnectEventLocked(socket);
        return;
    }
    // A callback that needs the other readiness goes first there, or it would never run.
    const bool crossed =
        isRead
            ? socket->crossMode == SocketCrossMode::kWriteNeedsReadable && socket->writer != nullptr
            : socket->crossMode == SocketCrossMode::kReadNeedsWritable && socket->reader != nullptr;
    if (isRead != crossed) {
        runReaderLocked(socket);
    } else {
        runWriterLocked(socket);
    }
}

pelmoStatus makeEventLocked(Socket* socket, uint32_t place) PELMO_REQUIRES(socket->lock) {
    socketRetain(socket);
    uint32_t event;
    const pelmoStatus status = pelmoEvent_CreateIO(&event, socket->queueId, onSocketEvent,
                                                   socket->handle, kConditions[place], socket);
    if (status != kStatusSuccess) {
        socketRelease(socket);  // not the last: the caller holds one
        return status;
    }
    socket->events[place] = event;
    return kStatusSuccess;
}

pelmoStatus setHandlerLocked(Socket* socket,
                             SocketHandler** place,
                             SocketCallback callback,
                             void* closure) PELMO_REQUIRES(socket->lock) {
    // In the former one's record, whose runs still count for who cancels this one.
    if (*place == nullptr) *place = static_cast<SocketHandler*>(std::calloc(1, sizeof **place));
    if (*place == nullptr) return kStatusNoMemory;
    (*place)->callback = callback;
    (*place)->closure = closure;
    (*place)->knowsFailure = false;
    const pelmoStatus status = socketAdjustEventsLocked(socket);
    if (status == kStatusSuccess) return kStatusSuccess;
    (void)socketCancelLocked(socket, place, nullptr);
    (void)socketAdjustEventsLocked(socket);  // only ends what the callback had needed
    return status;
}

bool takesHandlersLocked(const Socket* socket) PELMO_REQUIRES(socket->lock) {
    return socket->state == SocketState::kConnecting || socket->state == SocketState::kConnected ||
           socket->state == SocketState::kFailed;
}

pelmoStatus cancel(Socket* socket, SocketHandler* Socket::*which, SocketDone done) {
    SocketDone now;
    void* closure;
    {
        const LockGuard guard(socket->lock);
        SocketHandler** const place = &(socket->*which);
        if (*place == nullptr) return kStatusInvalidEvent;
        closure = (*place)->closure;
        now = socketCancelLocked(socket, place, done);
        (void)socketAdjustEventsLocked(socket);  // only ends events
    }
    if (now != nullptr) now(closure);
    return kStatusSuccess;
}

void onRateTimer(uint32_t event, pelmoMsg*, void* closure) {
    auto* const socket = static_cast<Socket*>(closure);
    const LockGuard guard(socket->lock);
    if (event != socket->rateTimer) return;
    for (SocketRate& rate : socket->rates) {
        rate.perSecond = static_cast<double>(rate.total - rate.lastTotal) / kRateSeconds;
        rate.lastTotal = rate.total;
    }
}

// The next question tries again where it fails.
void startRateTimerLocked(Socket* socket) PELMO_REQUIRES(socket->lock) {
    socketRetain(socket);
    uint32_t timer;
    if (pelmoEvent_CreateTimer(&timer, kTimerQueueId, onRateTimer, kRateSeconds, socket) !=
        kStatusSuccess) {
        socketRelease(socket);
        return;
    }
    for (SocketRate& rate : socket->rates)
        rate.lastTotal = rate.total;
    socket->rateTimer = timer;
}

}  // namespace

pelmoStatus socketAdjustEventsLocked(Socket* socket) {
    Needs needs = {};
    needsLocked(socket, needs);
    pelmoStatus result = kStatusSuccess;
    for (uint32_t place = 0; place < kSocketEvents; ++place) {
        if (!needs[place]) endEventLocked(socket, &socket->events[place]);
        if (!needs[place] || socket->events[place] != kNoId) continue;
        const pelmoStatus status = makeEventLocked(socket, place);
        if (status != kStatusSuccess) result = status;
    }
    return result;
}

void socketDropEventsLocked(Socket* socket) {
    for (uint32_t& event : socket->events)
        endEventLocked(socket, &event);
}

SocketDone socketCancelLocked(Socket*, SocketHandler** place, SocketDone done) {
    SocketHandler* const handler = std::exchange(*place, nullptr);
    if (handler == nullptr) return nullptr;
    if (handler->runs == 0) {
        std::free(handler);
        return done;
    }
    handler->cancelled = true;
    handler->done = done;
    return nullptr;
}

void socketEndRateTimerLocked(Socket* socket) {
    endEventLocked(socket, &socket->rateTimer);
}

pelmoStatus socketOnReadable(Socket* socket, SocketCallback callback, void* closure) {
    if (callback == nullptr) return kStatusInvalidCallback;
    const LockGuard guard(socket->lock);
    if (!takesHandlersLocked(socket) && socket->state != SocketState::kListening) {
        return kStatusInvalidIoSource;
    }
    return setHandlerLocked(socket, &socket->reader, callback, closure);
}

pelmoStatus socketOnWritable(Socket* socket, SocketCallback callback, void* closure) {
    if (callback == nullptr) return kStatusInvalidCallback;
    const LockGuard guard(socket->lock);
    if (!takesHandlersLocked(socket)) return kStatusInvalidIoSource;
    return setHandlerLocked(socket, &socket->writer, callback, closure);
}

pelmoStatus socketCancelReadable(Socket* socket, SocketDone done) {
    return cancel(socket, &Socket::reader, done);
}

pelmoStatus socketCancelWritable(Socket* socket, SocketDone done) {
    return cancel(socket, &Socket::writer, done);
}

pelmoStatus socketSetCrossMode(Socket* socket, SocketCrossMode mode) {
    const LockGuard guard(socket->lock);
    socket->crossMode = mode;
    return socketAdjustEventsLocked(socket);
}

SocketCode socketSetQueue(Socket* socket, uint32_t queueId) {
    const LockGuard guard(socket->lock);
    socket->queueId = queueId;
    socketDropEventsLocked(socket);
    return socketCodeFromStatus(socketAdjustEventsLocked(socket));
}

double socketRate(Socket* socket, SocketDirection direction) {
    const LockGuard guard(socket->lock);
    if (socket->rateTimer == kNoId && socket->state != SocketState::kClosed) {
        startRateTimerLocked(socket);
    }
    return socket->rates[static_cast<uint32_t>(direction)].perSecond;
}
