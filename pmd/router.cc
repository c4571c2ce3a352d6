#include "pmd/router.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "lib/base/text.h"
#include "lib/containers/hash.h"
#include "lib/containers/probe_index.h"
#include "lib/containers/subject.h"
#include "lib/containers/sublist.h"
#include "lib/transport/transport_internal.h"

namespace {

constexpr uint32_t kCachedMatches = 128;  // a power of two
constexpr uint32_t kRealmKeyBytes = 512;
constexpr uint32_t kWildcardBytes = 3;  // of an element ">"

// Whoever sends in turn on some subjects finds the receivers of each here.
struct CachedMatch {
    uint64_t version;  // of the interest that it was made from
    uint32_t hash;
    uint32_t count, capacity;
    Member** receivers;
    uint8_t subject[kSubjectMaxBytes];
};

}  // namespace

// What a member listens to: the value of the lists. It outlives its member until its interest is
// taken down, and then as long as nodes that it pays for exist.
struct Listener {
    SublistAccount account;  // of nodes of the realm's lists
    SublistAccount shaping;  // of nodes of its shapes
    Member* member;          // null: it has left
    Realm* realm;            // null: its interest is taken down
    Hash* interests;         // its packed subjects; null until the first
    SubjectList* shapes;     // of its patterns with "*"; null until the first
    uint64_t interestBytes;  // what its subjects take besides nodes
    uint64_t lastMatch;      // number of the realm's match that met it last
    Listener* next;          // of those that leave
};

struct Realm {
    Router* router;
    SubjectList* subjects;
    SubjectList* inboxes;
    SubjectList* claims;
    uint32_t listeners;
    uint64_t version;     // of the interest, from 1; counts changes
    uint64_t matchCount;  // the number of the last match
    uint32_t keyBytes, keyHash;
    char key[kRealmKeyBytes];
    CachedMatch cache[kCachedMatches];
};

