#include "lib/transport/reliable/datagram_socket.h"

#include <netinet/udp.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "lib/base/bytes.h"
#include "lib/msg/buffer.h"

namespace {

constexpr int kMostBufferBytes = 131072;
constexpr int kLeastBufferBytes = 16384;

constexpr uint32_t kPlainSlotBytes = 2048;  // more than a packet has, so that a longer one shows
constexpr uint32_t kGatherSlotBytes = 0x10000;

// Slots of a power of two would all begin in the same lines of the processor's caches.
constexpr uint32_t kSlotGapBytes = 0x600;

constexpr uint32_t kMostRunBytes = 65000;  // an IP packet less its headers

// Opening

bool setOption(int handle, int level, int option, int value) {
    return setsockopt(handle, level, option, &value, sizeof value) == 0;
}

void askForBuffer(int handle, int option) {
    for (int bytes = kMostBufferBytes; bytes >= kLeastBufferBytes; bytes /= 2) {
        if (setOption(handle, SOL_SOCKET, option, bytes)) return;
    }
}

sockaddr_in socketAddress(uint32_t address, uint16_t port) {
    sockaddr_in made = {};
    made.sin_family = AF_INET;
    made.sin_addr.s_addr = address;
    made.sin_port = port;
    return made;
}

bool bindTo(int handle, uint32_t address, uint16_t port, uint16_t* outPort) {
    sockaddr_in own = socketAddress(address, hostOrder16(port));
    if (bind(handle, reinterpret_cast<const sockaddr*>(&own), sizeof own) != 0) return false;
    socklen_t size = sizeof own;
    if (getsockname(handle, reinterpret_cast<sockaddr*>(&own), &size) != 0) return false;
    *outPort = hostOrder16(own.sin_port);
    return true;
}

bool kernelMayCut() {
    return std::getenv("PELMO_DISABLE_UDP_SEGMENT") == nullptr;
}

// Sending

uint32_t bytesOf(const SendBatch& batch, uint32_t index) {
    const iovec* const pieces = batch.pieces + size_t{2} * index;
    return static_cast<uint32_t>(pieces[0].iov_len + pieces[1].iov_len);
}

// How many datagrams from `first` on the kernel may cut out of one: of one size, but that the last
// may be shorter.
uint32_t runLength(const SendBatch& batch, uint32_t first) {
    const uint32_t size = bytesOf(batch, first);
    uint32_t total = size;
    uint32_t next = first + 1;
    while (next < batch.count && batch.peers[next] == batch.peers[first]) {
        const uint32_t bytes = bytesOf(batch, next);
        if (bytes > size || total + bytes > kMostRunBytes) break;
        total += bytes;
        ++next;
        if (bytes < size) break;
    }
    return next - first;
}

struct Runs {
    uint32_t count;
    uint32_t lengths[kBatchDatagrams];
    mmsghdr headers[kBatchDatagrams];
    sockaddr_in peers[kBatchDatagrams];
    alignas(cmsghdr) uint8_t controls[kBatchDatagrams][CMSG_SPACE(sizeof(uint16_t))];
};

void addCut(Runs& runs, uint32_t index, uint16_t bytes) {
    msghdr& header = runs.headers[index].msg_hdr;
    header.msg_control = runs.controls[index];
    header.msg_controllen = sizeof runs.controls[index];
    cmsghdr* const control = CMSG_FIRSTHDR(&header);
    control->cmsg_level = SOL_UDP;
    control->cmsg_type = UDP_SEGMENT;
    control->cmsg_len = CMSG_LEN(sizeof bytes);
    std::memcpy(CMSG_DATA(control), &bytes, sizeof bytes);
}

void buildRuns(Runs& runs, SendBatch& batch, uint32_t first, bool cutsRuns) {
    runs.count = 0;
    while (first < batch.count) {
        const uint32_t length = cutsRuns ? runLength(batch, first) : 1;
        const uint32_t index = runs.count++;
        runs.lengths[index] = length;
        runs.peers[index] = socketAddress(batch.peers[first].address, batch.peers[first].port);
        runs.headers[index].msg_hdr = {.msg_name = &runs.peers[index],
                                       .msg_namelen = sizeof(sockaddr_in),
                                       .msg_iov = batch.pieces + size_t{2} * first,
                                       .msg_iovlen = size_t{2} * length,
                                       .msg_control = nullptr,
                                       .msg_controllen = 0,
                                       .msg_flags = 0};
        if (length > 1) addCut(runs, index, static_cast<uint16_t>(bytesOf(batch, first)));
        first += length;
    }
}

// What a kernel or a device without the means, or a path of small packets, answers to a run.
bool refusesRuns(int error) {
    return error == EIO || error == EINVAL || error == EMSGSIZE || error == ENOPROTOOPT ||
           error == EOPNOTSUPP;
}

// Returns how many datagrams from `first` on it has seen to.
uint32_t sendRuns(DatagramSocket* datagrams, SendBatch& batch, uint32_t first, Runs& runs) {
    const int sent = sendmmsg(datagrams->handle, runs.headers, runs.count, 0);
    if (sent > 0) {
        uint32_t seenTo = 0;
        for (int i = 0; i < sent; ++i)
            seenTo += runs.lengths[i];
        return seenTo;
    }
    if (errno == EINTR) return 0;
    if (runs.lengths[0] > 1 && refusesRuns(errno)) {
        datagrams->cutsRuns = false;
        return 0;
    }
    batch.failure = {.error = errno, .isRepeat = batch.isRepeat[first]};
    return runs.lengths[0];
}

void sendAll(DatagramSocket* datagrams, SendBatch& batch) {
    Runs runs;  // not zeroed
    uint32_t next = 0;
    while (next < batch.count) {
        buildRuns(runs, batch, next, datagrams->cutsRuns);
        next += sendRuns(datagrams, batch, next, runs);
    }
    for (uint32_t i = 0; i < batch.count; ++i)
        bufferRelease(batch.buffers[i]);
    batch.count = 0;
}

// Reading

// The size that the kernel has gathered datagrams of; all but the last are that long.
uint32_t gatheredBytes(msghdr* header, uint32_t whole) {
    for (cmsghdr* control = CMSG_FIRSTHDR(header); control != nullptr;
         control = CMSG_NXTHDR(header, control)) {
        if (control->cmsg_level != SOL_UDP || control->cmsg_type != UDP_GRO) continue;
        int bytes = 0;
        std::memcpy(&bytes, CMSG_DATA(control), sizeof bytes);
        if (bytes > 0) return std::min(static_cast<uint32_t>(bytes), whole);
    }
    return whole;
}

size_t strideOf(uint32_t slotBytes) {
    return size_t{slotBytes} + kSlotGapBytes;
}

}  // namespace

