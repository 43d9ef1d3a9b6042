// Work on many things that do not know of each other, on every processor.

#pragma once

#include <algorithm>
#include <cstddef>
#include <future>
#include <thread>
#include <vector>

namespace VarnScripts::publishing {

// Of fewer, starting a thread costs more than it saves.
inline constexpr std::size_t kFewestForAThread = 256;

// Calls `work` once with each index below `count`, from several threads when there are many, and
// returns when all calls have. What a call throws is thrown here, and the rest of its thread's
// indices is left out then. Where no thread can be had, the caller's does its work as well.
template <class Work>
void forEachIndex(std::size_t count, const Work& work) {
  const std::size_t processors = std::max(std::thread::hardware_concurrency(), 1U);
  const std::size_t threads = std::clamp<std::size_t>(count / kFewestForAThread, 1, processors);
  const auto part = [&](std::size_t number) {
    const std::size_t end = count * (number + 1) / threads;
    for (std::size_t index = count * number / threads; index < end; ++index) work(index);
  };
  std::vector<std::future<void>> others;
  others.reserve(threads - 1);
  for (std::size_t number = 1; number < threads; ++number) {
    // Without a policy: one that asks for a thread alone fails where none can be had.
    others.push_back(std::async(part, number));
  }
  part(0);
  for (auto& other : others) other.get();
}

}  // namespace VarnScripts::publishing
