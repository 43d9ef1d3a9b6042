#include "Progress.h"

#include <array>
#include <cstdio>
#include <exception>
#include <system_error>

#include "StandardStreams.h"

namespace VarnScripts {
namespace {

// Between two looks of the line, however fast things change.
constexpr std::chrono::milliseconds kPause{100};

std::string sizeText(std::uint64_t bytes) {
  static constexpr std::array<const char*, 4> kUnits = {"KiB", "MiB", "GiB", "TiB"};
  if (bytes < 1024) return std::to_string(bytes) + " B";
  double size = static_cast<double>(bytes) / 1024;
  std::size_t unit = 0;
  while (size >= 1024 && unit + 1 < kUnits.size()) {
    size /= 1024;
    ++unit;
  }
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%.1f %s", size, kUnits[unit]);
  return text.data();
}

}  // namespace

std::string downloadText(std::uint64_t received, std::uint64_t total) {
  if (total == 0 || received > total) return "Downloading " + sizeText(received);
  const auto percent =
      static_cast<int>(100 * (static_cast<double>(received) / static_cast<double>(total)));
  return "Downloading " + sizeText(received) + " of " + sizeText(total) + " (" +
         std::to_string(percent) + " %)";
}

std::string runText(std::chrono::seconds elapsed, std::chrono::seconds limit) {
  return "Script is running: " + std::to_string(elapsed.count()) + " s of at most " +
         std::to_string(limit.count()) + " s";
}

bool Progress::isPossible() { return isErrorTerminal(); }

Progress::Progress(bool enabled) : done_(!enabled) {
  if (!enabled) return;
  try {
    ticker_ = std::thread([this] {
      try {
        tick();
      } catch (const std::exception&) {
        // Without memory for a line there is none.
      }
    });
  } catch (const std::system_error&) {
    // The system has no thread left: the work goes on unseen.
    done_ = true;
  }
}

Progress::~Progress() { finish(); }

void Progress::finish() {
  if (!ticker_.joinable()) return;
  {
    const std::lock_guard lock(mutex_);
    done_ = true;
  }
  changed_.notify_all();
  ticker_.join();
}

void Progress::showDownload(std::uint64_t received, std::uint64_t total) {
  const std::lock_guard lock(mutex_);
  if (done_) return;
  download_ = downloadText(received, total);
  changed_.notify_all();
}

void Progress::showRun(std::chrono::seconds limit) {
  const std::lock_guard lock(mutex_);
  limit_ = limit;
  runningSince_ = Clock::now();
  changed_.notify_all();
}

void Progress::endRun() {
  const std::lock_guard lock(mutex_);
  runningSince_.reset();
  changed_.notify_all();
}

void Progress::makeWay() {
  const std::lock_guard lock(mutex_);
  if (done_) return;
  download_.clear();
  isCovered_ = true;
  changed_.notify_all();
}

std::string Progress::text() const {
  if (!runningSince_) return download_;
  return runText(std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - *runningSince_),
                 limit_);
}

void Progress::tick() {
  std::unique_lock lock(mutex_);
  std::string shown;
  while (!done_) {
    const std::string next = text();
    if (next == shown && !isCovered_) {
      if (runningSince_) {
        const auto elapsed =
            std::chrono::floor<std::chrono::seconds>(Clock::now() - *runningSince_);
        changed_.wait_until(lock, *runningSince_ + elapsed + std::chrono::seconds(1));
      } else {
        changed_.wait(lock);
      }
      continue;
    }
    isCovered_ = false;
    shown = next;
    // The terminal may take its time, and nobody else waits for that.
    lock.unlock();
    showStatusLine(shown);
    lock.lock();
    changed_.wait_for(lock, kPause, [this] { return done_; });
  }
  lock.unlock();
  showStatusLine("");
}

}  // namespace VarnScripts
