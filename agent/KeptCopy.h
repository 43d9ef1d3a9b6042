// The copy of a server's file that an earlier download has left, and what is kept with it: which
// URL it came from, the validators of that answer, and the digest of what was written. They are
// kept in an attribute of the file itself, so that file and validators can't be torn apart. A file
// system without attributes means only that every download is a whole one.

#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <string>

#include "FileDescriptor.h"
#include "Validators.h"

namespace AgentUtils {

/// A file that is, byte for byte, the one that the server's answer was about.
class KeptCopy {
 public:
  /// The copy at `path` of what `url` named. Nothing unless it is a regular file of this user's,
  /// for the owner alone, not larger than `mostBytes`, with validators of exactly this URL, and
  /// with the digest that is kept with them, and was not distrusted. A symbolic link is not
  /// followed.
  [[nodiscard]] static std::optional<KeptCopy> find(const std::string& path, const std::string& url,
                                                    std::uint64_t mostBytes);

  [[nodiscard]] const Validators& validators() const { return validators_; }

  /// Whether the path still names the very file that was found, and nobody has touched it since.
  [[nodiscard]] bool isUntouched() const;

 private:
  KeptCopy(FileDescriptor file, std::string path)
      : file_(std::move(file)), path_(std::move(path)) {}

  FileDescriptor file_;
  std::string path_;
  struct stat status_ {};
  Validators validators_;
};

/// Says that the file at `path` is not what it must be, whatever the server says of it: the next
/// download to that path in this process is a whole one. Any thread; never throws.
void distrustFile(const std::string& path) noexcept;

/// Keeps the validators with the open file, which has just been received whole from `url`. They
/// are left out without a sign when the file system does not take them. Never throws.
void keepWithFile(const FileDescriptor& file, const std::string& url,
                  const Validators& validators) noexcept;

}  // namespace AgentUtils
