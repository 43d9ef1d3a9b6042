// The process runner. One poll loop on the pipe's reading end and on the descriptor that tells the
// child's end; the pipe is looked at before the child, so what the child wrote before it ended has
// been delivered when the wait is over.

#include "ScriptRepositoryUtil.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <string_view>
#include <system_error>
#include <utility>

#include "platform/Child.h"
#include "platform/Clock.h"
#include "platform/Wait.h"
#include "support/Encoding.h"
#include "support/Files.h"
#include "support/Guard.h"
#include "support/LongText.h"
#include "support/RunEvents.h"
#include "support/Text.h"
#include "support/UnitLog.h"

namespace VarnScriptRepository {
namespace {

using Clock = platform::AwakeClock;
using Status = std::optional<std::int32_t>;
using Output = std::optional<std::string>;

constexpr UnitLog kLog{"ScriptRepositoryUtil",
                       "shell(launchPath:commandPath:arguments:executeInDirectory:timeoutIn:)"};

/// How long a chunk that ends inside a character waits for the rest of it. Long enough for a writer
/// that is writing, short against one that pauses.
constexpr std::chrono::milliseconds kRestOfCharacterWait{50};

// ---- Time ------------------------------------------------------------------------------------

/// `seconds` from now; the end of time when that lies beyond it.
Clock::time_point deadlineIn(std::int64_t seconds) {
  const Clock::time_point now = Clock::now();
  if (seconds <= 0) return now;
  const auto left =
      std::chrono::duration_cast<std::chrono::seconds>(Clock::time_point::max() - now);
  if (seconds >= left.count()) return Clock::time_point::max();
  return now + std::chrono::seconds(seconds);
}

// ---- Collecting output -----------------------------------------------------------------------

/// Waits for a running child and collects what it writes. Made before the child is started, so that
/// all the memory that the wait itself needs is there when a child has to be waited for.
class Collector {
 public:
  Collector(posix::FileDescriptor readingEnd, Clock::time_point limit, std::int64_t timeoutIn)
      : readingEnd_(std::move(readingEnd)),
        capacity_(platform::pipeCapacity(readingEnd_.get())),
        chunk_(std::make_unique_for_overwrite<char[]>(capacity_ + kLongestRest)),
        limit_(limit),
        timeoutIn_(timeoutIn) {}

  /// Returns when `child` has ended and what the pipe held at that moment has been taken.
  void untilEndOf(const platform::Child& child) {
    while (true) {
      const platform::Ready ready = platform::waitForOutputOrEnd(readingEnd_, child, limit_);
      if (ready.end) break;
      if (ready.output && takeChunk(child) >= capacity_) expectMore();
      if (Clock::now() >= limit_ && !child.hasEnded()) askToTerminate(child);
    }
    takeWhatIsHeld(child);
  }

  [[nodiscard]] std::string takeOutput() { return output_.take(); }

  /// Adds what is known here of the run to `end`.
  void describe(ScriptEnd& end) const {
    end.limitReached = limitReached_;
    end.outputBytes = outputBytes_;
    end.droppedBytes = droppedBytes_;
    end.lostBytes = lostBytes_;
  }

 private:
  /// The rest of a character that begins with a chunk's last byte. The most that follows a chunk.
  static constexpr std::size_t kLongestRest = 3;

  /// Reads at most `most` bytes to `chunk_` at `offset`; 0 when there is nothing now.
  std::size_t read(std::size_t offset, std::size_t most) {
    most = static_cast<std::size_t>(std::min<std::uint64_t>(most, left_));
    if (!readingEnd_ || most == 0) return 0;
    const std::size_t got = platform::readHeld(readingEnd_, chunk_.get() + offset, most);
    left_ -= got;
    return got;
  }

  /// Takes one chunk, and the rest of the character that it ends inside of. Gives the number of
  /// bytes taken.
  std::size_t takeChunk(const platform::Child& child) {
    std::size_t length = read(0, capacity_);
    if (length == 0) return 0;
    length += takeRestOfCharacter(child, length);
    deliver(std::string_view(chunk_.get(), length));
    return length;
  }

  /// A writer in full flow fills the pipe in the middle of a character; its rest follows at once
  /// and belongs to this chunk. One that really pauses there loses the chunk. What follows may end
  /// inside a character again: however it goes on, the chunk gets no more than one rest.
  std::size_t takeRestOfCharacter(const platform::Child& child, std::size_t length) {
    const Clock::time_point now = Clock::now();
    const Clock::time_point until =
        std::min(now + kRestOfCharacterWait, limit_ > now ? limit_ : Clock::time_point::max());
    std::size_t taken = 0;
    while (taken < kLongestRest) {
      const std::size_t missing =
          text::missingBytesAtEnd(std::string_view(chunk_.get(), length + taken));
      if (missing == 0) break;
      // Asked before the read: what a child wrote before it ended is there to be read.
      const bool ended = child.hasEnded();
      const std::size_t got = read(length + taken, std::min(missing, kLongestRest - taken));
      taken += got;
      if (got > 0) continue;
      if (!readingEnd_ || ended || Clock::now() >= until) break;
      static_cast<void>(platform::waitForOutputOrEnd(readingEnd_, child, until));
    }
    return taken;
  }

  /// Each chunk is decoded on its own; one that is not UTF-8 is dropped without a line.
  void deliver(std::string_view chunk) {
    if (!text::isUTF8(chunk)) {
      droppedBytes_ += chunk.size();
      return;
    }
    guarded([] { kLog.info("availableOutput"); });
    // Without memory the chunk is dropped, and the run goes on.
    if (!output_.append(chunk)) {
      lostBytes_ += chunk.size();
      return;
    }
    outputBytes_ += chunk.size();
    tell(&ScriptRunObserver::outputTaken, chunk);
  }

