// Threads that meet ahead of each round, so that the rounds' beginnings coincide.

#pragma once

#include <barrier>
#include <thread>
#include <vector>

// act(thread, round), both from 0.
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
