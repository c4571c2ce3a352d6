// dispatchers [DAEMON]: four threads work on the messages of one queue, which keeps at most a
// thousand and drops the oldest ones when more come in than the threads take.

#include <atomic>
#include <cstdio>
#include <pelmo/pelmo.hpp>

int main(int count, char** words) try {
    constexpr uint32_t kMessages = 10'000;
    const pelmo::Library library;
    const auto bus = pelmo::Transport::connect({.daemon = count > 1 ? words[1] : "7500"}).value();
    const auto work =
        pelmo::Queue::make({.limit = {pelmo::DiscardFirst, 1000, 10}, .name = "work"}).value();
    // What the library reports of the full queue waits on a queue of its own until the end.
    const auto reports = pelmo::Queue::make().value();
    uint32_t timesFull = 0;
    const auto full = reports
                          .listen(pelmo::Transport::local(), "_PM.WARN.SYSTEM.QUEUE.LIMIT_EXCEEDED",
                                  [&] { ++timesFull; })
                          .value();
    std::atomic<uint32_t> done = 0;
    std::atomic<bool> over = false;
    const auto jobs = work.listen(bus, "JOBS",
                                  [&](pelmo::MessageView job) {
                                      ++done;
                                      if (!job.get<bool>("last").value_or(false)) return;
                                      over = true;
                                      over.notify_all();
                                  })
                          .value();
    std::vector<pelmo::Dispatcher> threads;
    for (int i = 0; i < 4; ++i)
        threads.push_back(pelmo::Dispatcher::start(work).value());

    pelmo::Message message;
    for (uint32_t i = 1; i <= kMessages; ++i)
        bus.send(message.reset().to("JOBS").add("number", i).add("last", i == kMessages)).value();
    over.wait(false);
    threads.clear();  // joins them: no callback runs any more
    while (reports.dispatch(pelmo::Seconds(0)).value()) {
    }
    std::printf("%u of %u done, full %u times\n", done.load(), kMessages, timesFull);
    return 0;
} catch (const pelmo::Failure& failure) {
    std::fprintf(stderr, "dispatchers: %s\n", failure.what());
    return 1;
}