pelmoStatus datagramOpen(DatagramSocket* out, uint32_t address, uint16_t port) {
    const int handle = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_UDP);
    if (handle < 0) return kStatusSocketLimit;
    askForBuffer(handle, SO_SNDBUF);
    askForBuffer(handle, SO_RCVBUF);
    uint16_t boundPort = 0;
    if (!bindTo(handle, address, port, &boundPort)) {
        close(handle);
        return kStatusPortInUse;
    }
    const bool mayCut = kernelMayCut();
    const bool gathers = mayCut && setOption(handle, SOL_UDP, UDP_GRO, 1);
    const uint32_t slotBytes = gathers ? kGatherSlotBytes : kPlainSlotBytes;
    auto* const slots = static_cast<uint8_t*>(std::malloc(kReadSlots * strideOf(slotBytes)));
    if (slots == nullptr) {
        close(handle);
        return kStatusNoMemory;
    }
    out->handle = handle;
    out->port = boundPort;
    out->slotBytes = slotBytes;
    out->slots = slots;
    out->cutsRuns = mayCut;
    out->filling = 0;
    out->isSending = false;
    out->isUnderWay.store(false, std::memory_order_relaxed);
    for (SendBatch& batch : out->batches) {
        batch.count = 0;
        batch.failure = {};
    }
    return kStatusSuccess;
}

