// A child process and the pipe that carries its output: the part of the operating system that the
// process runner stands on. One header for every system, one source file for each
// (Child.linux.cpp, Child.macos.cpp).
//
// One thread uses one child. Nothing here changes the state of the host process: no handler, no
// signal mask that outlives a call, no helper thread.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <system_error>
#include <vector>

#include "FileDescriptor.h"

namespace VarnScriptRepository::platform {

using posix::FileDescriptor;

/// A pipe: both ends close on exec, the reading end never blocks, neither is descriptor 0, 1 or 2.
struct Pipe {
  FileDescriptor readingEnd;
  FileDescriptor writingEnd;
};

/// A new pipe; empty ends when `error` is set.
[[nodiscard]] Pipe makePipe(std::error_code& error);

/// How many bytes the pipe of `fd` can hold.
[[nodiscard]] std::size_t pipeCapacity(int fd) noexcept;

/// Lets the pipe of `fd` hold more, for a writer that has filled it. Where that can't be had the
/// pipe stays as it is.
void enlargePipe(int fd) noexcept;

/// How many bytes the pipe of `readingEnd` holds now; where the system does not say, how many it
/// can hold.
[[nodiscard]] std::size_t bytesHeld(int readingEnd) noexcept;

/// What to start.
struct Program {
  const std::string& launchPath;  ///< absolute path of the executable, its `argv[0]` too
  const std::vector<std::string>& arguments;  ///< after `argv[0]`
  const std::string& directory;               ///< working directory
  int output;                                 ///< descriptor for standard output and standard error
};

/// How a process has ended.
struct EndStatus {
  std::int32_t code;  ///< the exit code, or the number of the signal that ended it
  bool isSignal = false;

  bool operator==(const EndStatus&) const = default;
};

/// A started process, the leader of a process group of its own. It has the environment and the
/// standard input of this process, `Program::output` as its other two descriptors, no further
/// descriptor, an empty signal mask and default signal dispositions.
class Child {
 public:
  /// The status of a child whose own was taken by somebody else in this process.
  static constexpr EndStatus kStatusLost{-1};

  /// Starts `program`. When that fails, `error` says why and the result is no child.
  [[nodiscard]] static Child launch(const Program& program, std::error_code& error);

  Child(Child&& other) noexcept;
  Child& operator=(Child&&) = delete;
  /// Waits for a child that has not been reaped.
  ~Child();

  [[nodiscard]] int processID() const { return processID_; }

  /// A descriptor that becomes readable when the child has ended, or -1 where the system gives
  /// none; then `hasEnded` must be asked now and then.
  [[nodiscard]] int endDescriptor() const { return endDescriptor_.get(); }

  /// Whether the child has ended. Does not block and does not reap.
  [[nodiscard]] bool hasEnded() const noexcept;

  /// Sends SIGTERM to the child's process group, and to the child itself where it has moved to
  /// another one; then SIGCONT to the same, so that what is stopped hears it.
  void terminateGroup() const noexcept;

  /// Waits until the child has ended and tells how. Called once; the process ID is free afterwards.
  [[nodiscard]] EndStatus reap() noexcept;

 private:
  Child(int processID, FileDescriptor endDescriptor)
      : processID_(processID), endDescriptor_(std::move(endDescriptor)) {}

  int processID_;  // 0 when there is nothing to reap
  FileDescriptor endDescriptor_;
};

}  // namespace VarnScriptRepository::platform
