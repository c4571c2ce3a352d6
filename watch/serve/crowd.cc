#include "watch/serve/crowd.h"

namespace {

bool asks(const CrowdMember& member) {
    return member.phase == CrowdPhase::kAnswer || member.phase == CrowdPhase::kEvents;
}

// When its silence began; false where it isn't silent.
bool isSilent(const CrowdMember& member, double nowSeconds, double* sinceSeconds) {
    *sinceSeconds = asks(member) ? member.takenSeconds : member.sinceSeconds;
    return !asks(member) || (member.hasToTake && nowSeconds - *sinceSeconds >= kCrowdTakeSeconds);
}

bool hasPlace(const CrowdMember& member) {
    return !member.isExtra && !member.isCut;
}

struct AddressCounts {
    uint32_t places, events;
};

AddressCounts countsOf(const Crowd& crowd, const CrowdAddress& address) {
    AddressCounts counts{};
    for (const CrowdMember* member = crowd.members; member != nullptr; member = member->next) {
        if (!hasPlace(*member) || member->address != address) continue;
        ++counts.places;
        counts.events += member->phase == CrowdPhase::kEvents;
    }
    return counts;
}

// The longest silent one with a place; many come in one step of the clock, and the list has the
// newest first.
CrowdMember* longestSilent(Crowd& crowd, const CrowdMember& newcomer, bool ofAddress, double now) {
    CrowdMember* chosen = nullptr;
    double chosenSince = 0;
    for (CrowdMember* member = crowd.members; member != nullptr; member = member->next) {
        double since = 0;
        if (member == &newcomer || !hasPlace(*member) || !isSilent(*member, now, &since)) continue;
        if (ofAddress && member->address != newcomer.address) continue;
        if (chosen != nullptr && since > chosenSince) continue;
        chosen = member;
        chosenSince = since;
    }
    return chosen;
}

// Of extras in excess.
CrowdMember* oldestExtra(Crowd& crowd) {
    CrowdMember* oldest = nullptr;
    uint32_t count = 0;
    for (CrowdMember* member = crowd.members; member != nullptr; member = member->next) {
        if (!member->isExtra || member->isCut) continue;
        oldest = member;
        ++count;
    }
    return count > kCrowdExtras ? oldest : nullptr;
}

void givePlace(Crowd& crowd, CrowdMember& member, int32_t change) {
    crowd.count += static_cast<uint32_t>(change);
    if (member.phase == CrowdPhase::kEvents) crowd.eventCount += static_cast<uint32_t>(change);
}

}  // namespace

uint32_t crowdMostOfAddress(uint32_t most) {
    return most - most / 4;
}

CrowdMember* crowdEnter(Crowd& crowd, CrowdMember& newcomer, double nowSeconds) {
    newcomer.phase = CrowdPhase::kRequest;
    newcomer.sinceSeconds = nowSeconds;
    newcomer.next = crowd.members;
    if (crowd.members != nullptr) crowd.members->previous = &newcomer;
    crowd.members = &newcomer;
    givePlace(crowd, newcomer, 1);

    const bool isOverAddress =
        countsOf(crowd, newcomer.address).places > crowdMostOfAddress(crowd.most);
    if (!isOverAddress && crowd.count <= crowd.most) return nullptr;
    CrowdMember* surplus = longestSilent(crowd, newcomer, isOverAddress, nowSeconds);
    if (surplus == nullptr) {
        givePlace(crowd, newcomer, -1);
        newcomer.isExtra = true;
        surplus = oldestExtra(crowd);
    }
    if (surplus != nullptr) crowdCut(crowd, *surplus);
    return surplus;
}

void crowdLeave(Crowd& crowd, CrowdMember& member) {
    (member.previous != nullptr ? member.previous->next : crowd.members) = member.next;
    if (member.next != nullptr) member.next->previous = member.previous;
    if (hasPlace(member)) givePlace(crowd, member, -1);
}

bool crowdCut(Crowd& crowd, CrowdMember& member) {
    if (member.isCut) return false;
    if (hasPlace(member)) givePlace(crowd, member, -1);
    member.isCut = true;
    return true;
}

void crowdSetPhase(Crowd& crowd, CrowdMember& member, CrowdPhase phase, double nowSeconds) {
    if (hasPlace(member)) givePlace(crowd, member, -1);
    member.phase = phase;
    member.sinceSeconds = member.takenSeconds = nowSeconds;
    member.hasToTake = phase == CrowdPhase::kAnswer;
    if (hasPlace(member)) givePlace(crowd, member, 1);
}

void crowdTook(CrowdMember& member, uint64_t takenBytes, double nowSeconds) {
    if (member.takenBytes == takenBytes) return;
    member.takenBytes = takenBytes;
    member.takenSeconds = nowSeconds;
}

bool crowdHasRoomForEvents(const Crowd& crowd, const CrowdMember& member) {
    const uint32_t most = crowd.most / 2;
    return crowd.eventCount < most &&
           countsOf(crowd, member.address).events < crowdMostOfAddress(most);
}
