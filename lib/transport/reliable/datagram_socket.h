// The UDP socket of a reliable endpoint. Datagrams go out and come in many to a system call; where
// the kernel can, it cuts runs of equal ones for a peer itself (UDP_SEGMENT), and gathers what
// comes (UDP_GRO). On the wire each stays a datagram of its own, in the order of the calls.
//
// A kernel or device that refuses to cut a run gets its datagrams one by one, from then on.
//
// There are two batches: while one is being sent, with the owner's lock released, the other is
// filled. So senders don't wait for each other's system calls, and what several have added leaves
// in one:
//
//     datagramAdd(...);
//     while (SendBatch* batch = datagramBegin(socket)) {   // null: none, or another thread sends
//         (leave the lock)
//         datagramSend(socket, batch);
//         (take the lock)
//         datagramEnd(socket);
//     }
//
// Ownership: a batch holds references to payload buffers until it is sent, and copies of heads. A
// datagram that was read is valid until the next read.
//
// Failure: what can't be sent is dropped and noted; the protocol sends it again. Reads end at any
// failure.
//
// Threads: no lock; the owner serialises all calls but datagramSend, and those that read.
//
// Environment: with PELMO_DISABLE_UDP_SEGMENT set the kernel neither cuts nor gathers. A capture
// on the sending host then shows each datagram as the wire carries it.

#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>
#include <cstdint>
#include <span>

#include "lib/base/status.h"
#include "lib/transport/reliable/endpoint_core.h"

inline constexpr uint32_t kBatchDatagrams = 64;  // as many as the kernel cuts one run into
inline constexpr uint32_t kReadSlots = 32;

// Why the last datagram that failed couldn't be sent.
struct SendFailure {
    int error;  // errno; 0: none has failed
    bool isRepeat;
};

// Waits to be sent.
struct SendBatch {
    uint32_t count;
    SendFailure failure;
    PeerAddress peers[kBatchDatagrams];
    Buffer* buffers[kBatchDatagrams];   // with a reference; null: no payload
    iovec pieces[2 * kBatchDatagrams];  // head and payload of each
    uint8_t heads[kBatchDatagrams][kMostHeadBytes];
    bool isRepeat[kBatchDatagrams];
};

struct DatagramSocket {
    // Constant after creation.
    int handle;
    uint16_t port;
    uint32_t slotBytes;
    uint8_t* slots;  // room of a read: kReadSlots, a stride apart

    // Guarded by the owner.
    SendBatch batches[2];
    uint32_t filling;  // which of the two
    bool isSending;    // a thread is between datagramBegin and datagramEnd

    std::atomic<bool> isUnderWay;  // the other one is; who fills this one up waits for that
    bool cutsRuns;                 // of the thread that sends
};

// Address in network order, 0 for all of this host's; port 0 means any. kStatusSocketLimit where
// the system gives no socket, kStatusPortInUse where it can't be bound, kStatusNoMemory.
[[nodiscard]] pelmoStatus datagramOpen(DatagramSocket* out, uint32_t address, uint16_t port);
void datagramClose(DatagramSocket* datagrams);

// Adds the datagram to the batch. A full batch is sent first, after the one that is being sent.
void datagramAdd(DatagramSocket* datagrams, const PeerAddress& to, const OutDatagram& datagram);

[[nodiscard]] SendBatch* datagramBegin(DatagramSocket* datagrams);
void datagramSend(DatagramSocket* datagrams, SendBatch* batch);
void datagramEnd(DatagramSocket* datagrams);

// What one read brought.
struct ReadBatch {
    uint32_t count;  // of filled slots
    mmsghdr headers[kReadSlots];
    iovec pieces[kReadSlots];
    sockaddr_in sources[kReadSlots];
    alignas(cmsghdr) uint8_t controls[kReadSlots][CMSG_SPACE(sizeof(int))];
};

// Doesn't wait. False where nothing came; else all slots are filled where there may be more.
[[nodiscard]] bool datagramRead(const DatagramSocket* datagrams, ReadBatch* out);

// Walks what was read.
struct ReadPlace {
    uint32_t slot = 0;
    uint32_t offset = 0;
    uint32_t each = 0;  // bytes of a datagram in this slot; the last may have fewer
};
struct ReadDatagram {
    PeerAddress source;
    std::span<const uint8_t> bytes;
};

// The next datagram with bytes in it; false after the last.
[[nodiscard]] bool readNext(ReadBatch* batch, ReadPlace* place, ReadDatagram* out);
