#include "trace/report/host_report.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "tests/support/fail_alloc.h"
#include "tests/support/packet_builder.h"
#include "tests/support/snapshot_builder.h"

namespace {

std::string print(const std::vector<Bytes>& messages) {
    std::vector<const uint8_t*> pointers;
    for (const Bytes& bytes : messages) {
        pointers.push_back(bytes.data());
    }
    SnapNet net{};
    net.statusMsgCount = static_cast<uint32_t>(pointers.size());
    net.statusMsgs = pointers.data();
    char* text = nullptr;
    size_t textBytes = 0;
    FILE* stream = open_memstream(&text, &textBytes);
    printHostMessages(htons(7500), net, stream);
    std::fclose(stream);
    const std::string printed(text, textBytes);
    std::free(text);
    return printed;
}

Bytes textMessage(const std::string& text) {
    return message({subjectField(packedSubject("_PM.INFO.SYSTEM.HOST.h")),
                    field(named("s"), 8, bytesOf(text + '\0'))});
}

const std::string kHeading = "System host messages for port 7500\n";

TEST(HostReport, GoesOnWithoutMemory) {
    const std::string whole = print({textMessage("one"), textMessage("two")});
    const size_t runs = eachAllocationFails([&] {
        const Bytes one = textMessage("one"), two = textMessage("two");
        const std::string printed = print({one, two});
        if (allocationsFailed() == 0) {
            EXPECT_EQ(printed, whole);
            return;
        }
        // Each line is a message's own or tells of it; or a value lacked the memory.
        EXPECT_EQ(std::count(printed.begin(), printed.end(), '\n'), 4);
        EXPECT_TRUE(printed.starts_with(kHeading));
        EXPECT_TRUE(printed.find("bytes without text: Memory allocation failed]\n") !=
                        std::string::npos ||
                    printed.find("[NO ") != std::string::npos)
            << printed;
    });
    EXPECT_GT(runs, 4u);
}

}  // namespace