namespace {

void realmFree(Realm* realm) {
    for (const CachedMatch& entry : realm->cache) {
        std::free(entry.receivers);
    }
    sublistDestroy(realm->subjects);
    sublistDestroy(realm->inboxes);
    sublistDestroy(realm->claims);
    std::free(realm);
}

Listener* payerOf(SublistAccount* account) {
    return reinterpret_cast<Listener*>(account);
}
static_assert(offsetof(Listener, account) == 0);

// The last node that a listener pays for is gone.
void onUnused(SublistAccount* account) {
    Listener* listener = payerOf(account);
    if (listener->realm == nullptr) std::free(listener);
}

Realm* realmMake(Router* router, const char* key, uint32_t keyBytes) {
    auto* realm = static_cast<Realm*>(std::calloc(1, sizeof(Realm)));
    if (realm == nullptr) return nullptr;
    realm->router = router;
    realm->version = 1;
    realm->keyBytes = keyBytes;
    std::memcpy(realm->key, key, keyBytes);
    realm->subjects = sublistCreate();
    realm->inboxes = sublistCreate();
    realm->claims = sublistCreate();
    if (realm->subjects == nullptr || realm->inboxes == nullptr || realm->claims == nullptr) {
        realmFree(realm);
        return nullptr;
    }
    realm->subjects->unused = realm->inboxes->unused = onUnused;
    return realm;
}

// The realm goes with its last listener.
void releaseRealm(Realm* realm) {
    if (--realm->listeners != 0) return;
    hashPut(realm->router->realms, realm->key, realm->keyBytes, realm->keyHash, false, nullptr);
    realmFree(realm);
}

// Keys are the members' choice. Never 0, which would ask the table for its own hash.
uint32_t seededHash(const void* key, uint32_t keyBytes) {
    const uint32_t hash = probeHashBytes(static_cast<const uint8_t*>(key), keyBytes);
    return hash == 0 ? 1 : hash;
}

Realm* realmFindOrMake(Router* router, const char* service, const char* network) {
    char key[kRealmKeyBytes];
    const size_t serviceBytes = boundedFormat(key, sizeof key, "%s", service) + 1;
    const size_t networkBytes =
        boundedFormat(key + serviceBytes, sizeof key - serviceBytes, "%s", network);
    const auto keyBytes = static_cast<uint32_t>(serviceBytes + networkBytes);
    const uint32_t hash = seededHash(key, keyBytes);
    if (void* found = hashFind(router->realms, key, keyBytes, hash)) {
        return static_cast<Realm*>(found);
    }
    Realm* realm = realmMake(router, key, keyBytes);
    if (realm == nullptr) return nullptr;
    realm->keyHash = hash;
    if (hashPut(router->realms, realm->key, keyBytes, hash, false, realm)) return realm;
    realmFree(realm);
    return nullptr;
}

SubjectList* listOf(Realm* realm, const uint8_t* subject) {
    return subjectIsInbox(subject) ? realm->inboxes : realm->subjects;
}

// The elements of the claim before its ">" begin all of the member's own inboxes.
bool isOwnInbox(const Member* member, const uint8_t* subject) {
    if (member->claim == nullptr) return false;
    const size_t prefixBytes = subjectLength(member->claim) - kWildcardBytes;
    if (subjectLength(subject) <= prefixBytes) return false;
    return std::memcmp(subject + kSubjectHeadBytes, member->claim + kSubjectHeadBytes,
                       prefixBytes - kSubjectHeadBytes) == 0;
}

// Inboxes of daemons, which no session owns.
bool isDaemonInbox(const uint8_t* subject) {
    return subjectElementEquals(subject, 3, "DAEMON") ||
           subjectElementEquals(subject, 3, "ROUTED") ||
           subjectElementEquals(subject, 3, "BROUTED") ||
           subjectElementEquals(subject, 4, "ROUTED");
}

bool mayListen(const Member* member, const uint8_t* subject) {
    if (!subjectIsInbox(subject)) return true;
    return isOwnInbox(member, subject) || isDaemonInbox(subject);
}

constexpr uint32_t kHeapUnitBytes = 16;

// A member that has left with less interest than this leaves none.
constexpr uint32_t kLeaveNodes = 256;

// What a subject takes besides nodes: its entry and key, and its place among a node's values.
constexpr uint64_t kInterestBytes = 144;

uint64_t interestBytes(const uint8_t* subject) {
    return kInterestBytes + subjectLength(subject) / kHeapUnitBytes * kHeapUnitBytes +
           kHeapUnitBytes;
}

bool hasStar(const uint8_t* subject) {
    const uint8_t* element = subjectFirst(subject);
    for (uint32_t left = subjectElementCount(subject); left > 0; --left) {
        if (subjectElementIs(element, '*')) return true;
        element = subjectNext(element);
    }
    return false;
}

// The pattern with "x" for each element that isn't "*". No longer than the pattern.
void shapeOf(const uint8_t* subject, uint8_t (&shape)[kSubjectMaxBytes + 1]) {
    (void)subjectInit(shape, sizeof shape);
    const uint8_t* element = subjectFirst(subject);
    for (uint32_t left = subjectElementCount(subject); left > 0; --left) {
        const bool isStar = subjectElementIs(element, '*');
        (void)subjectAppendBytes(shape, sizeof shape, isStar ? "*" : "x", 1);
        element = subjectNext(element);
    }
}

// The router's counts follow what the call changes.
template <typename Change>
auto counted(Realm* realm, Listener* listener, Change change) {
    Router* router = realm->router;
    const uint64_t bytes = realm->subjects->bytes + realm->inboxes->bytes;
    const uint32_t shapes = listener->shaping.nodes;
    router->bytes -= bytes + listener->interestBytes;
    const auto result = change();
    router->bytes += realm->subjects->bytes + realm->inboxes->bytes + listener->interestBytes;
    router->shapes += listener->shaping.nodes - shapes;
    return result;
}

bool addShape(Listener* listener, const uint8_t* subject) {
    if (!hasStar(subject)) return true;
    if (listener->shapes == nullptr) listener->shapes = sublistCreate();
    if (listener->shapes == nullptr) return false;
    uint8_t shape[kSubjectMaxBytes + 1];
    shapeOf(subject, shape);
    listener->shapes->payer = &listener->shaping;
    return sublistAdd(listener->shapes, shape, listener, nullptr);
}

void removeShape(Listener* listener, const uint8_t* subject) {
    if (!hasStar(subject)) return;
    uint8_t shape[kSubjectMaxBytes + 1];
    shapeOf(subject, shape);
    (void)sublistRemove(listener->shapes, shape, listener, nullptr);
}

bool hasRoomForShape(const Router* router, const Listener* listener, const uint8_t* subject) {
    if (!hasStar(subject)) return true;
    if (listener->shapes != nullptr) {
        uint8_t shape[kSubjectMaxBytes + 1];
        shapeOf(subject, shape);
        if (sublistFind(listener->shapes, shape) != nullptr) return true;
    }
    const uint32_t held = listener->shaping.nodes;
    const uint32_t wanted = subjectElementCount(subject);  // at most
    if (held + wanted > kMostShapes) return false;
    return held + wanted <= kOwnShapes || router->shapes + wanted <= kMostShapesOfAll;
}

bool hasRoom(const Router* router, const Listener* listener, const uint8_t* subject) {
    if (listener->interests->count == kMostInterests) return false;
    const uint64_t held = listener->account.bytes + listener->interestBytes;
    if (held >= kMostInterestBytes) return false;
    if (held >= kOwnInterestBytes && router->bytes >= kMostInterestBytesOfAll) return false;
    return hasRoomForShape(router, listener, subject);
}

bool keepInterest(Realm* realm, Listener* listener, const uint8_t* subject) {
    const auto length = static_cast<uint32_t>(subjectLength(subject));
    const uint32_t hash = seededHash(subject, length);
    if (!hashPut(listener->interests, subject, length, hash, true, listener)) return false;
    if (addShape(listener, subject)) {
        SubjectList* list = listOf(realm, subject);
        list->payer = &listener->account;
        if (sublistAdd(list, subject, listener, nullptr)) {
            listener->interestBytes += interestBytes(subject);
            return true;
        }
        removeShape(listener, subject);
    }
    hashPut(listener->interests, subject, length, hash, false, nullptr);
    return false;
}

// All of it but the entry among the listener's subjects.
bool forgetInterest(Realm* realm, Listener* listener, const uint8_t* subject) {
    (void)sublistRemove(listOf(realm, subject), subject, listener, nullptr);
    removeShape(listener, subject);
    listener->interestBytes -= interestBytes(subject);
    return true;
}

// Returns what is left of the nodes that may be taken down: 0 where there is, or may be, more
// interest.
uint32_t forgetSome(Listener* listener, uint32_t nodes) {
    if (listener->interests == nullptr) return nodes;
    HashIterator iterator;
    hashIterInit(listener->interests, &iterator);
    const void* key = nullptr;
    while (nodes != 0 && hashIterNext(&iterator, &key, nullptr, nullptr)) {
        const auto* subject = static_cast<const uint8_t*>(key);
        nodes -= std::min(nodes, subjectElementCount(subject));
        counted(listener->realm, listener,
                [&] { return forgetInterest(listener->realm, listener, subject); });
        hashIterRemove(&iterator);
    }
    hashFit(listener->interests);
    return nodes;
}

// Its interest is taken down.
void listenerFree(Listener* listener) {
    hashDestroy(listener->interests);
    sublistDestroy(listener->shapes);
    Realm* realm = listener->realm;
    listener->realm = nullptr;
    if (listener->account.nodes == 0) std::free(listener);
    releaseRealm(realm);
}

void forgetClaim(Member* member) {
    (void)sublistRemove(member->realm->claims, member->claim, member, nullptr);
    std::free(member->claim);
    member->claim = nullptr;
}

bool isCached(const Realm* realm, const CachedMatch& entry, const uint8_t* subject, uint32_t hash) {
    if (entry.version != realm->version || entry.hash != hash) return false;
    return subjectIs(entry.subject, subject, subjectLength(subject));
}

// Room for so many receivers.
bool reserve(CachedMatch& entry, uint32_t count) {
    if (count <= entry.capacity) return true;
    void* grown = std::realloc(entry.receivers, count * sizeof(Member*));
    if (grown == nullptr) return false;
    entry.receivers = static_cast<Member**>(grown);
    entry.capacity = count;
    return true;
}

// A message on an inbox's subject has one owner; one on a pattern of inboxes would have all. False
// if the match was given up.
bool matchUncached(Realm* realm, const uint8_t* subject, Dpa** out) {
    SubjectList* list = listOf(realm, subject);
    *out = nullptr;
    if (!subjectHasWildcard(subject)) {
        list->mostSteps = 0;
        *out = sublistMatch(list, subject);
        realm->router->lastSteps = list->steps;
        return true;
    }
    uint32_t& left = realm->router->wildcardSteps;
    if (list == realm->inboxes) return true;
    if (left == 0) return false;
    list->mostSteps = left;
    *out = sublistMatch(list, subject);
    const bool isWhole = list->steps <= left;
    left -= std::min(left, list->steps);
    return isWhole;
}

pelmoStatus fill(Realm* realm, CachedMatch& entry, const uint8_t* subject, uint32_t hash) {
    entry.version = 0;
    Dpa* matches = nullptr;
    if (!matchUncached(realm, subject, &matches)) return kStatusQueueLimit;
    const uint32_t most = matches == nullptr ? 0 : matches->count;
    if (!reserve(entry, most)) return kStatusNoMemory;
    ++realm->matchCount;
    entry.count = 0;
    for (uint32_t i = 0; i < most; ++i) {
        auto* listener = static_cast<Listener*>(matches->items[i]);
        if (listener->lastMatch == realm->matchCount || listener->member == nullptr) continue;
        listener->lastMatch = realm->matchCount;
        entry.receivers[entry.count++] = listener->member;
    }
    entry.hash = hash;
    std::memcpy(entry.subject, subject, subjectLength(subject));
    entry.version = realm->version;
    return kStatusSuccess;
}

// "_INBOX.SESSION.>", packed: its length, or -1.
int32_t packClaim(uint8_t* buffer, int32_t size, const char* session) {
    char text[kSubjectTextBytes];
    boundedFormat(text, sizeof text, "_INBOX.%s.>", session);
    return subjectFromText(buffer, size, text);
}

// Another member whose inboxes are among these, or these among its; null for none.
Member* findRival(Realm* realm, const uint8_t* claim) {
    const Dpa* matches = sublistMatch(realm->claims, claim);
    return matches == nullptr ? nullptr : static_cast<Member*>(matches->items[0]);
}

bool isSameClaim(const Member* member, const uint8_t* claim) {
    return member->claim != nullptr && subjectIs(member->claim, claim, subjectLength(claim));
}

}  // namespace

