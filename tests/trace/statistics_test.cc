#include "trace/statistics.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <set>

#include "tests/support/trace_run.h"
#include "trace/settings.h"
#include "trace/snapshot_storage.h"

namespace {

TEST(Statistics, MakesARecordOnceForEachKey) {
    TraceRun run;
    std::set<void*> records;
    for (int round = 0; round < 2; ++round) {
        for (uint16_t port = 1; port <= 40; ++port) {
            PortEntry* entry = portEntry(port);
            NetEntry* net = netEntry(*entry, 7);
            records.insert({entry, net, netEntry(*entry, 8), hostEntry(*net, 7, port),
                            rlHostEntry(*entry, 7, port), ptpHostEntry(*entry, 7, port)});
            EXPECT_EQ(entry->live + net->live, 0u);
        }
    }
    EXPECT_EQ(records.size(), 40u * 6);
    EXPECT_EQ(run.logged(), Lines());
}

// Keys whose low bits agree, and keys of one address.
TEST(Statistics, FindsEachOfManyHostsAgain) {
    TraceRun run;
    NetEntry* net = netEntry(*portEntry(1), 1);
    SubjectEntry* subject = subjectEntry(*net, packedSubject("A").data(), 1, 1);
    for (uint32_t i = 0; i < 2000; ++i) {
        hostEntry(*net, i, 0)->bad = i;
        hostEntry(*net, 0xffffffff, static_cast<uint16_t>(i + 1))->bad = i + 100000;
        hostSubjEntry(*subject, i, 0)->msgs = i + 200000;
    }
    for (uint32_t i = 0; i < 2000; ++i) {
        EXPECT_EQ(hostEntry(*net, i, 0)->bad, i);
        EXPECT_EQ(hostEntry(*net, 0xffffffff, static_cast<uint16_t>(i + 1))->bad, i + 100000);
        EXPECT_EQ(hostSubjEntry(*subject, i, 0)->msgs, i + 200000);
    }
}

TEST(Statistics, KeepsSubjectsOfTheirOwnBytes) {
    TraceRun run;
    NetEntry* net = netEntry(*portEntry(1), 1);
    std::vector<SubjectEntry*> entries;
    const auto subjectOf = [](int i) {
        return packedSubject("A.B" + std::to_string(i) + "." +
                             std::string(static_cast<size_t>(i % 100), 'x') + "y");
    };
    for (int i = 0; i < 1500; ++i) {
        Bytes packed = subjectOf(i);
        entries.push_back(subjectEntry(*net, packed.data(), 1, 1));
        ASSERT_NE(entries.back(), nullptr);
        packed.assign(packed.size(), 0xff);
    }
    EXPECT_EQ(subjectMapCount(net->subjects), 1500u);
    for (int i = 0; i < 1500; i += 2) {
        subjectRemove(*net, *entries[static_cast<size_t>(i)]);
    }
    EXPECT_EQ(subjectMapCount(net->subjects), 750u);
    for (int i = 1; i < 1500; i += 2) {
        const Bytes packed = subjectOf(i);
        SubjectEntry* entry = entries[static_cast<size_t>(i)];
        EXPECT_EQ(subjectEntry(*net, packed.data(), 1, 1), entry);
        EXPECT_EQ(subjectName(packedSubject(*entry)), subjectName(packed.data()));
    }
    std::set<SubjectEntry*> places;
    for (uint32_t i = 0; i < subjectMapCount(net->subjects); ++i) {
        places.insert(&subjectAt(*net, i));
    }
    EXPECT_EQ(places.size(), 750u);
}

TEST(Statistics, RemembersServicePorts) {
    TraceRun run;
    EXPECT_EQ(servicePort(1, 2), 0);
    ServiceEntry* service = serviceEntry(1, 2);
    ASSERT_NE(service, nullptr);
    EXPECT_EQ(service->host, 1u);
    EXPECT_EQ(service->scid, 2);
    EXPECT_EQ(servicePort(1, 2), 0);
    service->servicePort = 7500;
    EXPECT_EQ(serviceEntry(1, 2), service);
    EXPECT_EQ(servicePort(1, 2), 7500);
    EXPECT_EQ(servicePort(2, 1), 0);
    EXPECT_EQ(servicePort(1, 3), 0);
}

TEST(Statistics, SwitchesAllTablesOffWithoutDisplay) {
    const TraceSettings before = traceSettings;
    for (const bool displayStats : {true, false}) {
        traceSettings.displayStats = displayStats;
        traceSettings.displayMcast = traceSettings.displayPtp = true;
        traceSettings.displaySubjects = traceSettings.displayHostMsgs = true;
        TraceRun run;
        EXPECT_EQ(traceSettings.displayMcast, displayStats);
        EXPECT_EQ(traceSettings.displayPtp, displayStats);
        EXPECT_EQ(traceSettings.displaySubjects, displayStats);
        EXPECT_EQ(traceSettings.displayHostMsgs, displayStats);
    }
    traceSettings = before;
}

}  // namespace
