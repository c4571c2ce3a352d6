// The command line of pmd: what each option sets, and what is wrong with a bad one.

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

TEST(PmdOptions, SetWhereItListens) {
    const struct {
        const char* listen;
        uint32_t address;
        uint16_t port;
    } cases[] = {{"7600", 0x7f000001, 7600},          {":7600", 0x7f000001, 7600},
                 {"tcp:7600", 0x7f000001, 7600},      {"tcp::7600", 0x7f000001, 7600},
                 {"10.1.2.3:7600", 0x0a010203, 7600}, {"tcp:0.0.0.0:7600", 0, 7600}};
    for (const auto& [listen, address, port] : cases) {
        PmdOptions options{};
        std::string error;
        ASSERT_EQ(read({"-listen", listen}, options, error), PmdParse::kRun) << error;
        EXPECT_EQ(hostOrder32(options.address), address);
        EXPECT_EQ(hostOrder16(options.port), port);
    }
}

TEST(PmdOptions, SetItsLimitsAndTheWire) {
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

TEST(PmdOptions, NameTheWordThatIsWrong) {
    const struct {
        std::vector<std::string> words;
        const char* error;
    } cases[] = {
        {{"7500"}, "7500: not an option"},
        {{"-listen", ""}, "-listen : not [ADDRESS:]PORT, such as 127.0.0.1:7500"},
        {{"-listen=ssl:7500"}, "-listen ssl:7500: not [ADDRESS:]PORT, such as 127.0.0.1:7500"},
        {{"--client-backlog", "0"}, "--client-backlog 0: out of range"},
        {{"--max-clients", "60001"}, "--max-clients 60001: out of range"},
        {{"--oska", "10.0.0.1:7500"},
         "--oska 10.0.0.1:7500: not GROUP:PORT, such as 239.255.0.1:7500"},
        {{"--oska", "239.0.0.1"}, "--oska 239.0.0.1: not GROUP:PORT, such as 239.255.0.1:7500"},
        {{"--interface", "eth0"}, "--interface eth0: not an address such as 10.1.2.3"},
        {{"--interface", "127.0.0.1"}, "--interface: needs --oska"},
    };
    for (const auto& [words, error] : cases) {
        PmdOptions options{};
        std::string found;
        EXPECT_EQ(read(words, options, found), PmdParse::kWrong) << error;
        EXPECT_EQ(found, error);
    }
}

}  // namespace
