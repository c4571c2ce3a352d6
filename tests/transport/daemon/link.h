// A network transport, its daemon, and a queue that the test dispatches.

#pragma once

#include "tests/support/link_fixture.h"

inline const std::string kSession = "7F000001.U002A.GOB";
inline const std::string kOwnInboxes = "L _INBOX." + kSession + ".>";
inline const Texts kFirstWords = {"start  rc=true}", "start " + kSession + " rc=true}",
                                  kOwnInboxes};
inline const Texts kNextWords = {kFirstWords[1], kFirstWords[1], kOwnInboxes};

inline std::string textMessage(const std::string& subject, const std::string& text) {
    return subject + " {text=\"" + text + "\"}";
}

using Behaviour = TestDaemon::Behaviour;

struct Link : testing::Test {
    LinkFixture fixture;
    TestDaemon daemon;
    uint32_t queue = 0;
    uint32_t id = kNoId;

    void SetUp() override { ASSERT_EQ(pelmoQueue_Create(&queue), kStatusSuccess); }
    void TearDown() override {
        if (id != kNoId) {
            EXPECT_EQ(pelmoTransport_Destroy(id), kStatusSuccess);
        }
        EXPECT_EQ(fixture.timers(), 0u);
    }
    pelmoStatus create(const char* service = nullptr, const char* prefix = "") {
        return pelmoTransport_CreateNetwork(&id, service, nullptr,
                                            (prefix + daemon.specification()).c_str());
    }
    void connect() {
        ASSERT_EQ(create(), kStatusSuccess);
        EXPECT_EQ(daemon.await(3), kFirstWords);
    }
    // What the daemon has heard since the last call.
    Texts heard() {
        EXPECT_EQ(sendText(id, "END", "."), kStatusSuccess);
        Texts texts = daemon.await(textMessage("END", "."));
        texts.pop_back();
        return texts;
    }
    // Hands the transport what comes from outside.
    void arrive(const std::vector<std::pair<std::string, const char*>>& subjectsAndTexts) const {
        std::vector<pelmoMsg*> batch;
        for (const auto& [subject, text] : subjectsAndTexts)
            batch.push_back(messageOn(subject.c_str(), text).release());
        Transport_DeliverBatch(recordOf<Transport>(id), batch);
        dispatchAll(queue);
    }
    void breakAndRepair() {
        daemon.breakConnections();
        fixture.fire(fixture.awaitTimer());
    }
    void dispatchUntil(const TestListener& listener, size_t count) const {
        while (listener.texts.size() < count) {
            ASSERT_EQ(pelmoQueue_TimedDispatch(queue, 30), kStatusSuccess);
        }
    }
};
