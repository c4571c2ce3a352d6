#include "lib/runtime/poll_set.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <span>
#include <utility>

#include "lib/containers/dpa.h"
#include "lib/runtime/event_internal.h"

namespace {

// Indexed by condition. poll always reports errors and hang-ups. They make a socket ready to read
// and to write, so that its owner notices; an exception is urgent data and nothing else, as with
// select.
constexpr struct {
    uint32_t firstCapacity;
    short asked;
    short ready;
} kConditions[kIoConditions] = {
    {2, POLLIN, POLLIN | POLLERR | POLLHUP},
    {1, POLLOUT, POLLOUT | POLLERR | POLLHUP},
    {1, POLLPRI, POLLPRI},
};

constexpr uint32_t kException = 2;

uint32_t conditionIndex(const Event* event) {
    return static_cast<uint32_t>(std::countr_zero(uint32_t{event->io.condition}));
}

Event* eventAt(const Dpa* events, uint32_t index) {
    return static_cast<Event*>(events->items[index]);
}

int32_t sourceAt(const void* item) {
    return static_cast<const Event*>(item)->io.source;
}

int compareSources(const void* key, const void* item) {
    const int32_t a = sourceAt(key);
    const int32_t b = sourceAt(item);
    return (a > b) - (a < b);
}

Event* find(const Dpa* events, int32_t source) {
    const std::span<void*> items{events->items, events->count};
    const auto found = std::ranges::lower_bound(items, source, {}, sourceAt);
    if (found == items.end() || sourceAt(*found) != source) return nullptr;
    return static_cast<Event*>(*found);
}

std::span<pollfd> polled(const PollSet* set) {
    return {set->pass, set->passCount};
}

pollfd* passOf(uint32_t maxSockets) {
    return static_cast<pollfd*>(std::calloc(size_t{maxSockets} * kIoConditions, sizeof(pollfd)));
}

bool grow(PollSet* set) {
    if (!set->mayGrow) return false;
    const uint32_t maxSockets = set->maxSockets * 2;
    if (maxSockets > kMostSockets) {
        set->mayGrow = false;
        return false;
    }
    pollfd* const pass = passOf(maxSockets);
    if (pass == nullptr) return false;

    pollfd*& place = set->inPass ? set->passNew : set->pass;
    std::free(place);
    place = pass;
    set->maxSockets = maxSockets;
    return true;
}

// A socket that is watched only for urgent data and has hung up or failed would end every poll at
// once without firing an event.
bool endsPollsForNothing(const pollfd& entry) {
    return entry.events == POLLPRI && (entry.revents & POLLPRI) == 0 &&
           (entry.revents & (POLLERR | POLLHUP)) != 0;
}

void forgetInPass(PollSet* set, int32_t source, uint32_t index) {
    const auto found = std::ranges::lower_bound(polled(set), source, {}, &pollfd::fd);
    if (found == polled(set).end() || found->fd != source) return;
    found->events = static_cast<short>(found->events & ~kConditions[index].asked);
}

}  // namespace

pelmoStatus pollSetInit(PollSet* set) {
    *set = {};
    set->maxSockets = kFirstMaxSockets;
    set->mayGrow = true;
    for (uint32_t i = 0; i < kIoConditions; ++i) {
        set->events[i] = dpaCreate(kConditions[i].firstCapacity);
        if (set->events[i] == nullptr) return kStatusNoMemory;
    }
    set->pass = passOf(set->maxSockets);
    return set->pass != nullptr ? kStatusSuccess : kStatusNoMemory;
}

void pollSetFree(PollSet* set) {
    for (Dpa*& events : set->events) {
        if (events == nullptr) continue;
        for (uint32_t i = 0; i < events->count; ++i) {
            Id_Release(&eventAt(events, i)->header, false);
        }
        events = dpaDestroy(events);
    }
    std::free(set->pass);
    std::free(set->passNew);
    *set = {};
}

bool pollSetKnows(uint32_t condition) {
    return condition == kIoRead || condition == kIoWrite || condition == kIoException;
}

bool pollSetHas(const PollSet* set, const Event* event) {
    return find(set->events[conditionIndex(event)], event->io.source) == event;
}

