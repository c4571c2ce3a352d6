// What pelmo.hpp costs over the plain calls: the same work written both ways, in pairs.
//
//     library_hpp [PAIRS [MESSAGES]]
//
// Each message is built, sent within the process, dispatched, and two of its fields are read. A
// pair is a run of each, one after the other, the first one by turns; a line has the medians and
// the median ratio.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <vector>

#include "lib/pelmo.hpp"

namespace {

constexpr uint32_t kLocal = kIntraProcessTransportId;

double cpuSeconds() {
    timespec time = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

void check(pelmoStatus status) {
    if (status == kStatusSuccess) return;
    std::fprintf(stderr, "library_hpp: %s\n", pelmoStatus_GetText(status));
    std::exit(1);
}

struct Sum {
    double prices = 0;
    size_t letters = 0;
};

void onMessage(uint32_t, pelmoMsg* msg, void* closure) {
    auto* const sum = static_cast<Sum*>(closure);
    double price = 0;
    const char* unit = nullptr;
    size_t length = 0;
    if (pelmoMsg_GetF64Exact(msg, "price", &price, 0) == kStatusSuccess) sum->prices += price;
    if (pelmoMsg_GetStringN(msg, "unit", &unit, &length, 0) == kStatusSuccess)
        sum->letters += length;
}

double plain(uint32_t messages, Sum& sum) {
    uint32_t queue = kNoId;
    uint32_t listener = kNoId;
    pelmoMsg* msg = nullptr;
    check(pelmoQueue_Create(&queue));
    check(pelmoEvent_CreateListener(&listener, queue, onMessage, kLocal, "PRICES.GOLD", &sum));
    check(pelmoMsg_Create(&msg));
    const double start = cpuSeconds();
    for (uint32_t i = 0; i < messages; ++i) {
        check(pelmoMsg_Reset(msg));
        check(pelmoMsg_SetSendSubjectN(msg, "PRICES.GOLD", 11));
        check(pelmoMsg_AddF64(msg, "price", i, 0));
        check(pelmoMsg_AddStringN(msg, "unit", "oz", 2, 0));
        check(pelmoTransport_Send(kLocal, msg));
        check(pelmoQueue_TimedDispatch(queue, 0));
    }
    const double seconds = cpuSeconds() - start;
    pelmoMsg_Destroy(msg);
    pelmoEvent_DestroyWait(listener);
    pelmoQueue_DestroyEx(queue, nullptr, nullptr);
    return seconds;
}

double wrapped(uint32_t messages, Sum& sum) {
    const auto bus = pelmo::Transport::local();
    const auto queue = pelmo::Queue::make().value();
    const auto listener =
        queue
            .listen(bus, "PRICES.GOLD",
                    [&](pelmo::MessageView message) {
                        if (const auto price = message.get<double>("price")) sum.prices += *price;
                        if (const auto unit = message.get<std::string_view>("unit"))
                            sum.letters += unit->size();
                    })
            .value();
    pelmo::Message message;
    const double start = cpuSeconds();
    for (uint32_t i = 0; i < messages; ++i) {
        message.reset().to("PRICES.GOLD").add("price", double(i)).add("unit", "oz");
        bus.send(message).value();
        (void)queue.dispatch(pelmo::Seconds(0)).value();
    }
    return cpuSeconds() - start;
}

double median(std::vector<double> of) {
    std::ranges::nth_element(of, of.begin() + static_cast<std::ptrdiff_t>(of.size() / 2));
    return of[of.size() / 2];
}

}  // namespace

int main(int count, char** words) {
    const int pairs = count > 1 ? std::atoi(words[1]) : 21;
    const auto messages = static_cast<uint32_t>(count > 2 ? std::atoi(words[2]) : 300'000);
    const pelmo::Library library;
    Sum sums[2];
    std::vector<double> seconds[2];
    std::vector<double> ratios;
    for (int pair = -1; pair < pairs; ++pair) {
        double times[2];
        for (int turn = 0; turn < 2; ++turn) {
            const int which = (pair + turn) & 1;
            times[which] = which == 0 ? plain(messages, sums[0]) : wrapped(messages, sums[1]);
        }
        if (pair < 0) continue;
        seconds[0].push_back(times[0]);
        seconds[1].push_back(times[1]);
        ratios.push_back(times[1] / times[0]);
    }
    if (sums[0].prices != sums[1].prices || sums[0].letters != sums[1].letters) return 1;
    std::printf("plain %.0f ns, pelmo.hpp %.0f ns a message, ratio %.4f\n",
                median(seconds[0]) / messages * 1e9, median(seconds[1]) / messages * 1e9,
                median(ratios));
    return 0;
}
