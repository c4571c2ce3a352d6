// Threads that wait for each other before each round, so that they start it together.

#pragma once

#include <barrier>
#include <thread>
#include <vector>

// Calls act(thread, round), both counted from 0.
template <typename Act>
void race(int threadCount, int rounds, Act act) {
    std::barrier meeting(threadCount);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < threadCount; ++thread) {
        threads.emplace_back([&, thread] {
            for (int round = 0; round < rounds; ++round) {
                meeting.arrive_and_wait();
                act(thread, round);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
}
