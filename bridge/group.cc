#include "bridge/group.h"

#include <algorithm>

namespace {

// Those that go first get half a second each to do so.
constexpr int64_t kGroupTurnTime = kGroupBeatTime / 2;
constexpr int64_t kMostTurns = 10;
constexpr int64_t kSameTime = kGroupBeatTime;  // ages within it count as the same

int64_t earlierMembers(const Group& group) {
    const auto isEarlier = [&](const auto& row) {
        const int64_t longer = group.listensSince - row.second.listensSince;
        if (longer >= kSameTime || longer <= -kSameTime) return longer > 0;
        return row.first < group.name;
    };
    return std::min<int64_t>(std::ranges::count_if(group.members, isEarlier), kMostTurns);
}

void forgetSilent(Group& group, int64_t now) {
    std::erase_if(group.members,
                  [&](const auto& row) { return row.second.heardAt + kGroupSilenceTime <= now; });
}

bool hearsLeader(const Group& group) {
    return std::ranges::any_of(group.members, [](const auto& row) { return row.second.leads; });
}

GroupTurn turn(Group& group, bool leads) {
    if (group.leads == leads) return GroupTurn::kNone;
    group.leads = leads;
    return leads ? GroupTurn::kLead : GroupTurn::kStandBy;
}

}  // namespace

void groupBegin(Group& group, int64_t now) {
    group.leads = group.isAlone;
    group.since = now;
    group.beatAt = now;
}

void groupConnected(Group& group, bool isConnected, int64_t now) {
    if (group.isConnected == isConnected) return;
    group.isConnected = isConnected;
    group.since = now;
    group.beatAt = now;
    group.members.clear();
}

GroupTurn groupHear(Group& group, const GroupBeat& beat, int64_t now) {
    if (group.isAlone || beat.name == group.name) return GroupTurn::kNone;
    auto found = group.members.find(beat.name);
    if (found == group.members.end()) {
        if (group.members.size() >= kGroupMostMembers) return GroupTurn::kNone;
        found = group.members.emplace(beat.name, GroupMember{}).first;
    }
    const int64_t listening = std::clamp<int64_t>(beat.listening, 0, now);
    found->second = {.heardAt = now, .leads = beat.leads, .listensSince = now - listening};
    if (!beat.leads) return GroupTurn::kNone;
    group.leaderHeardAt = now;
    group.leaderOldest = std::max<int64_t>(beat.oldest, 0);
    return group.leads && beat.name < group.name ? turn(group, false) : GroupTurn::kNone;
}

GroupTurn groupTick(Group& group, int64_t now, bool& outBeat) {
    outBeat = false;
    if (group.isAlone) return GroupTurn::kNone;
    if (!group.isConnected) {
        return group.since + kGroupSilenceTime <= now ? turn(group, false) : GroupTurn::kNone;
    }
    forgetSilent(group, now);
    if (now >= group.beatAt) {
        outBeat = true;
        group.beatAt = now + kGroupBeatTime;
    }
    if (group.leads || hearsLeader(group)) return GroupTurn::kNone;
    const int64_t silentSince = std::max(group.since, group.leaderHeardAt);
    const int64_t leadsAt =
        silentSince + kGroupSilenceTime + earlierMembers(group) * kGroupTurnTime;
    return now >= leadsAt ? turn(group, true) : GroupTurn::kNone;
}

int64_t groupKeepSince(const Group& group, int64_t now) {
    // Without a leader all may be needed.
    if (!group.isConnected || !hearsLeader(group)) return INT64_MIN;
    return now - std::min(group.leaderOldest, now) - kGroupKeepTime;
}
