#include "trace/capture/capture_session.h"

#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <stdio_ext.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "lib/base/bytes.h"
#include "lib/base/log.h"

namespace {

constexpr int kPromiscuous = 1;
constexpr int kReadTimeoutMs = 1000;

// libpcap's own 2 MB hold a bus of 150,000 packets a second for 30 ms: less than a busy machine may
// keep the capture thread from its core.
constexpr int kKernelBufferBytes = 32 << 20;

constexpr const char* kInterfaceGone = "The interface disappeared";  // as libpcap says it

constexpr int kOptimize = 0;
constexpr bpf_u_int32 kNoNetmask = 0;

using Texts = std::span<const char* const>;

// Appends "<keyword> (a or b or c)".
void appendAlternatives(std::string& filter, const char* keyword, Texts values) {
    filter.append(keyword).append(" (");
    const char* separator = "";
    for (const char* value : values) {
        filter.append(separator).append(value);
        separator = " or ";
    }
    filter.append(")");
}

// pcap_lookupdev is deprecated because threads can race in it, and no other thread runs yet. Its
// successor picks the same device but would have its own words for a failure.
const char* defaultInterface() {
    char error[PCAP_ERRBUF_SIZE] = "";
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    const char* const name = pcap_lookupdev(error);
#pragma GCC diagnostic pop
    if (name == nullptr) logPrint("pcap_lookupdev: %s", error);
    return name;
}

// Does what pcap_open_live does, but asks for a larger buffer. Null where the system refuses any of
// it.
pcap_t* openWithRoom(const char* name) {
    char error[PCAP_ERRBUF_SIZE] = "";
    pcap_t* const capture = pcap_create(name, error);
    if (capture == nullptr) return nullptr;
    pcap_set_snaplen(capture, kFullFrameBytes);
    pcap_set_promisc(capture, kPromiscuous);
    pcap_set_timeout(capture, kReadTimeoutMs);
    pcap_set_buffer_size(capture, kKernelBufferBytes);
    if (pcap_activate(capture) >= 0) return capture;
    pcap_close(capture);
    return nullptr;
}

// Of the interface that was opened last.
unsigned short liveHardwareType = 0;

void noteHardwareType(pcap_t* capture) {
    sockaddr_ll address = {};
    socklen_t sizeBytes = sizeof address;
    const int done =
        getsockname(pcap_fileno(capture), reinterpret_cast<sockaddr*>(&address), &sizeBytes);
    if (done == 0) liveHardwareType = address.sll_hatype;
}

bool isSaved(pcap_t* capture) {
    return pcap_file(capture) != nullptr;
}

// The process has several threads, so that each read of a stream would take its lock. One thread
// reads a source.
void spareStreamLock(FILE* stream) {
    __fsetlocking(stream, FSETLOCKING_BYCALLER);
}

// The child of filterCompilesInTime. A link type with headers makes the longest code; half of the
// stack is left for what differs.
[[noreturn]] void tryFilter(const char* text, unsigned seconds) {
    const rlimit time = {.rlim_cur = seconds, .rlim_max = seconds + 1};
    const rlimit noCore = {.rlim_cur = 0, .rlim_max = 0};
    rlimit stack = {};
    setrlimit(RLIMIT_CPU, &time);
    setrlimit(RLIMIT_CORE, &noCore);
    if (getrlimit(RLIMIT_STACK, &stack) == 0 && stack.rlim_cur != RLIM_INFINITY) {
        stack.rlim_cur /= 2;
        setrlimit(RLIMIT_STACK, &stack);
    }
    for (const int number : {SIGXCPU, SIGSEGV, SIGBUS})
        signal(number, SIG_DFL);
    pcap_t* const dead = pcap_open_dead(DLT_EN10MB, kFullFrameBytes);
    bpf_program program = {};
    if (dead != nullptr) (void)pcap_compile(dead, &program, text, kOptimize, kNoNetmask);
    _exit(EXIT_SUCCESS);
}

}  // namespace

std::string buildFilter(Texts srcAddrs, Texts dstAddrs, Texts ports) {
    std::string filter = "udp";
    if (!ports.empty()) {
        filter.append(" and (");
        appendAlternatives(filter, "port", ports);
        filter.append(")");
    }
    if (srcAddrs.empty() && dstAddrs.empty()) return filter;

    filter.append(" and (");
    if (!srcAddrs.empty()) appendAlternatives(filter, "src", srcAddrs);
    if (!srcAddrs.empty() && !dstAddrs.empty()) filter.append(" or ");
    if (!dstAddrs.empty()) appendAlternatives(filter, "dst", dstAddrs);
    filter.append(")");
    return filter;
}

const char* liveInterface(const char* name) {
    return name != nullptr ? name : defaultInterface();
}

pcap_t* openLive(const char* interfaceName) {
    if (pcap_t* const capture = openWithRoom(interfaceName)) {
        noteHardwareType(capture);
        return capture;
    }

    // The second try leaves the buffer's size to libpcap. If that wasn't the reason, it fails
    // too, and its words give the reason.
    char error[PCAP_ERRBUF_SIZE] = "";
    pcap_t* const capture =
        pcap_open_live(interfaceName, kFullFrameBytes, kPromiscuous, kReadTimeoutMs, error);
    if (capture == nullptr) {
        logPrint("pcap_open_live: %s", error);
    } else {
        noteHardwareType(capture);
    }
    return capture;
}

