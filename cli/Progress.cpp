#include "Progress.h"

#include <unistd.h>

#include <array>
#include <cstdio>
#include <system_error>

#include "Calls.h"

namespace VarnScripts {
namespace {

constexpr std::chrono::milliseconds kRedrawDownload{100};

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

bool Progress::isPossible() { return ::isatty(STDERR_FILENO) == 1; }

Progress::Progress(bool enabled) : done_(!enabled) {
  if (enabled) ticker_ = std::thread([this] { tick(); });
}

Progress::~Progress() { finish(); }

void Progress::finish() {
  if (!ticker_.joinable()) return;
  {
    const std::lock_guard lock(mutex_);
    done_ = true;
    clear();
  }
  changed_.notify_all();
  ticker_.join();
}

void Progress::showDownload(std::uint64_t received, std::uint64_t total) {
  const std::lock_guard lock(mutex_);
  if (done_) return;
  const auto now = Clock::now();
  if (downloadDrawn_ && now - *downloadDrawn_ < kRedrawDownload) return;
  downloadDrawn_ = now;
  draw(downloadText(received, total));
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
  if (!done_) clear();
}

void Progress::makeWay() {
  const std::lock_guard lock(mutex_);
  if (done_) return;
  downloadDrawn_.reset();
  clear();
}

void Progress::tick() {
  std::unique_lock lock(mutex_);
  while (!done_) {
    if (!runningSince_) {
      changed_.wait(lock);
      continue;
    }
    const auto elapsed =
        std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - *runningSince_);
    draw(runText(elapsed, limit_));
    changed_.wait_until(lock, *runningSince_ + elapsed + std::chrono::seconds(1));
  }
}

void Progress::draw(const std::string& text) {
  std::error_code ignored;
  posix::writeAll(STDERR_FILENO, "\r" + text + "\x1b[K\r", ignored);
  drawn_ = true;
}

void Progress::clear() {
  if (!drawn_) return;
  std::error_code ignored;
  posix::writeAll(STDERR_FILENO, "\r\x1b[K", ignored);
  drawn_ = false;
}

}  // namespace VarnScripts
