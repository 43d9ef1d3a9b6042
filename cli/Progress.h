// Shows on a terminal that long work is alive: the bytes of a download, the seconds of a run
// against its limit. One line that is overwritten and cleared; nothing of it anywhere but on a
// terminal. A thread of its own shows it, so that a terminal that has been stopped keeps nobody
// from his work.

#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace VarnScripts {

/// The text for a download of `total` bytes (0 when unknown): "Downloading 1.5 MiB of 3.0 MiB
/// (50 %)".
[[nodiscard]] std::string downloadText(std::uint64_t received, std::uint64_t total);

/// The text for a run: "Script is running: 12 s of at most 600 s".
[[nodiscard]] std::string runText(std::chrono::seconds elapsed, std::chrono::seconds limit);

/// The line on standard error. Constructed after `SignalForwarding`, whose signals its thread must
/// not take.
class Progress {
 public:
  /// Shows nothing, ever, when not `enabled`.
  explicit Progress(bool enabled);
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  ~Progress();

  /// Whether standard error is a terminal.
  [[nodiscard]] static bool isPossible();

  /// Shows the state of a download, a few times a second at most.
  void showDownload(std::uint64_t received, std::uint64_t total);

  /// Shows how long a script is running, every second from now on until `endRun`.
  void showRun(std::chrono::seconds limit);
  void endRun();

  /// A record of the log has come, which ends the display of a download. Its line may have covered
  /// what is shown, which is shown anew.
  void makeWay();

  /// Clears the line and shows nothing from then on.
  void finish();

 private:
  using Clock = std::chrono::steady_clock;

  void tick();
  [[nodiscard]] std::string text() const;

  std::mutex mutex_;
  std::condition_variable changed_;
  bool done_;
  bool isCovered_ = false;
  std::string download_;
  std::chrono::seconds limit_{};
  std::optional<Clock::time_point> runningSince_;
  std::thread ticker_;
};

}  // namespace VarnScripts
