// Which bridge of a group takes messages from the bus: one leads, the others stand by, ready to go
// on where it stopped.
//
// Every member sends a beat each second, over NATS: its name, whether it leads, and how long its
// oldest message has waited for an acknowledgement. A member that has heard no leader for three
// seconds leads, the one with the first name first. Where two lead, since they couldn't hear each
// other, the one with the later name stands by again; what both published in between may be there
// twice, under different numbers.
//
// One that stands by keeps what came since the leader's oldest message, and some seconds more: the
// leader's end is noticed late, and the two hear the bus at slightly different times.
//
// Without a connection to NATS a member hears no other, so it neither leads nor takes over, and
// leads no longer once it has been away for three seconds: another one does by then.
//
// Times in nanoseconds of the steady clock. Threads: pure, one user at a time.

#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

inline constexpr int64_t kGroupBeatTime = 1'000'000'000;
inline constexpr int64_t kGroupSilenceTime = 3 * kGroupBeatTime;
inline constexpr int64_t kGroupKeepTime = 2 * kGroupSilenceTime;
inline constexpr size_t kGroupMostMembers = 1000;

struct GroupMember {
    int64_t heardAt = 0;
    bool leads = false;
    int64_t listensSince = 0;
};

struct Group {
    std::string name;      // its own, unlike all others'
    bool isAlone = false;  // no group was asked for: it leads from the start
    bool leads = false;
    bool isConnected = false;
    int64_t since = 0;  // of its connection, or of the break
    int64_t leaderHeardAt = 0;
    int64_t listensSince = 0;  // to the bus; set by the owner
    int64_t beatAt = 0;        // when the next beat is due
    int64_t leaderOldest = 0;  // how long the leader's oldest message had waited at its last beat
    std::map<std::string, GroupMember, std::less<>> members;  // the others
};

enum class GroupTurn { kNone, kLead, kStandBy };

void groupBegin(Group& group, int64_t now);
void groupConnected(Group& group, bool isConnected, int64_t now);

// What a beat says; times are ages.
struct GroupBeat {
    std::string_view name;
    bool leads = false;
    int64_t oldest = 0;
    int64_t listening = 0;
};

// A beat came. Its own is left aside.
GroupTurn groupHear(Group& group, const GroupBeat& beat, int64_t now);

// What has to be done now, `outBeat` says whether a beat is to be sent. It is called at least every
// quarter second.
GroupTurn groupTick(Group& group, int64_t now, bool& outBeat);

// What came before that may be forgotten by one that stands by.
[[nodiscard]] int64_t groupKeepSince(const Group& group, int64_t now);
