#include "pmd/router.h"

#include <cstdlib>
#include <cstring>

#include "lib/base/text.h"
#include "lib/containers/hash.h"
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

struct Realm {
    SubjectList* subjects;
    SubjectList* inboxes;
    SubjectList* claims;
    uint32_t members;
    uint64_t version;     // of the interest, from 1; counts changes
    uint64_t matchCount;  // the number of the last match
    uint32_t keyBytes;
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

Realm* realmMake(const char* key, uint32_t keyBytes) {
    auto* realm = static_cast<Realm*>(std::calloc(1, sizeof(Realm)));
    if (realm == nullptr) return nullptr;
    realm->version = 1;
    realm->keyBytes = keyBytes;
    std::memcpy(realm->key, key, keyBytes);
    realm->subjects = sublistCreate();
    realm->inboxes = sublistCreate();
    realm->claims = sublistCreate();
    if (realm->subjects != nullptr && realm->inboxes != nullptr && realm->claims != nullptr) {
        return realm;
    }
    realmFree(realm);
    return nullptr;
}

Realm* realmFindOrMake(Router* router, const char* service, const char* network) {
    char key[kRealmKeyBytes];
    const size_t serviceBytes = boundedFormat(key, sizeof key, "%s", service) + 1;
    const size_t networkBytes =
        boundedFormat(key + serviceBytes, sizeof key - serviceBytes, "%s", network);
    const auto keyBytes = static_cast<uint32_t>(serviceBytes + networkBytes);
    if (void* found = hashFind(router->realms, key, keyBytes, 0)) {
        return static_cast<Realm*>(found);
    }
    Realm* realm = realmMake(key, keyBytes);
    if (realm == nullptr) return nullptr;
    if (hashPut(router->realms, realm->key, keyBytes, 0, false, realm)) return realm;
    realmFree(realm);
    return nullptr;
}

SubjectList* listOf(Realm* realm, const uint8_t* subject) {
    return subjectIsInbox(subject) ? realm->inboxes : realm->subjects;
}

// The elements of the claim ahead of its ">" begin all of the member's own inboxes.
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

void forgetInterest(Member* member, const uint8_t* subject) {
    ++member->realm->version;
    (void)sublistRemove(listOf(member->realm, subject), subject, member, nullptr);
}

void forgetAllInterests(Member* member) {
    HashIterator iterator;
    hashIterInit(member->interests, &iterator);
    const void* subject = nullptr;
    while (hashIterNext(&iterator, &subject, nullptr, nullptr)) {
        forgetInterest(member, static_cast<const uint8_t*>(subject));
        hashIterRemove(&iterator);
    }
    hashDestroy(member->interests);
    member->interests = nullptr;
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

// A message on an inbox's subject has one owner; one on a pattern of inboxes would have all.
Dpa* matchUncached(Realm* realm, const uint8_t* subject) {
    SubjectList* list = listOf(realm, subject);
    if (list == realm->inboxes && subjectHasWildcard(subject)) return nullptr;
    return sublistMatch(list, subject);
}

bool fill(Realm* realm, CachedMatch& entry, const uint8_t* subject, uint32_t hash) {
    entry.version = 0;
    const Dpa* matches = matchUncached(realm, subject);
    const uint32_t most = matches == nullptr ? 0 : matches->count;
    if (!reserve(entry, most)) return false;
    ++realm->matchCount;
    entry.count = 0;
    for (uint32_t i = 0; i < most; ++i) {
        auto* member = static_cast<Member*>(matches->items[i]);
        if (member->lastMatch == realm->matchCount) continue;
        member->lastMatch = realm->matchCount;
        entry.receivers[entry.count++] = member;
    }
    entry.hash = hash;
    std::memcpy(entry.subject, subject, subjectLength(subject));
    entry.version = realm->version;
    return true;
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
    router->realms = hashCreate(1);
    return router->realms != nullptr;
}

void routerFree(Router* router) {
    hashDestroy(router->realms);
    router->realms = nullptr;
}

pelmoStatus routerJoin(Router* router, Member* member, const char* service, const char* network) {
    Realm* realm = realmFindOrMake(router, service, network);
    if (realm == nullptr) return kStatusNoMemory;
    ++realm->members;
    member->realm = realm;
    return kStatusSuccess;
}

void routerLeave(Router* router, Member* member) {
    Realm* realm = member->realm;
    if (realm == nullptr) return;
    if (member->interests != nullptr) forgetAllInterests(member);
    if (member->claim != nullptr) forgetClaim(member);
    member->realm = nullptr;
    if (--realm->members != 0) return;
    hashPut(router->realms, realm->key, realm->keyBytes, 0, false, nullptr);
    realmFree(realm);
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
    if (member->interests == nullptr) member->interests = hashCreate(1);
    Hash* interests = member->interests;
    if (interests == nullptr) return kStatusNoMemory;
    const auto length = static_cast<uint32_t>(subjectLength(subject));
    if (hashFind(interests, subject, length, 0) != nullptr) return kStatusSuccess;
    if (interests->count == kMostInterests) return kStatusQueueLimit;

    if (!hashPut(interests, subject, length, 0, true, member)) return kStatusNoMemory;
    if (!sublistAdd(listOf(member->realm, subject), subject, member, nullptr)) {
        hashPut(interests, subject, length, 0, false, nullptr);
        return kStatusNoMemory;
    }
    ++member->realm->version;
    return kStatusSuccess;
}

void routerUnlisten(Member* member, const uint8_t* subject) {
    if (member->interests == nullptr) return;
    const auto length = static_cast<uint32_t>(subjectLength(subject));
    if (!hashPut(member->interests, subject, length, 0, false, nullptr)) return;
    forgetInterest(member, subject);
}

pelmoStatus routerMatch(Realm* realm, const uint8_t* subject, Receivers* out) {
    const uint32_t hash = subjectHash(subject);
    CachedMatch& entry = realm->cache[hash % kCachedMatches];
    if (!isCached(realm, entry, subject, hash) && !fill(realm, entry, subject, hash)) {
        return kStatusNoMemory;
    }
    *out = {entry.receivers, entry.count};
    return kStatusSuccess;
}
