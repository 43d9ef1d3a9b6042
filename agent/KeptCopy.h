// The copy of a server's file that an earlier download has left, and what is kept with it: which
// URL it came from, the validators of that answer, and the digest of what was written. They are
// kept in an attribute of the file itself, so that file and validators can't be torn apart. A file
// system without attributes means only that every download is a whole one.

#pragma once

#include <sys/stat.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "FileDescriptor.h"
#include "Validators.h"

namespace AgentUtils {

using posix::FileDescriptor;

/// A file that is, byte for byte, the one that the server's answer was about.
class KeptCopy {
 public:
  /// The copy at `path` of what `url` named. Nothing unless it is a regular file of this user's,
  /// for the owner alone, not larger than `mostBytes`, with validators of exactly this URL, and
  /// with the digest that is kept with them. A symbolic link is not followed.
  [[nodiscard]] static std::optional<KeptCopy> find(const std::string& path, const std::string& url,
                                                    std::uint64_t mostBytes);

  [[nodiscard]] const Validators& validators() const { return validators_; }

  /// Its SHA-256 in lower-case hexadecimal.
  [[nodiscard]] const std::string& digest() const { return digest_; }

  /// When it was received, in whole seconds.
  [[nodiscard]] std::chrono::system_clock::time_point received() const;

  /// All of its bytes. Throws `DownloadFailure` when they can't be read.
  [[nodiscard]] std::string content() const;

  /// Whether the path still names the very file that was found, and nobody has touched it since.
  [[nodiscard]] bool isUntouched() const;

 private:
  KeptCopy(FileDescriptor file, std::string path)
      : file_(std::move(file)), path_(std::move(path)) {}

  FileDescriptor file_;
  std::string path_;
  struct stat status_ {};
  Validators validators_;
  std::string digest_;
};

/// Says that this process is about to download to `path`. When a document turns out not to decode,
/// all files that were fetched so far lose their validators on disk: the parser knows bytes and not
/// where they come from, and what is asked for whole in vain costs little. Any thread; throws only
/// when memory is out.
void noteFetchedFile(const std::string& path);

/// Takes the validators of the file at `path`, whose checksum is wrong, from the disk: the next
/// download, in whatever process, is a whole one. When this process has fetched the file, the fault
/// may be in a document that led to it, so all files that were fetched so far lose theirs. Any
/// thread; never throws.
void distrustFile(const std::string& path) noexcept;

/// Keeps the validators with the open file, which has just been received whole from `url`. They
/// are left out without a sign when the file system does not take them. Never throws.
void keepWithFile(const FileDescriptor& file, const std::string& url,
                  const Validators& validators) noexcept;

}  // namespace AgentUtils
