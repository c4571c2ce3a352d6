// pelmogen: makes bus traffic for tests, samples and measurements, as a capture or live.
//
// Exit status: 0 when the capture is complete or all was sent, 1 on failure, 2 for a wrong command
// line.

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>

#include "tools/pelmogen/command_line.h"
#include "tools/pelmogen/generate.h"
#include "tools/pelmogen/pcap_file.h"
#include "tools/pelmogen/totals.h"
#include "tools/pelmogen/wire.h"

namespace {

int writeCapture(const GeneratorOptions& options) {
    PcapFile file;
    SentTotals totals;
    errno = 0;
    const bool done = pcapFileOpen(file, options) && generate(options, pcapFileSink(file), totals);
    const int error = errno;
    pcapFileClose(file);
    if (done) return 0;
    std::fprintf(stderr, "pelmogen: %s: %s\n", options.outFile, std::strerror(error));
    return 1;
}

int sendLive(const GeneratorOptions& options) {
    const char* const where = options.loopback ? "loopback" : options.interfaceName;
    Wire wire;
    SentTotals totals;
    std::string error;
    bool done = wireOpen(wire, options, error);
    if (done && !generate(options, wireSink(wire), totals)) {
        error = std::strerror(errno);
        done = false;
    }
    wireClose(wire);
    if (done) {
        std::fputs(totalsText(totals).c_str(), stdout);
        return 0;
    }
    std::fprintf(stderr, "pelmogen: %s: %s\n", where, error.c_str());
    return 1;
}

}  // namespace

int main(int argc, char** argv) try {
    GeneratorOptions options;
    std::string error;
    switch (optionsParse(argc, argv, options, error)) {
        case ParseResult::kHelp:
            std::fputs(optionsHelp().c_str(), stdout);
            return 0;
        case ParseResult::kWrong:
            std::fprintf(stderr, "pelmogen: %s; --help lists the options\n", error.c_str());
            return 2;
        case ParseResult::kRun:
            return options.outFile != nullptr ? writeCapture(options) : sendLive(options);
    }
} catch (const std::bad_alloc&) {
    std::fputs("pelmogen: out of memory\n", stderr);
    return 1;
}
