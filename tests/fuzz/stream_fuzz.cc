// Any bytes as the stream of a connection: split at random, or taken unit by unit, they give the
// same messages and the same verdict as in large pieces.

#include "tests/fuzz/fuzz.h"
#include "tests/support/stream_run.h"

namespace {

constexpr uint32_t kMostMessageBytes = 0x30000;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    uint32_t seed = data[0] * 256u + data[1];
    const std::string_view stream(reinterpret_cast<const char*>(data) + 2, size - 2);
    const uint32_t smallBuffer = 8 + seed % 512;
    const auto whole = [] { return kMostReadBytes; };
    const auto random = [&seed] {
        seed = seed * 1'103'515'245u + 12'345u;
        return (seed >> 16) % ((seed & 0x100) != 0 ? 9u : 300u);
    };
    const CutStream expected = cutStream(stream, kReadBufferBytes, kMostMessageBytes, false, whole);
    require(expected.mostOver == 0);
    require(cutStream(stream, smallBuffer, kMostMessageBytes, false, random) == expected);
    require(cutStream(stream, kReadBufferBytes, kMostMessageBytes, true, random) == expected);
    return 0;
}
