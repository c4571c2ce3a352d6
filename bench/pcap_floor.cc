// The floor that the tool is measured against: libpcap's loop with the same filter on the same
// file or interface, and a callback that counts.
//
//     pcap_floor FILE [--filter EXPRESSION] [--checksum]
//     pcap_floor --live INTERFACE [--buffer KILOBYTES] ...
//
// The program opens a file itself and gives libpcap the stream with a buffer of 256 KiB; a stream
// that libpcap opens has one of 4 KiB, which makes a system call every few packets.
//
// --live captures from an interface as the tool does until SIGINT or SIGTERM, and then also prints
// what the kernel received and dropped. --buffer sets the size of the capture buffer, which is
// otherwise libpcap's default.
//
// With --checksum the callback also sums each UDP payload once, as quickly as the tool does:
// vectors of 32-bit words, widened into lanes of 64 bits and folded at the end, by AVX2 where the
// machine has it.
//
// Prints packets, bytes and the sum of the checksums, so that no work can be left out.

#include <pcap.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int kSnapBytes = 1518;
constexpr int kPromiscuous = 1;
constexpr int kReadTimeoutMs = 1000;
constexpr size_t kFileBufferBytes = 256 * 1024;

constexpr size_t kEtherIpBytes = 14 + 20;
constexpr size_t kUdpBytes = 8;

struct Totals {
    bool sumsUp;
    uint64_t packets, bytes, sums;
};

uint16_t fold(uint64_t sum) {
    while (sum >> 16 != 0) {
        sum = (sum & 0xffff) + (sum >> 16);
    }
    return static_cast<uint16_t>(sum);
}

using Lanes [[gnu::vector_size(32)]] = uint64_t;

[[gnu::always_inline]] inline uint64_t sumLanes(const uint8_t* bytes, size_t sizeBytes) {
    Lanes low{};
    Lanes high{};
    Lanes words;
    for (; sizeBytes >= sizeof words; bytes += sizeof words, sizeBytes -= sizeof words) {
        std::memcpy(&words, bytes, sizeof words);
        low += words & UINT32_MAX;
        high += words >> 32;
    }
    words = Lanes{};
    std::memcpy(&words, bytes, sizeBytes);
    low += (words & UINT32_MAX) + (words >> 32) + high;
    return low[0] + low[1] + low[2] + low[3];
}

uint64_t sumPlain(const uint8_t* bytes, size_t sizeBytes) {
    return sumLanes(bytes, sizeBytes);
}

#ifdef __x86_64__
[[gnu::target("avx2")]] uint64_t sumWide(const uint8_t* bytes, size_t sizeBytes) {
    return sumLanes(bytes, sizeBytes);
}

const auto sumOf = __builtin_cpu_supports("avx2") != 0 ? sumWide : sumPlain;
#else
const auto sumOf = sumPlain;
#endif

// The UDP payload in hand behind an Ethernet and an IP header without options.
size_t payloadBytes(const uint8_t* frame, size_t caughtBytes) {
    if (caughtBytes < kEtherIpBytes + kUdpBytes) return 0;
    const uint8_t* length = frame + kEtherIpBytes + 4;
    const auto udpBytes = static_cast<size_t>(length[0] << 8 | length[1]);
    const size_t inHand = caughtBytes - kEtherIpBytes - kUdpBytes;
    if (udpBytes < kUdpBytes) return 0;
    return udpBytes - kUdpBytes < inHand ? udpBytes - kUdpBytes : inHand;
}

void count(u_char* user, const pcap_pkthdr* header, const u_char* frame) {
    Totals& totals = *reinterpret_cast<Totals*>(user);
    ++totals.packets;
    totals.bytes += header->caplen;
    if (!totals.sumsUp) return;
    const uint8_t* payload = frame + kEtherIpBytes + kUdpBytes;
    totals.sums += fold(sumOf(payload, payloadBytes(frame, header->caplen)));
}

int fail(const char* what, const char* why) {
    std::fprintf(stderr, "pcap_floor: %s: %s\n", what, why);
    return 1;
}

struct Source {
    const char* name;
    bool live;
    int bufferKb;  // 0: libpcap's default
};

