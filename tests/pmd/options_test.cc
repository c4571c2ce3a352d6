// The command line: what each option sets, and what a bad one is told.

#include "pmd/options.h"

#include <gtest/gtest.h>

#include <vector>

#include "lib/base/bytes.h"

namespace {

PmdParse read(std::vector<std::string> words, PmdOptions& options, std::string& error) {
    std::vector<char*> arguments;
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    return pmdOptionsRead(arguments, options, error);
}

struct Listen {
    std::vector<std::string> words;
    uint32_t address;
    uint16_t port;
};

TEST(PmdOptions, ListensWhereItIsTold) {
    const Listen cases[] = {
        {{}, 0x7f000001, 7500},
        {{"-listen", "7600"}, 0x7f000001, 7600},
        {{"-listen", ":7600"}, 0x7f000001, 7600},
        {{"--listen", "tcp:7600"}, 0x7f000001, 7600},
        {{"--listen=tcp::7600"}, 0x7f000001, 7600},
        {{"-listen=10.1.2.3:7600"}, 0x0a010203, 7600},
        {{"-listen", "tcp:0.0.0.0:7600"}, 0, 7600},
    };
    for (const Listen& c : cases) {
        PmdOptions options{};
        std::string error;
        ASSERT_EQ(read(c.words, options, error), PmdParse::kRun) << error;
        EXPECT_EQ(hostOrder32(options.address), c.address);
        EXPECT_EQ(hostOrder16(options.port), c.port);
        EXPECT_TRUE(options.permanent);
    }
}

TEST(PmdOptions, SetsWhatItIsTold) {
    PmdOptions options{};
    std::string error;
    ASSERT_EQ(read({"-no-permanent", "--client-backlog", "2", "--memory", "16", "--max-clients=3",
                    "--oska", "239.255.0.1:7501", "--interface", "127.0.0.1"},
                   options, error),
              PmdParse::kRun)
        << error;
    EXPECT_FALSE(options.permanent);
    EXPECT_EQ(options.backlogBytes, 2u << 20);
    EXPECT_EQ(options.memoryBytes, 16u << 20);
    EXPECT_EQ(options.mostClients, 3u);
    EXPECT_TRUE(options.oska);
    EXPECT_EQ(hostOrder32(options.oskaGroup), 0xefff0001u);
    EXPECT_EQ(hostOrder16(options.oskaPort), 7501);
    EXPECT_EQ(hostOrder32(options.interfaceAddress), 0x7f000001u);
}

TEST(PmdOptions, TellsWhichWordIsWrong) {
    struct Case {
        std::vector<std::string> words;
        const char* error;
    };
    const Case cases[] = {
        {{"-x"}, "unknown option -x"},
        {{"7500"}, "unknown option 7500"},
        {{"--"}, "unknown option --"},
        {{"-listen"}, "-listen needs SPEC"},
        {{"-listen", ""}, "-listen can't be "},
        {{"-listen", "0"}, "-listen can't be 0"},
        {{"-listen", "70000"}, "-listen can't be 70000"},
        {{"-listen", "ssl:7500"}, "-listen can't be ssl:7500"},
        {{"-listen", "ipc:x"}, "-listen can't be ipc:x"},
        {{"-listen", "10.0.0.256:7500"}, "-listen can't be 10.0.0.256:7500"},
        {{"-no-permanent=1"}, "-no-permanent=1: -no-permanent takes no value"},
        {{"--client-backlog", "0"}, "--client-backlog can't be 0"},
        {{"--client-backlog", "1x"}, "--client-backlog can't be 1x"},
        {{"--max-clients", "60001"}, "--max-clients can't be 60001"},
        {{"--oska", "10.0.0.1:7500"}, "--oska can't be 10.0.0.1:7500"},
        {{"--oska", "239.0.0.1"}, "--oska can't be 239.0.0.1"},
        {{"--interface", "eth0", "--oska", "239.0.0.1:1"}, "--interface can't be eth0"},
        {{"--interface", "127.0.0.1"}, "--interface is of no use without --oska"},
    };
    for (const Case& c : cases) {
        PmdOptions options{};
        std::string error;
        EXPECT_EQ(read(c.words, options, error), PmdParse::kWrong) << c.error;
        EXPECT_EQ(error, c.error);
    }
}

}  // namespace
