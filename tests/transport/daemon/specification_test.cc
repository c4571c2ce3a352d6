// Daemon arguments, in all their forms.

#include "lib/transport/daemon/specification.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

const std::string kLongHost(kMostHostChars, 'h');

const NameResolver kNames = {.host =
                                 [](const char* name, uint32_t* out) {
                                     *out = htonl(0x0a000007);
                                     return std::string(name) == "known" || kLongHost == name;
                                 },
                             .service =
                                 [](const char* name, const char*, uint16_t* out) {
                                     *out = htons(7600);
                                     return std::string(name) == "bus";
                                 }};

TEST(Specification, NamesTheDaemon) {
    struct Row {
        const char* argument;
        pelmoStatus status;
        const char* text = "";  // after defaulting; null: as given
        uint32_t address = 0;
        uint16_t port = 7500;
        bool namesHost = false;
        bool isSecure = false;
    };
    const std::string longest = kLongHost + ":7500", tooLong = "h" + longest;
    std::vector<Row> rows = {
        {nullptr, kStatusSuccess, "7500"},
        {"7501", kStatusSuccess, nullptr, 0, 7501},
        {":65535", kStatusSuccess, nullptr, 0, 65535},
        {"bus", kStatusSuccess, nullptr, 0, 7600},
        {"known:bus", kStatusSuccess, nullptr, 0x0a000007, 7600, true},
        {"127.0.0.1:7500", kStatusSuccess, nullptr, 0x7f000001, 7500, true},
        {"tcp::7500", kStatusSuccess, nullptr},
        {"tcp:1.2.3.4:7500", kStatusSuccess, nullptr, 0x01020304, 7500, true},
        {"ssl:known:7500", kStatusSuccess, nullptr, 0x0a000007, 7500, true, true},
        {longest.c_str(), kStatusSuccess, nullptr, 0x0a000007, 7500, true},
        {"-listen", kStatusNotPermitted},
    };
    for (const char* text : {"ipc:",        "ipc:7500",       "tcp:",
                             "ssl:",        "TCP:7500",       "tcp:ssl:7500",
                             ":",           "known:",         "0",
                             "65536",       "4294974796",     "7500x",
                             " 7500",       "+7500",          "known:7500:7501",
                             "1.2.3:7500",  "1.2.3.4.5:7500", "1.2.3.256:7500",
                             "1..2.3:7500", "unknown:7500",   tooLong.c_str()}) {
        rows.push_back({text, kStatusInvalidArgument});
    }
    for (const auto& row : rows) {
        SCOPED_TRACE(row.argument != nullptr ? row.argument : "null");
        DaemonSpecification parsed = {};
        DaemonAddress where = {};
        pelmoStatus status = specificationParse(&parsed, row.argument);
        if (status == kStatusSuccess) status = specificationResolve(&where, parsed, kNames);
        ASSERT_EQ(status, row.status);
        if (status != kStatusSuccess) continue;
        EXPECT_STREQ(parsed.text, row.text != nullptr ? row.text : row.argument);
        EXPECT_EQ(ntohl(where.address), row.address);
        EXPECT_EQ(ntohs(where.port), row.port);
        EXPECT_EQ(parsed.namesHost, row.namesHost);
        EXPECT_EQ(parsed.isSecure, row.isSecure);
    }
}

}  // namespace
