#include "watch/serve/peer_taken.h"

#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>

// The C library's own record of this option ends before the number.
uint64_t peerTakenBytes(int descriptor) {
    tcp_info info{};
    socklen_t sizeBytes = sizeof info;
    if (getsockopt(descriptor, IPPROTO_TCP, TCP_INFO, &info, &sizeBytes) != 0) return 0;
    return sizeBytes >= offsetof(tcp_info, tcpi_bytes_received) ? info.tcpi_bytes_acked : 0;
}