bool routerInit(Router* router) {
    *router = {};
    router->realms = hashCreate(1);
    return router->realms != nullptr;
}

void routerFree(Router* router) {
    if (router->realms == nullptr) return;
    while (routerSweep(router)) {
    }
    hashDestroy(router->realms);
    router->realms = nullptr;
}

pelmoStatus routerJoin(Router* router, Member* member, const char* service, const char* network) {
    auto* listener = static_cast<Listener*>(std::calloc(1, sizeof(Listener)));
    if (listener == nullptr) return kStatusNoMemory;
    Realm* realm = realmFindOrMake(router, service, network);
    if (realm == nullptr) {
        std::free(listener);
        return kStatusNoMemory;
    }
    ++realm->listeners;
    listener->member = member;
    listener->realm = realm;
    member->listener = listener;
    member->realm = realm;
    return kStatusSuccess;
}

void routerLeave(Router* router, Member* member) {
    Realm* realm = member->realm;
    if (realm == nullptr) return;
    if (member->claim != nullptr) forgetClaim(member);
    Listener* listener = std::exchange(member->listener, nullptr);
    member->realm = nullptr;
    ++realm->version;
    listener->member = nullptr;
    if (listener->interests == nullptr) return listenerFree(listener);
    if (forgetSome(listener, kLeaveNodes) != 0) return listenerFree(listener);
    listener->next = router->leaving;
    router->leaving = listener;
}

