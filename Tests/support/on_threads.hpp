// Runs a body on several threads at once.
#pragma once

#include <thread>
#include <vector>

namespace tavelin::test {

// Each thread gets its number, from 0 on. Returns when all are done.
template<typename Body>
void onThreads(int count, const Body& body) {
    std::vector<std::thread> threads;
    for (int number = 0; number < count; ++number) {
        threads.emplace_back([&body, number] { body(number); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

} // namespace tavelin::test