// Does the steps of pcap_open_live one by one, since that call can't set the buffer size.
pcap_t* openWithBuffer(const Source& source, char* error) {
    pcap_t* capture = pcap_create(source.name, error);
    if (capture == nullptr) return nullptr;
    pcap_set_snaplen(capture, kSnapBytes);
    pcap_set_promisc(capture, kPromiscuous);
    pcap_set_timeout(capture, kReadTimeoutMs);
    pcap_set_buffer_size(capture, source.bufferKb * 1024);
    if (pcap_activate(capture) >= 0) return capture;
    std::snprintf(error, PCAP_ERRBUF_SIZE, "%s", pcap_geterr(capture));
    pcap_close(capture);
    return nullptr;
}

// The stream uses the buffer until the capture is closed.
pcap_t* openFile(const char* path, char* error) {
    static char buffer[kFileBufferBytes];
    std::FILE* file = std::fopen(path, "rb");
    if (file == nullptr) {
        std::snprintf(error, PCAP_ERRBUF_SIZE, "%s", std::strerror(errno));
        return nullptr;
    }
    std::setvbuf(file, buffer, _IOFBF, sizeof buffer);
    pcap_t* capture = pcap_fopen_offline(file, error);
    if (capture == nullptr) std::fclose(file);
    return capture;
}

pcap_t* open(const Source& source, char* error) {
    if (!source.live) return openFile(source.name, error);
    if (source.bufferKb != 0) return openWithBuffer(source, error);
    return pcap_open_live(source.name, kSnapBytes, kPromiscuous, kReadTimeoutMs, error);
}

pcap_t* stoppable;

void stop(int) {
    pcap_breakloop(stoppable);
}

// A script can wait for this line on the standard error stream.
void announce(pcap_t* capture) {
    stoppable = capture;
    struct sigaction action {};
    action.sa_handler = stop;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    std::fputs("listening\n", stderr);
}

void printDrops(pcap_t* capture) {
    pcap_stat stats;
    if (pcap_stats(capture, &stats) != 0) return;
    std::printf("%u received, %u dropped, %u dropped by the interface\n", stats.ps_recv,
                stats.ps_drop, stats.ps_ifdrop);
}

int loop(const Source& source, const char* filter, Totals& totals) {
    char error[PCAP_ERRBUF_SIZE];
    pcap_t* capture = open(source, error);
    if (capture == nullptr) return fail(source.name, error);
    bpf_program program;
    if (pcap_compile(capture, &program, filter, 0, 0) != 0 ||
        pcap_setfilter(capture, &program) != 0) {
        return fail(filter, pcap_geterr(capture));
    }
    if (source.live) announce(capture);
    const int ended = pcap_loop(capture, 0, count, reinterpret_cast<u_char*>(&totals));
    if (ended < 0 && ended != PCAP_ERROR_BREAK) return fail(source.name, pcap_geterr(capture));
    if (source.live) printDrops(capture);
    pcap_freecode(&program);
    pcap_close(capture);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    Source source{};
    const char* filter = "udp";
    Totals totals{};
    bool wrong = false;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--checksum") == 0) {
            totals.sumsUp = true;
        } else if (std::strcmp(argv[i], "--filter") == 0 && i + 1 < argc) {
            filter = argv[++i];
        } else if (std::strcmp(argv[i], "--buffer") == 0 && i + 1 < argc) {
            source.bufferKb = std::atoi(argv[++i]);
        } else if (std::strcmp(argv[i], "--live") == 0) {
            source.live = true;
        } else {
            wrong = wrong || source.name != nullptr;
            source.name = argv[i];
        }
    }
    if (source.name == nullptr || wrong) {
        std::fputs(
            "usage: pcap_floor FILE | --live INTERFACE [--buffer KILOBYTES]\n"
            "                  [--filter EXPRESSION] [--checksum]\n",
            stderr);
        return 2;
    }
    const int status = loop(source, filter, totals);
    std::printf("%llu packets, %llu bytes, sum %llu\n",
                static_cast<unsigned long long>(totals.packets),
                static_cast<unsigned long long>(totals.bytes),
                static_cast<unsigned long long>(totals.sums));
    return status;
}