  /// A child that has filled the pipe once has much to tell: it gets a larger one. Without memory
  /// for chunks of that size things stay as they are.
  void expectMore() {
    if (std::exchange(expectsMore_, true)) return;
    platform::enlargePipe(readingEnd_.get());
    const std::size_t capacity = platform::pipeCapacity(readingEnd_.get());
    if (capacity <= capacity_) return;
    std::unique_ptr<char[]> larger(new (std::nothrow) char[capacity + kLongestRest]);
    if (!larger) return;
    chunk_ = std::move(larger);
    capacity_ = capacity;
  }

  /// One bounded look: a descendant that goes on writing is not waited for.
  void takeWhatIsHeld(const platform::Child& child) {
    left_ = readingEnd_ ? platform::bytesHeld(readingEnd_.get()) : 0;
    while (takeChunk(child) > 0) continue;
  }

  void askToTerminate(const platform::Child& child) {
    guarded([this] {
      kLog.info("shell: Killing process due to " + std::to_string(timeoutIn_) + "s time-out");
    });
    child.terminateGroup();
    limitReached_ = true;
    // Asked once; from here on the child is only waited for.
    limit_ = Clock::time_point::max();
  }

  posix::FileDescriptor readingEnd_;
  std::size_t capacity_;  // what a chunk has at most: what the pipe can hold
  std::unique_ptr<char[]> chunk_;
  std::uint64_t left_ = UINT64_MAX;  // how many bytes may still be read: all, while the child runs
  bool expectsMore_ = false;
  LongText output_;
  std::uint64_t outputBytes_ = 0;
  std::uint64_t droppedBytes_ = 0;  // as they were not UTF-8
  std::uint64_t lostBytes_ = 0;     // as there was no memory for them
  bool limitReached_ = false;
  Clock::time_point limit_;
  const std::int64_t timeoutIn_;
};

// ---- Running ---------------------------------------------------------------------------------

std::string entryLine(const std::string& launchPath, const std::string& commandPath,
                      const std::vector<std::string>& arguments,
                      const std::string& executeInDirectory, std::int64_t timeoutIn) {
  return "Execute " + launchPath + " command: " + commandPath +
         ", arguments: " + text::listText(arguments) + ", in directory " + executeInDirectory +
         ", timeoutIn " + std::to_string(timeoutIn);
}

std::pair<Status, Output> launchFailed(const std::error_code& error) noexcept {
  ScriptEnd end{ScriptEnd::How::launchFailed};
  std::string cause;
  guarded([&] {
    end.cause = cause = files::description(error);
    kLog.info("Launch failed: " + cause);
  });
  tell(&ScriptRunObserver::scriptEnded, end);
  return {};
}

ScriptEnd::How howOf(const platform::EndStatus& status) {
  if (status == platform::Child::kStatusLost) return ScriptEnd::How::statusLost;
  return status.isSignal ? ScriptEnd::How::signalled : ScriptEnd::How::exited;
}

std::pair<Status, Output> run(const std::string& launchPath,
                              const std::vector<std::string>& arguments,
                              const std::string& executeInDirectory, std::int64_t timeoutIn) {
  std::error_code error;
  platform::Pipe pipe = platform::makePipe(error);
  if (error) return launchFailed(error);

  // The limit counts from before the launch. One that is due already finds no running child, and
  // does not come again.
  Clock::time_point limit = deadlineIn(timeoutIn);
  if (Clock::now() >= limit) {
    kLog.info("shell: task is not running, not waiting due to " + std::to_string(timeoutIn) +
              "s time out");
    limit = Clock::time_point::max();
  }

  Collector collector(std::move(pipe.readingEnd), limit, timeoutIn);
  const Clock::time_point began = Clock::now();
  platform::Child child = platform::Child::launch(
      {launchPath, arguments, executeInDirectory, pipe.writingEnd.get()}, error);
  if (error) return launchFailed(error);
  pipe.writingEnd.reset();
  tell(&ScriptRunObserver::scriptStarted, child.processID());

  collector.untilEndOf(child);
  tell(&ScriptRunObserver::processEnded);
  const platform::EndStatus status = child.reap();
  ScriptEnd end{howOf(status)};
  if (end.how != ScriptEnd::How::statusLost) end.code = status.code;
  end.duration = Clock::now() - began;
  collector.describe(end);
  tell(&ScriptRunObserver::scriptEnded, end);
  return {status.code, collector.takeOutput()};
}

}  // namespace

std::pair<std::optional<std::int32_t>, std::optional<std::string>> shell(
    const std::string& launchPath, const std::string& commandPath,
    const std::vector<std::string>& arguments, const std::string& executeInDirectory,
    std::int64_t timeoutIn) {
  try {
    guarded([&] {
      kLog.info(entryLine(launchPath, commandPath, arguments, executeInDirectory, timeoutIn));
    });
    tell(&ScriptRunObserver::scriptStarts,
         ScriptStart{launchPath, commandPath, executeInDirectory, std::chrono::seconds(timeoutIn)});
    if (!files::exists(launchPath)) {
      guarded([&] { kLog.info("Launch path not available: " + launchPath); });
      tell(&ScriptRunObserver::scriptEnded, ScriptEnd{ScriptEnd::How::launchPathMissing});
      return {};
    }
    std::vector<std::string> childArguments{commandPath};
    childArguments.insert(childArguments.end(), arguments.begin(), arguments.end());
    return run(launchPath, childArguments, executeInDirectory, timeoutIn);
  } catch (...) {
    // Nothing but memory runs out here, and all that can't do without comes before the start.
    return launchFailed(std::make_error_code(std::errc::not_enough_memory));
  }
}

}  // namespace VarnScriptRepository
