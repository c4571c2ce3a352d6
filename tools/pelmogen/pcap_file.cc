#include "tools/pelmogen/pcap_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

constexpr size_t kBufferBytes = 1 << 20;
constexpr size_t kFileHeaderBytes = 24;
constexpr size_t kPacketHeaderBytes = 16;
constexpr uint32_t kMagicMicroseconds = 0xa1b2c3d4;
constexpr uint32_t kMagicNanoseconds = 0xa1b23c4d;
constexpr uint16_t kVersionMajor = 2;
constexpr uint16_t kVersionMinor = 4;
constexpr uint32_t kLinkEthernet = 1;

bool swaps(const PcapFile& file) {
    return file.bigEndian == (std::endian::native == std::endian::little);
}

uint8_t* store32(const PcapFile& file, uint8_t* at, uint32_t word) {
    if (swaps(file)) word = __builtin_bswap32(word);
    std::memcpy(at, &word, sizeof word);
    return at + sizeof word;
}

uint8_t* store16(const PcapFile& file, uint8_t* at, uint16_t word) {
    if (swaps(file)) word = __builtin_bswap16(word);
    std::memcpy(at, &word, sizeof word);
    return at + sizeof word;
}

bool flush(PcapFile& file) {
    size_t done = 0;
    while (done < file.used) {
        const ssize_t count = ::write(file.descriptor, file.buffer.data() + done, file.used - done);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return false;
        done += static_cast<size_t>(count);
    }
    file.used = 0;
    return true;
}

// Returns room in the buffer, which can hold any packet; null when flushing it fails.
uint8_t* reserve(PcapFile& file, size_t sizeBytes) {
    if (file.used + sizeBytes > file.buffer.size() && !flush(file)) return nullptr;
    uint8_t* at = file.buffer.data() + file.used;
    file.used += sizeBytes;
    return at;
}

bool writeFileHeader(PcapFile& file) {
    uint8_t* at = reserve(file, kFileHeaderBytes);
    if (at == nullptr) return false;
    at = store32(file, at, file.nanoseconds ? kMagicNanoseconds : kMagicMicroseconds);
    at = store16(file, at, kVersionMajor);
    at = store16(file, at, kVersionMinor);
    at = store32(file, at, 0);
    at = store32(file, at, 0);
    at = store32(file, at, file.snapLength);
    store32(file, at, kLinkEthernet);
    return true;
}

bool writePacket(void* context, std::span<const uint8_t> frame, size_t wireBytes, int64_t timeNs) {
    PcapFile& file = *static_cast<PcapFile*>(context);
    const size_t kept = std::min<size_t>(frame.size(), file.snapLength);
    uint8_t* at = reserve(file, kPacketHeaderBytes + kept);
    if (at == nullptr) return false;
    const auto fraction = static_cast<uint32_t>(timeNs % kSecond);
    at = store32(file, at, static_cast<uint32_t>(timeNs / kSecond));
    at = store32(file, at, file.nanoseconds ? fraction : fraction / 1000);
    at = store32(file, at, static_cast<uint32_t>(kept));
    at = store32(file, at, static_cast<uint32_t>(wireBytes));
    std::memcpy(at, frame.data(), kept);
    return true;
}

bool isSpecial(const char* path) {
    struct stat status;
    return ::stat(path, &status) == 0 && !S_ISREG(status.st_mode);
}

bool closeDescriptor(PcapFile& file) {
    const int descriptor = file.descriptor;
    file.descriptor = -1;
    // close isn't repeated on EINTR, since that could close another file.
    return ::close(descriptor) == 0 || errno == EINTR;
}

bool finish(void* context) {
    PcapFile& file = *static_cast<PcapFile*>(context);
    if (!flush(file) || !closeDescriptor(file)) return false;
    if (file.partPath.empty()) return true;
    if (::rename(file.partPath.c_str(), file.path.c_str()) != 0) return false;
    file.partPath.clear();
    return true;
}

}  // namespace

bool pcapFileOpen(PcapFile& file, const GeneratorOptions& options) {
    file.bigEndian = options.bigEndian;
    file.nanoseconds = options.nanoseconds;
    file.snapLength = static_cast<uint32_t>(options.snapLength);
    file.path = options.outFile;
    file.buffer.resize(kBufferBytes);

    if (file.path == "-") {
        file.descriptor = ::dup(STDOUT_FILENO);
    } else if (isSpecial(options.outFile)) {
        file.descriptor = ::open(options.outFile, O_WRONLY | O_CLOEXEC);
    } else {
        const std::string part = file.path + ".part";
        file.descriptor = ::open(part.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
        if (file.descriptor >= 0) file.partPath = part;
    }
    return file.descriptor >= 0 && writeFileHeader(file);
}

void pcapFileClose(PcapFile& file) {
    if (file.descriptor >= 0) closeDescriptor(file);
    if (!file.partPath.empty()) ::unlink(file.partPath.c_str());
    file.partPath.clear();
}

PacketSink pcapFileSink(PcapFile& file) {
    return {.context = &file, .write = writePacket, .finish = finish, .wantsMore = nullptr};
}
