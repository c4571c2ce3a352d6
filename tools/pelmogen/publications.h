// The publishers of each subject when a host sends on few services: "--services".
//
// Hosts fall into classes, by number, and so do services; a host sends on the services of its
// class, and a subject's publishers are hosts of its service's class. A host that would be left
// without a subject on one of its services publishes the first one there.

#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "tools/pelmogen/options.h"

struct Publications {
    uint64_t classes = 0;          // 0: there are none
    std::vector<uint32_t> starts;  // by stream, service x hosts + host; and the end
    std::vector<uint32_t> subjects;
};

// How many hosts publish a subject. Over a range, x or more with a chance of (low / x) squared:
// three quarters of the subjects have less than twice the least.
[[nodiscard]] uint32_t publisherCount(const GeneratorOptions& options, uint32_t subject);

[[nodiscard]] Publications publicationsMake(const GeneratorOptions& options);

// The number of services that `host` sends on; these are host mod classes + k * classes.
[[nodiscard]] uint64_t servicesOf(const Publications& publications,
                                  const GeneratorOptions& options,
                                  uint32_t host);

// The subjects of a stream, in order; the span borrows from the table.
[[nodiscard]] inline std::span<const uint32_t> subjectsOf(const Publications& publications,
                                                          uint64_t stream) {
    const uint32_t start = publications.starts[stream];
    return std::span(publications.subjects).subspan(start, publications.starts[stream + 1] - start);
}
