// The process runner. One poll loop on the pipe's reading end and on the descriptor that tells the
// child's end; the pipe is looked at before the child, so what the child wrote before it ended has
// been delivered when the wait is over.

#include "ScriptRepositoryUtil.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstddef>
#include <memory>
#include <new>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/Child.h"
#include "platform/Clock.h"
#include "support/Encoding.h"
#include "support/Files.h"
#include "support/Guard.h"
#include "support/LongText.h"
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

/// How often the child is asked for where no descriptor tells its end, or where poll fails.
constexpr std::chrono::milliseconds kAskInterval{10};

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

/// What poll takes for a wait until `deadline`: milliseconds, rounded up so that the deadline has
/// passed when the wait is over; -1 for the end of time.
int pollTimeout(Clock::time_point deadline) {
  if (deadline == Clock::time_point::max()) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
  return static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, INT_MAX));
}

// ---- Collecting output -----------------------------------------------------------------------

/// Waits for a running child and collects what it writes. Made before the child is started, so that
/// all the memory that the wait itself needs is there when a child has to be waited for.
class Collector {
 public:
  Collector(platform::FileDescriptor readingEnd, Clock::time_point limit, std::int64_t timeoutIn)
      : readingEnd_(std::move(readingEnd)),
        chunk_(std::make_unique_for_overwrite<char[]>(capacity_ + kLongestRest)),
        limit_(limit),
        timeoutIn_(timeoutIn) {}

  /// Returns when `child` has ended and what the pipe held at that moment has been taken.
  void untilEndOf(const platform::Child& child) {
    while (true) {
      const Ready ready = outputOrEnd(child, limit_);
      if (ready.output && takeChunk(child, capacity_) >= capacity_) expectMore();
      if (ready.end) break;
      if (Clock::now() >= limit_ && !child.hasEnded()) askToTerminate(child);
    }
    takeWhatIsHeld(child);
  }

  [[nodiscard]] std::string takeOutput() { return output_.take(); }

 private:
  /// The rest of a character that begins with a chunk's last byte. The most that follows a chunk.
  static constexpr std::size_t kLongestRest = 3;

  /// What a wait has found; each may be there without the other.
  struct Ready {
    bool output;
    bool end;
  };

  /// Waits for output, for the child's end, or until `deadline`. There may be less output than
  /// told, even none.
  Ready outputOrEnd(const platform::Child& child, Clock::time_point deadline) {
    const bool endTells = child.endDescriptor() >= 0;
    int timeout = pollTimeout(deadline);
    if (!endTells && (timeout < 0 || timeout > kAskInterval.count())) {
      timeout = static_cast<int>(kAskInterval.count());
    }
    // Negative descriptors are passed over: the pipe after its end of file, which a living child
    // may leave behind, and the child's end where nothing tells it.
    std::array<pollfd, 2> watched{pollfd{readingEnd_.get(), POLLIN, 0},
                                  pollfd{child.endDescriptor(), POLLIN, 0}};
    if (::poll(watched.data(), watched.size(), timeout) >= 0) {
      const bool hasOutput = watched[0].revents != 0;
      if (!endTells) return {hasOutput, child.hasEnded()};
      if ((watched[1].revents & ~POLLIN) == 0) return {hasOutput, watched[1].revents != 0};
      // The descriptor is of no use, or tells more than the end: the child itself is asked.
      if (!hasOutput && !child.hasEnded()) std::this_thread::sleep_for(kAskInterval);
      return {hasOutput, child.hasEnded()};
    }
    // An interrupted wait is just over. A poll that fails for want of memory must not become a
    // busy loop; reading and asking do without it.
    if (errno != EINTR) std::this_thread::sleep_for(kAskInterval);
    return {true, child.hasEnded()};
  }

  /// Reads at most `most` bytes to `chunk_` at `offset`; 0 when there is nothing now. At the end of
  /// the file the pipe is closed and not watched any more.
  std::size_t read(std::size_t offset, std::size_t most) {
    if (!readingEnd_) return 0;
    const ssize_t got = platform::retryOnInterrupt(
        [&] { return ::read(readingEnd_.get(), chunk_.get() + offset, most); });
    if (got > 0) return static_cast<std::size_t>(got);
    const bool nothingNow = got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
    if (!nothingNow) readingEnd_.reset();
    return 0;
  }

  /// Takes one chunk of at most `most` bytes, and the rest of the character that it ends inside of.
  /// Gives the number of bytes taken.
  std::size_t takeChunk(const platform::Child& child, std::size_t most) {
    std::size_t length = read(0, most);
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
      outputOrEnd(child, until);
    }
    return taken;
  }

  /// Each chunk is decoded on its own; one that is not UTF-8 is dropped without a line.
  void deliver(std::string_view chunk) {
    if (!text::isUTF8(chunk)) return;
    guarded([] { kLog.info("availableOutput"); });
    // Without memory the chunk is dropped, and the run goes on.
    static_cast<void>(output_.append(chunk));
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
    std::size_t held = readingEnd_ ? platform::bytesHeld(readingEnd_.get()) : 0;
    while (held > 0) {
      const std::size_t taken = takeChunk(child, std::min(held, capacity_));
      if (taken == 0) return;
      held -= std::min(held, taken);
    }
  }

  void askToTerminate(const platform::Child& child) {
    guarded([this] {
      kLog.info("shell: Killing process due to " + std::to_string(timeoutIn_) + "s time-out");
    });
    child.terminateGroup();
    // Asked once; from here on the child is only waited for.
    limit_ = Clock::time_point::max();
  }

  platform::FileDescriptor readingEnd_;
  std::size_t capacity_ = 64 * 1024;  // what a chunk has at most: what a pipe holds, as a rule
  std::unique_ptr<char[]> chunk_;
  bool expectsMore_ = false;
  LongText output_;
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

std::pair<Status, Output> launchFailed(const std::error_code& error) {
  kLog.info("Launch failed: " + files::description(error));
  return {};
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
  platform::Child child = platform::Child::launch(
      {launchPath, arguments, executeInDirectory, pipe.writingEnd.get()}, error);
  if (error) return launchFailed(error);
  pipe.writingEnd.reset();

  collector.untilEndOf(child);
  const std::int32_t status = child.reap();
  return {status, collector.takeOutput()};
}

}  // namespace

std::pair<std::optional<std::int32_t>, std::optional<std::string>> shell(
    const std::string& launchPath, const std::string& commandPath,
    const std::vector<std::string>& arguments, const std::string& executeInDirectory,
    std::int64_t timeoutIn) {
  return guarded(std::pair<Status, Output>{}, [&]() -> std::pair<Status, Output> {
    guarded([&] {
      kLog.info(entryLine(launchPath, commandPath, arguments, executeInDirectory, timeoutIn));
    });
    if (!files::exists(launchPath)) {
      kLog.info("Launch path not available: " + launchPath);
      return {};
    }
    std::vector<std::string> childArguments{commandPath};
    childArguments.insert(childArguments.end(), arguments.begin(), arguments.end());
    return run(launchPath, childArguments, executeInDirectory, timeoutIn);
  });
}

}  // namespace VarnScriptRepository
