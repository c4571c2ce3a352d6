#include "trace/counts/host_status.h"

#include <cstdlib>
#include <cstring>

#include "lib/base/log_pace.h"

namespace {

// Makes room for this message and for a few more of its size. On false the area is unchanged.
bool growFor(NetEntry& net, uint32_t length) {
    const uint64_t capacity = net.statusCapacity + uint64_t{4} * length;
    if (capacity > UINT32_MAX) return false;
    void* grown = std::realloc(net.statusBuf, capacity);
    if (grown == nullptr) return false;
    net.statusBuf = static_cast<uint8_t*>(grown);
    net.statusCapacity = static_cast<uint32_t>(capacity);
    return true;
}

}  // namespace

void hostStatusStore(NetEntry& net, const uint8_t* message, uint32_t length) {
    const uint64_t wanted = uint64_t{length} + (kStatusAlignment - 1) + net.statusUsed;
    if (wanted > net.statusCapacity && !growFor(net, length)) {
        logPaced("Out of memory allocating Host.status storage");
        return;
    }
    std::memcpy(net.statusBuf + net.statusUsed, message, length);
    ++net.statusCount;
    net.statusUsed += statusPadded(length);
}