pelmoStatus pollSetAdd(PollSet* set, Event* event) {
    Dpa* const events = set->events[conditionIndex(event)];
    if (find(events, event->io.source) != nullptr) return kStatusInvalidIoSource;
    if (events->count >= set->maxSockets && !grow(set)) return kStatusSocketLimit;
    if (!dpaInsertSorted(events, event, compareSources)) return kStatusNoMemory;
    Id_AddRef(&event->header);
    return kStatusSuccess;
}

pelmoStatus pollSetRemove(PollSet* set, Event* event) {
    const uint32_t condition = conditionIndex(event);
    Dpa* const events = set->events[condition];
    if (!pollSetHas(set, event)) return kStatusInvalidEvent;
    dpaRemoveSorted(events, event, compareSources);
    if (set->inPass) forgetInPass(set, event->io.source, condition);
    Id_Release(&event->header, false);
    return kStatusSuccess;
}

void pollSetPrepare(PollSet* set) {
    set->inPass = true;
    set->passCount = 0;
    set->leavesOut = false;
    uint32_t next[kIoConditions] = {};
    const auto sourceOf = [&](uint32_t i) {
        return next[i] < set->events[i]->count ? eventAt(set->events[i], next[i])->io.source
                                               : INT32_MAX;
    };
    for (;;) {
        const int32_t source = std::min({sourceOf(0), sourceOf(1), sourceOf(2)});
        if (source == INT32_MAX) return;
        pollfd entry = {.fd = source, .events = 0, .revents = 0};
        for (uint32_t i = 0; i < kIoConditions; ++i) {
            if (sourceOf(i) != source) continue;
            entry.events = static_cast<short>(entry.events | kConditions[i].asked);
            ++next[i];
        }
        if (entry.events == POLLPRI &&
            std::exchange(find(set->events[kException], source)->io.hungUp, false)) {
            set->leavesOut = true;
        } else {
            set->pass[set->passCount++] = entry;
        }
    }
}

void pollSetFinish(PollSet* set) {
    for (const pollfd& entry : polled(set)) {
        if (!endsPollsForNothing(entry)) continue;
        if (Event* const event = find(set->events[kException], entry.fd)) event->io.hungUp = true;
    }
    set->inPass = false;
    set->passCount = 0;
    if (set->passNew == nullptr) return;
    std::free(set->pass);
    set->pass = std::exchange(set->passNew, nullptr);
}

bool pollSetMetClosed(const PollSet* set) {
    return std::ranges::any_of(polled(set),
                               [](const pollfd& entry) { return (entry.revents & POLLNVAL) != 0; });
}

Event* pollSetNextReady(const PollSet* set, uint32_t condition, uint32_t* from) {
    const Dpa* const events = set->events[condition];
    while (*from < set->passCount) {
        const pollfd& entry = set->pass[(*from)++];
        if ((entry.events & kConditions[condition].asked) == 0) continue;
        if ((entry.revents & kConditions[condition].ready) == 0) continue;
        if (Event* const event = find(events, entry.fd)) return event;
    }
    return nullptr;
}

Event* pollSetFindDead(PollSet* set) {
    for (const Dpa* events : set->events) {
        for (uint32_t i = 0; i < events->count; ++i) {
            Event* const event = eventAt(events, i);
            const int32_t source = event->io.source;
            if (event->io.isSocket ? sourceIsSocket(source) : sourceIsPollable(source)) continue;
            event->io.sourceValid = false;
            return event;
        }
    }
    return nullptr;
}

bool sourceIsSocket(int32_t source) {
    int type = 0;
    socklen_t size = sizeof(type);
    return getsockopt(source, SOL_SOCKET, SO_TYPE, &type, &size) == 0;
}

// poll reports what it can't watch as ready at all times; only epoll refuses it.
bool sourceIsPollable(int32_t source) {
    struct stat about = {};
    if (fstat(source, &about) != 0) return false;
    switch (about.st_mode & S_IFMT) {
        case S_IFREG:
        case S_IFDIR:
        case S_IFBLK:
            return false;
        case S_IFSOCK:
        case S_IFIFO:
            return true;
        default:
            break;
    }
    const int watcher = epoll_create1(EPOLL_CLOEXEC);
    if (watcher < 0) return true;  // no descriptor is left to ask with
    epoll_event event = {};
    const bool taken = epoll_ctl(watcher, EPOLL_CTL_ADD, source, &event) == 0;
    close(watcher);
    return taken;
}
