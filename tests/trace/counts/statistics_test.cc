#include "trace/counts/statistics.h"

#include <gtest/gtest.h>

#include "tests/support/trace_run.h"

namespace {

// The packet's bytes are only borrowed.
TEST(Statistics, KeepsSubjectsOfTheirOwnBytes) {
    TraceRun run;
    NetEntry* net = netEntry(*portEntry(1), 1);
    const std::string name = "A.B." + std::string(100, 'x');
    Bytes packed = packedSubject(name);
    SubjectEntry* entry = subjectEntry(*net, packed.data(), 1, 1);
    ASSERT_NE(entry, nullptr);
    packed.assign(packed.size(), 0xff);
    EXPECT_EQ(subjectEntry(*net, packedSubject(name).data(), 1, 1), entry);
    EXPECT_EQ(subjectName(packedSubject(*entry)), name);
    subjectRemove(*net, *entry);
    EXPECT_EQ(subjectMapCount(net->subjects), 0u);
}

}  // namespace
