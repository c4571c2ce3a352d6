#include "pmd/absence.h"

#include <cstdlib>
#include <new>

#include "lib/base/text.h"

struct Absent {
    Peer peer;
    double reportAt;
    char text[128];
    Absent* next;
};

namespace {

void append(Absences* absences, Absent* absent) {
    absent->next = nullptr;
    (absences->last != nullptr ? absences->last->next : absences->first) = absent;
    absences->last = absent;
    ++absences->count;
}

void unlink(Absences* absences, Absent* before, Absent* absent) {
    (before != nullptr ? before->next : absences->first) = absent->next;
    if (absences->last == absent) absences->last = before;
    --absences->count;
}

void dropFirst(Absences* absences) {
    Absent* const absent = absences->first;
    unlink(absences, nullptr, absent);
    exchangeLeave(absences->exchange, &absent->peer);
    std::free(absent);
}

void reportFirst(Absences* absences) {
    absenceTell(absences->exchange, &absences->first->peer, absences->first->text);
    dropFirst(absences);
}

}  // namespace

void absenceTell(Exchange* exchange, const Peer* peer, const char* text) {
    if (peer->member.realm == nullptr) return;
    char description[160];
    boundedFormat(description, sizeof description, "client %s has gone", text);
    exchangeAdvise(exchange, peer, {"INFO", "UNREACHABLE.TRANSPORT", description});
}

bool absenceKeep(Absences* absences, Peer* peer, const char* text, double now) {
    if (peer->member.realm == nullptr || peer->start.session[0] == '\0') return false;
    void* const block = std::malloc(sizeof(Absent));
    if (block == nullptr) return false;
    auto* const absent = new (block) Absent{};
    if (!exchangePark(absences->exchange, peer, &absent->peer)) {
        std::free(absent);
        return false;
    }
    absent->reportAt = now + kAbsenceSeconds;
    boundedCopy(absent->text, text, sizeof absent->text);
    append(absences, absent);
    if (absences->count > kMostAbsent) reportFirst(absences);
    return true;
}

void absenceSettle(Absences* absences, double now) {
    while (absences->first != nullptr && absences->first->reportAt <= now) {
        reportFirst(absences);
    }
}

void absenceEnd(Absences* absences, const Member* member) {
    Absent* before = nullptr;
    for (Absent* absent = absences->first; absent != nullptr; absent = absent->next) {
        if (&absent->peer.member == member) {
            unlink(absences, before, absent);
            return std::free(absent);
        }
        before = absent;
    }
}

void absenceFree(Absences* absences) {
    while (absences->first != nullptr) {
        dropFirst(absences);
    }
}
