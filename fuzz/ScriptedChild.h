// A child that does what a fuzzer says, in a time that passes only while somebody waits: in place
// of the operating system below the process runner.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Input.h"
#include "platform/Wait.h"

namespace fuzz {

/// The child, its pipe and the clock. Times are milliseconds since its start.
///
/// It takes its steps as soon as it can: a write waits for room in the pipe, a pause for its time.
/// What comes after its end is done by a descendant that has the pipe as well.
class ScriptedChild {
 public:
  static constexpr std::int64_t kNever = INT64_MAX;

  /// The child of the calls of the platform's header.
  static ScriptedChild& current();

  ScriptedChild() = default;

  /// Four bytes of circumstances, then what the child does: bytes that it writes, and control
  /// characters for everything else (see the source).
  explicit ScriptedChild(Input& input);

  [[nodiscard]] std::int64_t now() const { return now_; }
  [[nodiscard]] std::int64_t limitInSeconds() const { return limitInSeconds_; }
  [[nodiscard]] std::size_t capacity() const { return capacity_; }
  [[nodiscard]] std::int32_t status() const { return status_; }

  /// What was written until now, and how much of that by the child itself.
  [[nodiscard]] const std::string& written() const { return written_; }
  [[nodiscard]] std::size_t writtenByChild() const { return writtenByChild_; }

  /// When the child ended.
  [[nodiscard]] std::int64_t endTime() const { return endTime_; }

  VarnScriptRepository::platform::Ready wait(std::int64_t deadline, bool watchesPipe);
  std::string read(std::size_t most);
  /// Whether nothing is held, and nothing will come.
  bool isAtEndOfFile();
  bool hasEnded();
  std::size_t held();
  void growPipe();
  void terminate();

 private:
  enum class What { write, pause, wake, close, ignoreSignals, end };
  struct Step {
    What what;
    std::int64_t number = 0;
    std::string bytes{};
  };

  void settle();
  bool take(Step& step);
  void end(std::int32_t status);

  std::vector<Step> steps_;
  std::size_t next_ = 0;
  std::string held_;
  std::string written_;
  std::size_t writtenByChild_ = 0;
  std::size_t writtenOfStep_ = 0;
  std::size_t capacity_ = 1;
  std::size_t grown_ = 1;
  std::int64_t limitInSeconds_ = 0;
  std::int64_t timePerRead_ = 0;
  std::int64_t now_ = 0;
  std::int64_t pauseEnds_ = kNever;
  std::int64_t endTime_ = kNever;
  std::int32_t status_ = 0;
  bool open_ = true;
  bool woken_ = false;
  bool ignoresSignals_ = false;
  bool ended_ = false;
};

}  // namespace fuzz
