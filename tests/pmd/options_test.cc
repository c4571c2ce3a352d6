// The command line of pmd: what each option sets, and what is wrong with a bad one.

#include "pmd/options.h"

#include <gtest/gtest.h>

#include <vector>

#include "lib/base/bytes.h"

namespace {

// What is wrong, or nothing.
std::string read(std::vector<std::string> words, PmdOptions& options) {
    std::vector<char*> arguments;
    for (std::string& word : words)
        arguments.push_back(word.data());
    std::string error;
    const PmdParse parse = pmdOptionsRead(arguments, options, error);
    EXPECT_EQ(parse, error.empty() ? PmdParse::kRun : PmdParse::kWrong);
    return error;
}

TEST(PmdOptions, SetWhereItListensItsLimitsAndTheWire) {
    PmdOptions options{};
    EXPECT_EQ(
        read({"-listen=tcp:10.1.2.3:7600", "-no-permanent", "--client-backlog", "2", "--memory",
              "16", "--max-clients=3", "--oska", "239.255.0.1:7501", "--interface", "127.0.0.1"},
             options),
        "");
    EXPECT_EQ(hostOrder32(options.address), 0x0a010203u);
    EXPECT_EQ(hostOrder16(options.port), 7600);
    EXPECT_FALSE(options.permanent);
    EXPECT_EQ(options.backlogBytes, 2u << 20);
    EXPECT_EQ(options.memoryBytes, 16u << 20);
    EXPECT_EQ(options.mostClients, 3u);
    EXPECT_TRUE(options.oska);
    EXPECT_EQ(hostOrder32(options.oskaGroup), 0xefff0001u);
    EXPECT_EQ(hostOrder16(options.oskaPort), 7501);
    EXPECT_EQ(hostOrder32(options.interfaceAddress), 0x7f000001u);
    EXPECT_EQ(read({"-listen", "tcp::7601"}, options), "");
    EXPECT_EQ(hostOrder32(options.address), 0x7f000001u);
    EXPECT_EQ(hostOrder16(options.port), 7601);
}

TEST(PmdOptions, NameTheWordThatIsWrong) {
    const std::pair<std::vector<std::string>, const char*> cases[] = {
        {{"7500"}, "7500: not an option"},
        {{"-listen", ""}, "-listen : not [ADDRESS:]PORT, such as 127.0.0.1:7500"},
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
        EXPECT_EQ(read(words, options), error);
    }
}

}  // namespace
