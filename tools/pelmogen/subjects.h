// The subjects of the bus, by number, in packed form: length of the whole (2 bytes), number of
// elements, then each element as its size, its text and a NUL.
//
// Subject n is a function of the options and n. Neighbours share their first elements, as subjects
// of real systems do; the last element ends in n, so all are distinct.
//
// Ownership: spans borrow from the table.

#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "tools/pelmogen/byte_writer.h"
#include "tools/pelmogen/options.h"

constexpr size_t kSendSubjectBytesMax = 200;

struct SubjectTable {
    std::vector<uint8_t> bytes;
    std::vector<uint32_t> starts;  // one more than there are subjects
};

// An upper bound of the sizes of subjects under these options.
[[nodiscard]] uint64_t subjectBytesMax(const GeneratorOptions& options);

[[nodiscard]] SubjectTable subjectTableMake(const GeneratorOptions& options);

[[nodiscard]] inline std::span<const uint8_t> subjectAt(const SubjectTable& table,
                                                        uint32_t number) {
    const uint32_t start = table.starts[number];
    return std::span(table.bytes).subspan(start, table.starts[number + 1] - start);
}

// Writes "_PM.INFO.SYSTEM.HOST." and a name of the host.
void putHostStatusSubject(ByteWriter& writer, uint32_t host);
