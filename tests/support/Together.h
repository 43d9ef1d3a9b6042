// Threads that begin at once.

#pragma once

#include <barrier>
#include <cstddef>
#include <thread>
#include <vector>

/// Calls `work` with each number below `count`, each in a thread of its own, none before all are
/// there, and returns when all have ended.
template <class Work>
void together(std::size_t count, const Work& work) {
  std::barrier start(static_cast<std::ptrdiff_t>(count));
  std::vector<std::jthread> threads;
  for (std::size_t index = 0; index < count; ++index) {
    threads.emplace_back([&, index] {
      start.arrive_and_wait();
      work(index);
    });
  }
}
