#include "watch/serve/metrics.h"

#include <dirent.h>
#include <fcntl.h>
#include <prometheus/text_serializer.h>
#include <sys/resource.h>
#include <unistd.h>

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <span>
#include <string_view>
#include <utility>

#include "lib/base/bytes.h"
#include "watch/capture/peel.h"
#include "watch/core/fields.h"
#include "watch/core/text.h"

namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;
using Label = ClientMetric::Label;
using Labels = std::vector<Label>;

constexpr const char* kOther = "other";

// The library throws where memory runs out.
template <typename Work>
bool withMemory(Work work) {
    try {
        work();
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

MetricFamily& addFamily(MetricFamilies& out, std::string name, std::string help, MetricType type) {
    return out.emplace_back(MetricFamily{std::move(name), std::move(help), type, {}});
}

void addSample(MetricFamily& family, Labels labels, double value) {
    ClientMetric& metric = family.metric.emplace_back();
    metric.label = std::move(labels);
    (family.type == MetricType::Counter ? metric.counter.value : metric.gauge.value) = value;
}

void addNumber(
    MetricFamilies& out, MetricType type, const char* name, const char* help, double value) {
    addSample(addFamily(out, name, help, type), {}, value);
}

void addCounter(MetricFamilies& out, const char* name, const char* help, uint64_t value) {
    addNumber(out, MetricType::Counter, name, help, static_cast<double>(value));
}

void addGauge(MetricFamilies& out, const char* name, const char* help, double value) {
    addNumber(out, MetricType::Gauge, name, help, value);
}

std::string portText(uint16_t port) {
    return std::to_string(hostOrder16(port));
}

std::string hostText(uint32_t address) {
    char buffer[kAddressTextBytes];
    return std::string(addressText(address, buffer));
}

std::string subjectText(const uint8_t* subject) {
    char buffer[kSafeSubjectBytes];
    return subject != nullptr ? std::string(subjectSafeText(subject, buffer)) : kOther;
}

// A kind of rows: what its metrics are called, and which labels they have.
struct KindRow {
    SeriesKind kind;
    std::string_view table;  // the beginning of its fields' names
    std::string_view infix;  // after it, of hosts
    std::string_view of;     // before its fields' help
    bool hasGroup, hasHost, hasSubject;
};

constexpr KindRow kKinds[] = {
    {SeriesKind::kMulticastGroup, "pelmo_multicast_", "", "Of a group: ", true, false, false},
    {SeriesKind::kMulticastHost, "pelmo_multicast_", "host_", "Of a sender: ", true, true, false},
    {SeriesKind::kRetransmissionPort, "pelmo_retransmission_", "",
     "Of all hosts of a port: ", false, false, false},
    {SeriesKind::kRetransmissionHost, "pelmo_retransmission_", "host_", "", false, true, false},
    {SeriesKind::kPointToPointPort, "pelmo_point_to_point_", "", "Of all hosts of a port: ", false,
     false, false},
    {SeriesKind::kPointToPointHost, "pelmo_point_to_point_", "host_", "", false, true, false},
    {SeriesKind::kSubject, "pelmo_subject_", "", "", true, false, true},
};

Labels labelsOf(const KindRow& kind, const RowKey& key) {
    Labels labels = {{"port", portText(key.port)}};
    if (kind.hasGroup) labels.push_back({"group", hostText(key.group)});
    if (kind.hasHost) {
        labels.push_back({"host", hostText(key.host)});
        labels.push_back({"scid", key.scid != 0 ? portText(key.scid) : ""});
    }
    if (kind.hasSubject) labels.push_back({"subject", subjectText(key.subject)});
    return labels;
}

Labels labelsOfOther(const KindRow& kind) {
    Labels labels = {{"port", kOther}};
    if (kind.hasGroup) labels.push_back({"group", kOther});
    if (kind.hasHost) {
        labels.push_back({"host", kOther});
        labels.push_back({"scid", kOther});
    }
    if (kind.hasSubject) labels.push_back({"subject", kOther});
    return labels;
}

std::string nameOf(const KindRow& kind, std::string_view metric) {
    std::string name(metric);
    return name.insert(kind.table.size(), kind.infix);
}

// A family of all rows of the kind; valueOf(sums) is its number. None without any row.
template <typename ValueOf>
void addRows(MetricFamilies& out,
             const SeriesTable& table,
             const KindRow& kind,
             MetricFamily family,
             ValueOf valueOf) {
    const auto index = static_cast<size_t>(kind.kind);
    for (const SeriesRow& row : std::span(table.rows.rows, table.rows.count)) {
        if (seriesKindOf(row.key) != kind.kind) continue;
        addSample(family, labelsOf(kind, row.key), valueOf(row.sums));
    }
    if (table.hasOther[index] && family.type == MetricType::Counter) {
        addSample(family, labelsOfOther(kind), valueOf(table.others[index]));
    }
    if (!family.metric.empty()) out.push_back(std::move(family));
}

template <typename Record, size_t kCount>
void addFields(MetricFamilies& out,
               const SeriesTable& table,
               const KindRow& kind,
               const Field<Record> (&fields)[kCount]) {
    for (size_t at = 0; at < kCount; ++at) {
        addRows(out, table, kind,
                {nameOf(kind, fields[at].metric),
                 std::string(kind.of) + fields[at].help,
                 MetricType::Counter,
                 {}},
                [at](const SeriesSums& sums) { return static_cast<double>(sums.numbers[at]); });
    }
}

// Of a group, its messages too, under names of its own.
void addMessages(MetricFamilies& out, const SeriesTable& table, const KindRow& kind) {
    constexpr ValueName kMessages[] = {
        {"messages", "", "pelmo_multicast_messages_total", "Of a group: Messages on all subjects."},
        {"message_bytes", "", "pelmo_multicast_message_bytes_total",
         "Of a group: Bytes of the messages on all subjects."},
    };
    static_assert(std::size(kMessages) == std::size(kSubjectFields));
    size_t at = std::size(kMulticastFields);
    for (const ValueName& name : kMessages) {
        addRows(out, table, kind, {name.metric, name.help, MetricType::Counter, {}},
                [at](const SeriesSums& sums) { return static_cast<double>(sums.numbers[at]); });
        ++at;
    }
}

void addKind(MetricFamilies& out, const SeriesTable& table, const KindRow& kind) {
    switch (kind.kind) {
        case SeriesKind::kMulticastGroup:
            addFields(out, table, kind, kMulticastFields);
            return addMessages(out, table, kind);
        case SeriesKind::kMulticastHost:
            addFields(out, table, kind, kMulticastFields);
            return addRows(
                out, table, kind,
                {nameOf(kind, kReliability.metric), kReliability.help, MetricType::Gauge, {}},
                [](const SeriesSums& sums) { return sums.reliability; });
        case SeriesKind::kRetransmissionPort:
        case SeriesKind::kRetransmissionHost:
            return addFields(out, table, kind, kRetransmissionFields);
        case SeriesKind::kPointToPointPort:
        case SeriesKind::kPointToPointHost:
            return addFields(out, table, kind, kPointToPointFields);
        case SeriesKind::kSubject:
            return addFields(out, table, kind, kSubjectFields);
    }
}

void addFaults(MetricFamilies& out, const SeriesTable& table) {
    MetricFamily& family = addFamily(out, kFaults.metric, kFaults.help, MetricType::Counter);
    for (size_t kind = 0; kind < kFaultKinds; ++kind) {
        addSample(family, {{"kind", faultRow(static_cast<Fault>(kind)).key}},
                  static_cast<double>(table.faults[kind]));
    }
}

void addNotRead(MetricFamilies& out, const SeriesTable& table) {
    MetricFamily& family =
        addFamily(out, "pelmo_not_read_frames_total",
                  "Frames that aren't read as packets of the bus, or not whole, by reason.",
                  MetricType::Counter);
    for (size_t reason = 1; reason < kNotReadKinds; ++reason) {
        addSample(family, {{"reason", notReadRow(static_cast<NotRead>(reason)).key}},
                  static_cast<double>(table.notRead[reason]));
    }
}

void addSources(MetricFamilies& out, const SeriesTable& table) {
    const uint64_t sources[] = {table.frames, table.packets, table.busPackets};
    static_assert(std::size(sources) == std::size(kSourceFields));
    for (size_t at = 0; at < std::size(sources); ++at) {
        addCounter(out, kSourceFields[at].metric, kSourceFields[at].help, sources[at]);
    }
    const uint64_t losses[] = {table.kernelDrops, table.interfaceDrops};
    static_assert(std::size(losses) == std::size(kLossFields));
    for (size_t at = 0; at < std::size(losses); ++at) {
        addCounter(out, kLossFields[at].metric, kLossFields[at].help, losses[at]);
    }
}

void addOwnOfTable(MetricFamilies& out, const SeriesTable& table) {
    addCounter(out, "pelmo_watch_intervals_total", "Intervals that have ended.", table.intervals);
    addGauge(out, "pelmo_watch_row_series", "Series with labels of the bus.",
             static_cast<double>(table.rowSeries));
    addGauge(out, "pelmo_watch_most_series", "Series at most, those of the process included.",
             static_cast<double>(table.rules.mostSeries));
    addGauge(out, "pelmo_watch_left_out_series",
             "Series of the last interval that found no room: they count in the row \"other\".",
             static_cast<double>(table.leftOutSeries));
}

void addInfo(MetricFamilies& out, const ServeHealth& health) {
    char source[256];
    MetricFamily& family =
        addFamily(out, "pelmo_watch_info", "The program, and what it watches.", MetricType::Gauge);
    addSample(family,
              {{"version", health.version},
               {"source", std::string(safeText(health.source, source, sizeof source))}},
              1);
}

void addOwn(MetricFamilies& out, const ServeHealth& health) {
    addGauge(out, "pelmo_watch_interval_seconds", "Length of an interval, as asked for.",
             health.intervalSeconds);
    addGauge(out, "pelmo_watch_interval_lag_seconds",
             "By how much an interval came late, the most of the last two minutes.",
             health.lagSeconds);
    addGauge(
        out, "pelmo_watch_capturing",
        "1 while frames come from the source, or came to a sound end; 0 when capture has failed.",
        health.isCapturing ? 1 : 0);
    addGauge(out, "pelmo_watch_snapshot_timestamp_seconds",
             "Time at which the last interval ended, since 1970.", health.snapshotTimeSeconds);
    addGauge(out, "pelmo_watch_clients", "Clients that are connected.",
             static_cast<double>(health.clients));
    addGauge(out, "pelmo_watch_event_clients", "Clients that follow the snapshots.",
             static_cast<double>(health.eventClients));
    addCounter(out, "pelmo_watch_cut_off_clients_total",
               "Clients cut off since they were too slow or too many.", health.cutOffClients);
}

void addProcess(MetricFamilies& out, const ServeHealth& health) {
    addNumber(out, MetricType::Counter, "process_cpu_seconds_total",
              "User and system time of the process.", health.cpuSeconds);
    addGauge(out, "process_start_time_seconds", "Start of the process, since 1970.",
             health.startTimeSeconds);
    addGauge(out, "process_resident_memory_bytes", "Resident memory of the process.",
             static_cast<double>(health.residentBytes));
    addGauge(out, "process_virtual_memory_bytes", "Virtual memory of the process.",
             static_cast<double>(health.virtualBytes));
    addGauge(out, "process_open_fds", "Open descriptors of the process.",
             static_cast<double>(health.openDescriptors));
    addGauge(out, "process_max_fds", "Descriptors that the process may open.",
             static_cast<double>(health.mostDescriptors));
}

}  // namespace

bool metricsOfSeries(const SeriesTable& table, MetricFamilies& out) {
    return withMemory([&] {
        addSources(out, table);
        addFaults(out, table);
        addNotRead(out, table);
        for (const KindRow& kind : kKinds) {
            addKind(out, table, kind);
        }
        addOwnOfTable(out, table);
    });
}

bool metricsOfHealth(const ServeHealth& health, MetricFamilies& out) {
    return withMemory([&] {
        addInfo(out, health);
        addOwn(out, health);
        addProcess(out, health);
    });
}

bool metricsText(const MetricFamilies& families, JsonBuffer& out) {
    return withMemory([&] { out.append(prometheus::TextSerializer().Serialize(families)); }) &&
           !out.failed;
}

// What the system says of this process.

namespace {

constexpr size_t kStatBytes = 1024;

double secondsOf(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

double clockSecondsOf(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

// Of /proc/self/stat; empty where it can't be read.
void readStat(char (&text)[kStatBytes]) {
    *text = '\0';
    const int descriptor = open("/proc/self/stat", O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) return;
    const ssize_t length = read(descriptor, text, sizeof text - 1);
    close(descriptor);
    text[length > 0 ? length : 0] = '\0';
}

// Numbers after as many words; false where there are none.
bool readNumbers(const char* at, int words, std::span<uint64_t> out) {
    for (; words > 0; --words) {
        at += std::strspn(at, " ");
        at += std::strcspn(at, " ");
    }
    for (uint64_t& number : out) {
        char* end = nullptr;
        number = std::strtoull(at, &end, 10);
        if (end == at) return false;
        at = end;
    }
    return true;
}

// The fields after the program's name, which may hold anything (proc(5)).
void fillFromStat(ProcessUsage& usage) {
    char text[kStatBytes];
    readStat(text);
    const char* const name = std::strrchr(text, ')');
    constexpr int kAheadOfStart = 19;
    uint64_t numbers[3];
    if (name == nullptr || !readNumbers(name + 1, kAheadOfStart, numbers)) return;
    const auto [startTicks, virtualBytes, residentPages] = numbers;
    const auto ticks = static_cast<double>(sysconf(_SC_CLK_TCK));
    const double bootSeconds = clockSecondsOf(CLOCK_REALTIME) - clockSecondsOf(CLOCK_BOOTTIME);
    usage.startTimeSeconds = bootSeconds + static_cast<double>(startTicks) / ticks;
    usage.virtualBytes = virtualBytes;
    usage.residentBytes = residentPages * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

// A program that is root no longer may not open its own list of descriptors.
DIR* descriptors = nullptr;

// Without the one that counts.
uint64_t countDescriptors() {
    if (descriptors == nullptr) return 0;
    rewinddir(descriptors);
    uint64_t count = 0;
    while (const dirent* entry = readdir(descriptors)) {
        if (entry->d_name[0] != '.') ++count;
    }
    return count - 1;
}

}  // namespace

void processUsageStart() {
    if (descriptors == nullptr) descriptors = opendir("/proc/self/fd");
}

ProcessUsage processUsage() {
    ProcessUsage usage{};
    rusage times{};
    if (getrusage(RUSAGE_SELF, &times) == 0) {
        usage.cpuSeconds = secondsOf(times.ru_utime) + secondsOf(times.ru_stime);
    }
    fillFromStat(usage);
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) usage.mostDescriptors = limit.rlim_cur;
    usage.openDescriptors = countDescriptors();
    return usage;
}
