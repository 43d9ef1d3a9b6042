#include "ScriptedChild.h"

#include <algorithm>
#include <chrono>
#include <system_error>
#include <utility>

namespace fuzz {

using VarnScriptRepository::platform::Ready;

ScriptedChild& ScriptedChild::current() {
  static auto& child = *new ScriptedChild;
  return child;
}

ScriptedChild::ScriptedChild(Input& input) {
  capacity_ = 1 + input.byte() % 64;
  grown_ = std::max<std::size_t>(capacity_, input.byte());
  // 0 is a limit that is due at once.
  limitInSeconds_ = input.byte() % 8;
  timePerRead_ = input.byte() % 64;
  // Texts of the input end at 0xFF, which a child may write as well: all that is left is one.
  const std::string rest = input.remaining();
  for (std::size_t at = 0; at < rest.size(); ++at) {
    const auto number = [&] { return at + 1 < rest.size() ? std::uint8_t(rest[++at]) : 0; };
    switch (rest[at]) {
      case '\x01':
        steps_.push_back({What::pause, number()});
        break;
      case '\x02':
        steps_.push_back({What::pause, 100 * number()});
        break;
      case '\x03':
        steps_.push_back({What::wake});
        break;
      case '\x04':
        steps_.push_back({What::close});
        break;
      case '\x05':
        steps_.push_back({What::end, number()});
        break;
      case '\x06':
        steps_.push_back({What::ignoreSignals});
        break;
      case '\x07': {
        const int times = number();
        const int byte = number();
        steps_.push_back({What::write, 0,
                          std::string(static_cast<std::size_t>(times), static_cast<char>(byte))});
        break;
      }
      default:
        if (steps_.empty() || steps_.back().what != What::write) steps_.push_back({What::write});
        steps_.back().bytes += rest[at];
    }
  }
  settle();
}

/// Takes all steps that can be taken now.
void ScriptedChild::settle() {
  while (next_ < steps_.size() && take(steps_[next_])) ++next_;
  if (next_ == steps_.size() && !ended_) end(0);
}

/// Whether the step has been taken; otherwise it, or its rest, is to be tried later.
bool ScriptedChild::take(Step& step) {
  switch (step.what) {
    case What::write: {
      if (!open_) return true;
      const std::size_t room = capacity_ - std::min(capacity_, held_.size());
      const std::string piece = step.bytes.substr(writtenOfStep_, room);
      held_ += piece;
      written_ += piece;
      if (!ended_) writtenByChild_ += piece.size();
      writtenOfStep_ += piece.size();
      if (writtenOfStep_ < step.bytes.size()) return false;
      writtenOfStep_ = 0;
      return true;
    }
    case What::pause:
      if (pauseEnds_ == kNever) pauseEnds_ = now_ + step.number;
      if (now_ < pauseEnds_) return false;
      pauseEnds_ = kNever;
      return true;
    case What::wake:
      woken_ = true;
      return true;
    case What::close:
      open_ = false;
      return true;
    case What::ignoreSignals:
      ignoresSignals_ = true;
      return true;
    case What::end:
      end(static_cast<std::int32_t>(step.number));
      return true;
  }
  return true;
}

void ScriptedChild::end(std::int32_t status) {
  if (std::exchange(ended_, true)) return;
  status_ = status;
  endTime_ = now_;
}

Ready ScriptedChild::wait(std::int64_t deadline, bool watchesPipe) {
  while (true) {
    const bool output = watchesPipe && (!held_.empty() || isAtEndOfFile());
    // A wait that is over without reason may tell of output that is not there.
    if (std::exchange(woken_, false)) return {true, ended_};
    if (output || ended_ || now_ >= deadline) return {output, ended_};
    now_ = std::min(deadline, pauseEnds_);
    FUZZ_REQUIRE(now_ != kNever);
    settle();
  }
}

std::string ScriptedChild::read(std::size_t most) {
  std::string bytes = held_.substr(0, most);
  held_.erase(0, bytes.size());
  now_ += timePerRead_;
  settle();
  return bytes;
}

bool ScriptedChild::isAtEndOfFile() { return held_.empty() && (!open_ || next_ == steps_.size()); }

bool ScriptedChild::hasEnded() { return ended_; }

std::size_t ScriptedChild::held() { return held_.size(); }

void ScriptedChild::growPipe() {
  capacity_ = grown_;
  settle();
}

/// The signal reaches the whole group.
void ScriptedChild::terminate() {
  if (ignoresSignals_) return;
  next_ = steps_.size();
  pauseEnds_ = kNever;
  end(15);
}

}  // namespace fuzz

// ---- The platform ----------------------------------------------------------------------------

namespace VarnScriptRepository::platform {

using fuzz::ScriptedChild;

AwakeClock::time_point AwakeClock::now() noexcept {
  return time_point(std::chrono::milliseconds(ScriptedChild::current().now()));
}

Pipe makePipe(std::error_code& error) {
  error.clear();
  // Numbers that no descriptor has: closing them does nothing.
  return {FileDescriptor(1 << 30), FileDescriptor((1 << 30) + 1)};
}

std::size_t pipeCapacity(int) noexcept { return ScriptedChild::current().capacity(); }
void enlargePipe(int) noexcept { ScriptedChild::current().growPipe(); }
std::size_t bytesHeld(int) noexcept { return ScriptedChild::current().held(); }

Ready waitForOutputOrEnd(const FileDescriptor& readingEnd, const Child&,
                         AwakeClock::time_point deadline) noexcept {
  const bool never = deadline == AwakeClock::time_point::max();
  return ScriptedChild::current().wait(
      never ? ScriptedChild::kNever
            : std::chrono::ceil<std::chrono::milliseconds>(deadline.time_since_epoch()).count(),
      static_cast<bool>(readingEnd));
}

std::size_t readHeld(FileDescriptor& readingEnd, char* bytes, std::size_t most) noexcept {
  auto& child = ScriptedChild::current();
  FUZZ_REQUIRE(readingEnd && most > 0);
  if (child.isAtEndOfFile()) readingEnd.reset();
  const std::string piece = child.read(most);
  std::copy(piece.begin(), piece.end(), bytes);
  return piece.size();
}

Child Child::launch(const Program&, std::error_code& error) {
  error.clear();
  return {1, FileDescriptor()};
}

Child::~Child() { FUZZ_REQUIRE(processID_ == 0); }
bool Child::hasEnded() const noexcept { return ScriptedChild::current().hasEnded(); }
void Child::terminateGroup() const noexcept { ScriptedChild::current().terminate(); }

EndStatus Child::reap() noexcept {
  FUZZ_REQUIRE(std::exchange(processID_, 0) != 0 && hasEnded());
  return {ScriptedChild::current().status()};
}

}  // namespace VarnScriptRepository::platform
