#include <gtest/gtest.h>

#include <deque>
#include <sstream>

#include "bus/command_line.h"
#include "bus/common.h"
#include "programs/field_kind.h"

namespace {

// The words of a text, which stay for what points to them.
CommandLine readWords(const std::string& text) {
    static std::deque<std::string> kept;
    std::istringstream stream(text);
    std::vector<char*> words;
    for (std::string word; stream >> word;)
        words.push_back(kept.emplace_back(word).data());
    return commandLineRead(words);
}

std::string textOf(const std::vector<TextField>& fields) {
    const OwnedMessage msg = messageMake();
    const TextField* fault = nullptr;
    EXPECT_EQ(textFieldsAdd(msg.get(), fields, &fault), kStatusSuccess);
    const char* text = nullptr;
    EXPECT_EQ(pelmoMsg_ConvertToString(msg.get(), &text), kStatusSuccess);
    return text != nullptr ? text : "";
}

}  // namespace

TEST(BusWords, OptionsComeAfterTheirCommandInAnyOrder) {
    const CommandLine line = readWords(
        "--daemon=host:7500 -- send --rate 2.5 A.B x=1 --size 0 y:i8=-7 "
        "d:datetime=2024-02-29T23:59:59.5Z -- --z=--");
    ASSERT_EQ(line.fault, "");
    ASSERT_NE(line.command, nullptr);
    EXPECT_STREQ(line.command->name, "send");
    EXPECT_STREQ(line.settings.daemon, "host:7500");
    EXPECT_EQ(line.settings.rate, 2.5);
    EXPECT_EQ(line.settings.sizeBytes, 0u);
    EXPECT_EQ(textOf(line.settings.fields),
              R"({x="1" y=-7 d=2024-02-29 23:59:59.500000000Z --z="--"})");
}

TEST(BusWords, FaultsNameTheWord) {
    const std::pair<const char*, const char*> cases[] = {
        {"", "a command is missing: see --help"},
        {"frob", "frob: no such command; see --help"},
        {"listen", "listen: needs a SUBJECT"},
        {"listen A --local", "--local: belongs before the command"},
        {"listen A --rate 1", "--rate: not an option of this command"},
        {"listen A --count=-1", "--count -1: not a whole number from 0 up"},
        {"send A --lines --json", "send: --lines and --json exclude each other"},
        {"send A --pace", "send: --pace needs --json"},
        {"send A --json --speed=2", "send: --speed needs --pace"},
        {"send A --speed=0", "--speed 0: out of range"},
        {"send A --speed=NaN", "--speed NaN: out of range"},
        {"send A --json --pace --rate=2", "send: --pace and --rate exclude each other"},
        {"send A --to=B", "send: --original, --prefix and --to need --json"},
        {"send --json --to=B --original", "send: --original, --prefix and --to exclude each other"},
        {"send --json --prefix=", "--prefix : is empty"},
        {"send --json --pace", "send: needs a SUBJECT"},
        {"send A x", "x: neither NAME=TEXT nor NAME:TYPE=VALUE"},
        {"send A =b:c=d=e", "=b:c=d=e: a field needs a name"},
        {"send A x:i8=128", "x:i8=128: out of range"},
        {"send A x:f64=inf", "x:f64=inf: not a number"},
        {"send A x:bool=1", "x:bool=1: neither true nor false"},
        {"send A x:ip=1.2.3", "x:ip=1.2.3: not an address such as 10.1.2.3"},
        {"send A x:opaque=0g", "x:opaque=0g: not pairs of hexadecimal digits"},
    };
    for (const auto& [words, fault] : cases) {
        const CommandLine line = readWords(words);
        EXPECT_EQ(line.fault, fault);
        EXPECT_EQ(line.command, nullptr);
    }
    // The message of these is longer.
    EXPECT_TRUE(readWords("send A x:msg=1").fault.starts_with("x:msg=1: no type \"msg\"; there"));
    const std::string longName(127, 'n');
    EXPECT_TRUE(readWords("send A " + longName + "=").fault.ends_with("its name is too long"));
}

TEST(BusWords, RefusesWhatIsNoDate) {
    for (const char* text :
         {"2024-01-02", "2024-01-02 03:04:05", "2023-02-29 00:00:00Z", "1900-02-29 00:00:00Z",
          "2024-13-01 00:00:00Z", "2024-00-01 00:00:00Z", "2024-01-00 00:00:00Z",
          "0000-01-01 00:00:00Z", "2024-01-01 24:00:00Z", "2024-01-01 00:60:00Z",
          "2024-01-01 00:00:60Z", "2024-01-01 00:00:00.Z", "2024-01-01 00:00:00.1234567890Z",
          "2024-1-01 00:00:00Z", "2024-01-01 00:00:00Zx", "9999999-01-01 00:00:00Z"}) {
        pelmoMsgDateTime date{};
        EXPECT_NE(dateTextParse(text, date), nullptr) << text;
    }
}
