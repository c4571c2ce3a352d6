#include "tools/pelmogen/publications.h"

#include <algorithm>

#include "tools/pelmogen/prng.h"

namespace {

// How many of `whole` numbered items fall into class `number`.
uint64_t classSize(uint64_t whole, uint64_t classes, uint64_t number) {
    return (whole - number - 1) / classes + 1;
}

// Calls visit(stream, subject) for each publisher of each subject, subjects in order.
template <typename Visit>
void forEachPublisher(const GeneratorOptions& options, uint64_t classes, Visit visit) {
    const uint64_t services = options.nets * options.ports;
    for (uint32_t subject = 0; subject < options.subjects; ++subject) {
        const uint64_t service = subject % services;
        const uint64_t number = service % classes;
        const uint64_t members = classSize(options.hosts, classes, number);
        const uint64_t count = std::min<uint64_t>(publisherCount(options, subject), members);
        const uint64_t first = hash64(options.seed ^ 0xf125, subject) % members;
        for (uint64_t k = 0; k < count; ++k) {
            const uint64_t member = (first + k * (members / count)) % members;
            visit(service * options.hosts + number + member * classes, subject);
        }
    }
}

// Counts the subjects of each stream, at least one if its host has the service.
void countSubjects(const GeneratorOptions& options, Publications& publications) {
    std::vector<uint32_t>& starts = publications.starts;
    const uint64_t classes = publications.classes;
    forEachPublisher(options, classes, [&](uint64_t stream, uint32_t) { ++starts[stream + 1]; });
    for (uint64_t stream = 0; stream + 1 < starts.size(); ++stream) {
        const bool serves = stream / options.hosts % classes == stream % options.hosts % classes;
        if (serves && starts[stream + 1] == 0) starts[stream + 1] = 1;
        starts[stream + 1] += starts[stream];
    }
}

}  // namespace

uint32_t publisherCount(const GeneratorOptions& options, uint32_t subject) {
    const Range range = options.publishers;
    if (range.low == range.high) return range.low;
    // The greater of two uniform draws is below t with a chance of t squared.
    const uint64_t draws = hash64(options.seed ^ 0x9b11, subject);
    const uint64_t greater = std::max(draws >> 32, draws & UINT32_MAX) + 1;
    const uint64_t count = (uint64_t{range.low} << 32) / greater;
    return static_cast<uint32_t>(std::min<uint64_t>(count, range.high));
}

Publications publicationsMake(const GeneratorOptions& options) {
    Publications publications;
    const uint64_t services = options.nets * options.ports;
    const uint64_t wanted = (services - 1) / options.services + 1;
    publications.classes = std::min(options.hosts, wanted);
    publications.starts.resize(services * options.hosts + 1);
    countSubjects(options, publications);

    std::vector<uint32_t> next = publications.starts;
    publications.subjects.resize(publications.starts.back());
    for (uint64_t stream = 0; stream + 1 < next.size(); ++stream) {
        const auto service = static_cast<uint32_t>(stream / options.hosts);
        if (next[stream] < next[stream + 1]) publications.subjects[next[stream]] = service;
    }
    forEachPublisher(options, publications.classes, [&](uint64_t stream, uint32_t subject) {
        publications.subjects[next[stream]++] = subject;
    });
    return publications;
}

uint64_t servicesOf(const Publications& publications,
                    const GeneratorOptions& options,
                    uint32_t host) {
    const uint64_t classes = publications.classes;
    return classSize(options.nets * options.ports, classes, host % classes);
}
