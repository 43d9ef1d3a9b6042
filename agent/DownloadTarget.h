// The local end of a download: a temporary file beside the target that takes its place when it is
// complete, and goes away when it is not.

#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "FileDescriptor.h"

namespace AgentUtils {

using posix::FileDescriptor;

/// Why a download failed, in words for the log.
class DownloadFailure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Throws `DownloadFailure` when a target leads out of the agent's directories: a document may name
/// any path.
void requireInside(const std::string& toPath, const std::string& basePath);

/// Throws the `DownloadFailure` of a download to `path` that this computer will not take, whatever
/// the server sends, as far as it can be told without making anything. A missing directory is one
/// that the agent makes.
void requireTarget(const std::string& path, const std::string& basePath);

/// All bytes of the open file, at most `mostBytes`. Throws `DownloadFailure` when they are more or
/// can't be read.
[[nodiscard]] std::string wholeContent(const FileDescriptor& file, std::uint64_t mostBytes);

/// Whether a file that was put in place outlasts a loss of power.
enum class Durability { synced, unsynced };

/// One temporary file, made in the directory of the target when it is first needed. Its name begins
/// with `kDownloadPrefix`, and it is locked for as long as its download lives, so that what a
/// killed process left behind can be told from it.
class DownloadTarget {
 public:
  /// Throws `DownloadFailure` when something other than a regular file or a symbolic link stands at
  /// `path`. `limit` says what more than `mostBytes` would be.
  DownloadTarget(std::string path, std::uint64_t mostBytes,
                 std::string limit = "larger than max_download allows");
  DownloadTarget(const DownloadTarget&) = delete;
  DownloadTarget& operator=(const DownloadTarget&) = delete;
  /// Removes the temporary file unless it has been put in place.
  ~DownloadTarget();

  [[nodiscard]] const std::string& path() const { return path_; }

  /// The temporary file. Throws `DownloadFailure` when it can't be made.
  const FileDescriptor& temporaryFile();

  /// Counts bytes that have come for the file, as they came. Throws `DownloadFailure` when they are
  /// more than allowed: compressed ones need not become any bytes of the file.
  void receive(std::size_t count);

  /// Adds bytes. Throws `DownloadFailure` when they can't be written or are more than allowed.
  void write(const char* bytes, std::size_t count);

  /// How many bytes were added.
  [[nodiscard]] std::uint64_t size() const { return size_; }

  /// Puts the file in the target's place in one step, and has it on the disk before when it is to
  /// outlast a loss of power. A symbolic link there is replaced, never followed. Throws
  /// `DownloadFailure`; the target is then as it was.
  void commit(Durability durability);

 private:
  void makeTemporaryFile();
  /// Adds `count` to `sum`, unless that makes it more than is allowed.
  void count(std::uint64_t& sum, std::size_t count) const;

  const std::string path_;
  const std::string directory_;
  const std::uint64_t mostBytes_;
  const std::string limit_;
  std::uint64_t size_ = 0;
  std::uint64_t received_ = 0;
  std::string temporaryPath_;  ///< empty when there is no temporary file
  FileDescriptor file_;
};

/// Removes the temporary files of killed processes from the directory; those of downloads that are
/// still under way stay. Never throws.
void sweepTemporaryFiles(const std::string& directory) noexcept;

}  // namespace AgentUtils