bool routerSweep(Router* router) {
    uint32_t nodes = kSweepNodes;
    while (Listener* listener = router->leaving) {
        nodes = forgetSome(listener, nodes);
        if (nodes == 0) return true;
        router->leaving = listener->next;
        listenerFree(listener);
    }
    return false;
}

pelmoStatus routerClaim(Member* member, const char* session, Member** holder) {
    *holder = nullptr;
    uint8_t claim[kSubjectMaxBytes];
    const int32_t length = packClaim(claim, sizeof claim, session);
    if (length < 0) return kStatusInvalidArgument;
    if (isSameClaim(member, claim)) return kStatusSuccess;
    if (member->claim != nullptr) return kStatusInvalidArgument;
    if (Member* rival = findRival(member->realm, claim)) {
        if (isSameClaim(rival, claim)) *holder = rival;
        return kStatusAlreadyExists;
    }
    auto* copy = static_cast<uint8_t*>(std::malloc(static_cast<size_t>(length)));
    if (copy == nullptr) return kStatusNoMemory;
    std::memcpy(copy, claim, static_cast<size_t>(length));
    if (!sublistAdd(member->realm->claims, copy, member, nullptr)) {
        std::free(copy);
        return kStatusNoMemory;
    }
    member->claim = copy;
    return kStatusSuccess;
}

