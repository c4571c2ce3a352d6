// Replies, and the names of sessions.

#include "lib/transport/daemon/session.h"

#include <arpa/inet.h>

#include <functional>

#include "tests/support/local_bus.h"

namespace {

using Fill = std::function<void(pelmoMsg* reply, pelmoMsg* data)>;

pelmoStatus replyWith(const Fill& fill, SessionReply* out) {
    const Message reply = newMessage(), data = newMessage();
    EXPECT_EQ(pelmoMsg_AddString(reply.get(), "mtype", "Reply", 0), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_AddIPAddr32(data.get(), "ipaddr", htonl(0x7f000001), 0), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_AddIPPort16(data.get(), "ipport", htons(7500), 0), kStatusSuccess);
    fill(reply.get(), data.get());
    EXPECT_EQ(pelmoMsg_AddMsg(reply.get(), "data", data.get(), 0), kStatusSuccess);
    return sessionReadReply(out, reply.get());
}

TEST(Session, ReadsReplies) {
    SessionReply read = {};
    const auto add = [](pelmoMsg* reply, pelmoMsg* data) {
        (void)pelmoMsg_AddString(reply, "gob", "outer", 0);
        (void)pelmoMsg_AddString(reply, "dtyp", "zOk", 0);
        (void)pelmoMsg_AddIPPort16(data, "cid", htons(0x1a2b), 0);
        (void)pelmoMsg_AddI32(data, "error", 0, 0);
        (void)pelmoMsg_AddI32(data, "vmaj", 8, 0);
        (void)pelmoMsg_AddI32(data, "vmin", 1, 0);
        (void)pelmoMsg_AddI32(data, "vupd", -2, 0);
    };
    EXPECT_EQ(replyWith(add, &read), kStatusSuccess);
    EXPECT_EQ(read.clientId, 0x1a2b);
    EXPECT_EQ(read.version, (DaemonVersion{8, 1, 0}));
    EXPECT_STREQ(read.gob, "outer");
    EXPECT_TRUE(read.isRouting);
    const auto addInner = [&](pelmoMsg* reply, pelmoMsg* data) {
        add(reply, data);
        (void)pelmoMsg_AddString(data, "gob", std::string(100, 'g').c_str(), 0);
        (void)pelmoMsg_AddString(data, "dtyp", "ZOKS", 0);
    };
    EXPECT_EQ(replyWith(addInner, &read), kStatusSuccess);
    EXPECT_EQ(read.gob, std::string(kGobBytes - 1, 'g'));
    EXPECT_FALSE(read.isRouting);
}

TEST(Session, IsNamedByWhatTheDaemonSays) {
    const std::string most(kMostSessionChars - 15, 'g');
    const struct {
        SessionParts parts;
        std::string name;  // empty: none can be made
    } rows[] = {
        {{0x7f000001, 0, 0, "G"}, "7F000001.G"},
        {{0x0a000001, 0, 0x2b, "G.H"}, "0A000001.U002B.G.H"},
        {{1, 0x1f40, 0x2b, "G"}, "00000001.P1F40.G"},
        {{1, 0, 1, most.c_str()}, "00000001.U0001." + most},
        {{1, 0, 0, ""}, ""},
        {{1, 0, 0, "G..H"}, ""},
        {{1, 0, 0, "*"}, ""},
        {{1, 0, 0, "G.>"}, ""},
    };
    char session[kMostSessionChars + 1];
    for (const auto& row : rows) {
        EXPECT_EQ(sessionName(session, row.parts),
                  row.name.empty() ? kStatusInitFailed : kStatusSuccess);
        if (!row.name.empty()) {
            EXPECT_EQ(session, row.name);
        }
    }
    EXPECT_EQ(sessionName(session, {1, 0, 1, (most + "g").c_str()}), kStatusInitFailed);

    char gob[kGobBytes];
    const auto* link = reinterpret_cast<const void*>(uintptr_t{0x5512345678a});
    sessionMakeGob(gob, {link, 0x1ffffffff, UINT32_MAX});
    EXPECT_STREQ(gob, "2345678AFFFFFFFFFFFFFFFF");
}

}  // namespace