void datagramClose(DatagramSocket* datagrams) {
    // close isn't repeated on EINTR: the descriptor is closed in any case.
    close(datagrams->handle);
    std::free(datagrams->slots);
}

void datagramAdd(DatagramSocket* datagrams, const PeerAddress& to, const OutDatagram& datagram) {
    SendBatch& batch = datagrams->batches[datagrams->filling];
    if (batch.count == kBatchDatagrams) {
        datagrams->isUnderWay.wait(true, std::memory_order_acquire);
        sendAll(datagrams, batch);
    }
    const uint32_t index = batch.count++;
    batch.peers[index] = to;
    batch.isRepeat[index] = datagram.isRepeat;
    std::memcpy(batch.heads[index], datagram.head.data(), datagram.head.size());
    iovec* const pieces = batch.pieces + size_t{2} * index;
    pieces[0] = {.iov_base = batch.heads[index], .iov_len = datagram.head.size()};
    pieces[1] = {.iov_base = const_cast<uint8_t*>(datagram.payload.data()),
                 .iov_len = datagram.payload.size()};
    batch.buffers[index] = datagram.buffer;
    if (datagram.buffer != nullptr) bufferRetain(datagram.buffer);
}

SendBatch* datagramBegin(DatagramSocket* datagrams) {
    SendBatch* const batch = &datagrams->batches[datagrams->filling];
    if (datagrams->isSending || batch->count == 0) return nullptr;
    datagrams->isSending = true;
    datagrams->isUnderWay.store(true, std::memory_order_relaxed);
    datagrams->filling ^= 1;
    return batch;
}

void datagramSend(DatagramSocket* datagrams, SendBatch* batch) {
    sendAll(datagrams, *batch);
    datagrams->isUnderWay.store(false, std::memory_order_release);
    datagrams->isUnderWay.notify_one();
}

void datagramEnd(DatagramSocket* datagrams) {
    datagrams->isSending = false;
}

bool datagramRead(const DatagramSocket* datagrams, ReadBatch* out) {
    for (uint32_t i = 0; i < kReadSlots; ++i) {
        out->pieces[i] = {.iov_base = datagrams->slots + i * strideOf(datagrams->slotBytes),
                          .iov_len = datagrams->slotBytes};
        out->headers[i].msg_hdr = {.msg_name = &out->sources[i],
                                   .msg_namelen = sizeof out->sources[i],
                                   .msg_iov = &out->pieces[i],
                                   .msg_iovlen = 1,
                                   .msg_control = out->controls[i],
                                   .msg_controllen = sizeof out->controls[i],
                                   .msg_flags = 0};
    }
    int count;
    do {
        count = recvmmsg(datagrams->handle, out->headers, kReadSlots, MSG_DONTWAIT, nullptr);
    } while (count < 0 && errno == EINTR);
    out->count = count > 0 ? static_cast<uint32_t>(count) : 0;
    return count > 0;
}

bool readNext(ReadBatch* batch, ReadPlace* place, ReadDatagram* out) {
    while (place->slot < batch->count) {
        mmsghdr& header = batch->headers[place->slot];
        if (place->offset == 0) place->each = gatheredBytes(&header.msg_hdr, header.msg_len);
        const uint32_t left = header.msg_len - place->offset;
        if (left == 0) {
            *place = {.slot = place->slot + 1};
            continue;
        }
        const sockaddr_in& source = batch->sources[place->slot];
        const auto* const slot = static_cast<const uint8_t*>(batch->pieces[place->slot].iov_base);
        const uint32_t bytes = std::min(place->each, left);
        out->source = {.address = source.sin_addr.s_addr, .port = source.sin_port};
        out->bytes = {slot + place->offset, bytes};
        place->offset += bytes;
        return true;
    }
    return false;
}
