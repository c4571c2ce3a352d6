#include "trace/counts/services.h"

#include <cstdlib>
#include <span>

#include "lib/base/log_pace.h"
#include "lib/containers/dict.h"
#include "trace/counts/statistics.h"

namespace {

struct ServiceEntry {
    uint16_t servicePort;  // network order
};

constexpr uint32_t kServiceBuckets = 256;

Dict64* services;  // hostKey -> ServiceEntry; made with the first entry

ServiceEntry* findService(uint64_t key) {
    void* value = nullptr;
    if (services == nullptr || dict64Find(services, key, &value) != kStatusSuccess) return nullptr;
    return static_cast<ServiceEntry*>(value);
}

ServiceEntry* createService(uint64_t key) {
    auto* entry = static_cast<ServiceEntry*>(std::calloc(1, sizeof(ServiceEntry)));
    if (entry == nullptr) {
        logPaced("Out of memory allocating service entry");
        return nullptr;
    }
    if (services == nullptr) services = dict64Create(kServiceBuckets);
    if (services != nullptr && dict64Insert(services, key, entry) == kStatusSuccess) return entry;
    logPaced("Out of memory storing service entry");
    std::free(entry);
    return nullptr;
}

void remember(uint64_t key, uint16_t port) {
    ServiceEntry* entry = findService(key);
    if (entry == nullptr) entry = createService(key);
    if (entry != nullptr) entry->servicePort = port;
}

void findServicePort(SnapPort& port) {
    for (const SnapRlHost& host : std::span(port.rlHosts, port.rlHostCount)) {
        if (host.port == 0) continue;
        const ServiceEntry* entry = findService(hostKey(host.host, host.port));
        if (entry == nullptr || entry->servicePort == 0) continue;
        port.servicePort = entry->servicePort;
        return;
    }
}

}  // namespace

void servicesFind(SnapHeader* snapshot) {
    const std::span ports(snapshot->ports, snapshot->portCount);
    for (const SnapPort& port : ports) {
        for (const SnapNet& net : std::span(port.nets, port.netCount)) {
            for (const SnapHost& host : std::span(net.hosts, net.hostCount)) {
                remember(hostKey(host.host, host.port), port.port);
            }
        }
    }
    for (SnapPort& port : ports) {
        findServicePort(port);
    }
}

void servicesForget() {
    if (services == nullptr) return;
    eachRecord<ServiceEntry>(services, [](uint64_t, ServiceEntry& entry) { std::free(&entry); });
    dict64Destroy(services);
    services = nullptr;
}