pelmoStatus routerListen(Member* member, const uint8_t* subject) {
    if (!mayListen(member, subject)) return kStatusNotPermitted;
    Realm* realm = member->realm;
    Listener* listener = member->listener;
    if (listener->interests == nullptr) listener->interests = hashCreate(1);
    if (listener->interests == nullptr) return kStatusNoMemory;
    const auto length = static_cast<uint32_t>(subjectLength(subject));
    const uint32_t hash = seededHash(subject, length);
    if (hashFind(listener->interests, subject, length, hash) != nullptr) return kStatusSuccess;
    if (!hasRoom(realm->router, listener, subject)) return kStatusQueueLimit;
    if (!counted(realm, listener, [&] { return keepInterest(realm, listener, subject); })) {
        return kStatusNoMemory;
    }
    ++realm->version;
    return kStatusSuccess;
}

void routerUnlisten(Member* member, const uint8_t* subject) {
    Listener* listener = member->listener;
    if (listener->interests == nullptr) return;
    const auto length = static_cast<uint32_t>(subjectLength(subject));
    const uint32_t hash = seededHash(subject, length);
    if (!hashPut(listener->interests, subject, length, hash, false, nullptr)) return;
    hashFit(listener->interests);
    ++member->realm->version;
    counted(member->realm, listener,
            [&] { return forgetInterest(member->realm, listener, subject); });
}

void routerBeginBatch(Router* router) {
    router->wildcardSteps = kMostWildcardSteps;
}

pelmoStatus routerMatch(Realm* realm, const uint8_t* subject, Receivers* out) {
    const uint32_t hash = subjectHash(subject);
    CachedMatch& entry = realm->cache[hash % kCachedMatches];
    if (!isCached(realm, entry, subject, hash)) {
        const pelmoStatus status = fill(realm, entry, subject, hash);
        if (status != kStatusSuccess) return status;
    }
    *out = {entry.receivers, entry.count};
    return kStatusSuccess;
}
