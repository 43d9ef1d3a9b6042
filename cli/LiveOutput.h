// Writes a script's output to standard output while the script runs. A thread of its own does, so
// that a reader who has stopped reading keeps nobody from looking after the script.

#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>

namespace VarnScripts {

/// Constructed after `SignalForwarding`, whose signals its thread must not take.
class LiveOutput {
 public:
  /// How far the reader may be behind, in bytes. When it is farther, nothing more is taken, and the
  /// rest of the output is left to the end of the run.
  static constexpr std::size_t kMostHeld = std::size_t{4} << 20;

  /// Writes nothing, ever, when not `enabled`; otherwise no more than `most` bytes when it has a
  /// value, and no part of a character.
  LiveOutput(bool enabled, std::optional<std::uint64_t> most);
  LiveOutput(const LiveOutput&) = delete;
  LiveOutput& operator=(const LiveOutput&) = delete;
  ~LiveOutput();

  /// Takes the next piece of the output, which ends at the end of a character. Never waits for the
  /// reader.
  void take(std::string_view piece) noexcept;

  /// Waits until all is written that was taken. Gives its length: so much of the output's beginning
  /// need not be written any more. `error` says why some of it could not be written; then nothing
  /// more is worth trying.
  [[nodiscard]] std::uint64_t finish(std::error_code& error);

 private:
  void writeTaken();

  std::mutex mutex_;
  std::condition_variable changed_;
  bool isOpen_;  // something may be taken
  bool done_ = false;
  std::uint64_t left_;  // what may still be taken
  std::uint64_t taken_ = 0;
  std::string held_;
  std::error_code error_;
  std::thread writer_;
};

}  // namespace VarnScripts