pcap_t* openOffline(const char* path) {
    char error[PCAP_ERRBUF_SIZE] = "";
    pcap_t* const capture = savedCaptureOpen(path, error);
    if (capture == nullptr) {
        logPrint("pcap_open_offline: %s", error);
        return nullptr;
    }
    spareStreamLock(pcap_file(capture));
    return capture;
}

void warnOfCutFrames(int snapshotBytes) {
    if (snapshotBytes >= kFullFrameBytes) return;
    logPrint("savefile snapshot size (%d) was less than full packet", snapshotBytes);
    logPrint("subject based information will not be accurate");
}

void describeSavefile(pcap_t* capture) {
    if (pcap_is_swapped(capture)) logPrint("Note: swapped save file\n");
    logPrint("savefile created by pcap version %d.%d\n", pcap_major_version(capture),
             pcap_minor_version(capture));
}

std::string filterFault(pcap_t* capture, const char* text) {
    bpf_program program = {};
    if (pcap_compile(capture, &program, text, kOptimize, kNoNetmask) != 0) {
        return pcap_geterr(capture);
    }
    pcap_freecode(&program);
    return {};
}

bool filterCompilesInTime(const char* text, unsigned seconds) {
    const pid_t child = fork();
    if (child < 0) return true;
    if (child == 0) tryFilter(text, seconds);
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) return true;
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SUCCESS;
}

bool installFilter(pcap_t* capture, const char* text) {
    bpf_program program = {};
    if (pcap_compile(capture, &program, text, kOptimize, kNoNetmask) != 0) {
        logPrint("pcap_compile: %s", pcap_geterr(capture));
        return false;
    }

    const bool installed = pcap_setfilter(capture, &program) == 0;
    if (!installed) logPrint("pcap_setfilter: %s", pcap_geterr(capture));
    if (installed && isSaved(capture)) savedCaptureSwapFilter(program, text);
    pcap_freecode(&program);  // the source has a copy of its own
    return installed;
}

const char* runCaptureLoop(pcap_t* capture, PacketHandler packetHandler, int count) {
    CaptureContext context = {packetHandler};
    u_char* const user = reinterpret_cast<u_char*>(&context);
    const int ended = isSaved(capture) ? savedCaptureLoop(count, frameHandler, user)
                                       : pcap_loop(capture, count, frameHandler, user);
    if (ended >= 0 || savedCaptureIsBroken()) return nullptr;
    const char* const words = ended == PCAP_ERROR_BREAK ? kInterfaceGone : pcap_geterr(capture);
    logPrint("pcap_loop: %s", words);
    return words;
}

// A look that comes too early fails as the loop did.
void captureDrain(pcap_t* capture, PacketHandler packetHandler) {
    constexpr int kLooks = 6;
    constexpr auto kBetweenLooks = std::chrono::milliseconds(kReadTimeoutMs / (kLooks - 2));
    CaptureContext context = {packetHandler};
    for (int look = 0; look < kLooks; ++look) {
        std::this_thread::sleep_for(kBetweenLooks);
        (void)pcap_dispatch(capture, -1, frameHandler, reinterpret_cast<u_char*>(&context));
    }
}

// The socket stays, with its filter and its buffer, and is bound to the new interface. It was bound
// to none since the old one went, and no system call but its making takes rights.
bool captureAttachAgain(pcap_t* capture, const char* interfaceName) {
    const int socket = pcap_fileno(capture);
    const auto index = static_cast<int>(if_nametoindex(interfaceName));
    ifreq request = {};
    std::strncpy(request.ifr_name, interfaceName, sizeof request.ifr_name - 1);
    if (index == 0 || ioctl(socket, SIOCGIFHWADDR, &request) != 0) return false;
    if (request.ifr_hwaddr.sa_family != liveHardwareType) return false;

    sockaddr_ll address = {};
    address.sll_family = AF_PACKET;
    address.sll_protocol = hostOrder16(ETH_P_ALL);
    address.sll_ifindex = index;
    packet_mreq membership = {};
    membership.mr_ifindex = index;
    membership.mr_type = PACKET_MR_PROMISC;
    (void)setsockopt(socket, SOL_PACKET, PACKET_ADD_MEMBERSHIP, &membership, sizeof membership);
    return bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

void captureDetach(pcap_t* capture) {
    pcap_breakloop(capture);
}

// libpcap first: once reading has stopped it must not take that for the end of the file.
void breakCaptureLoop(pcap_t* capture) {
    pcap_breakloop(capture);
    savedCaptureBreak();
}

bool captureDrops(pcap_t* capture, CaptureDrops* out) {
    pcap_stat stats = {};
    if (capture == nullptr || pcap_stats(capture, &stats) != 0) return false;
    *out = {.kernel = stats.ps_drop, .interface = stats.ps_ifdrop};
    return true;
}
