// A directory for files that nobody needs when the command is done.

#pragma once

#include <string>
#include <system_error>

namespace VarnScripts {

/// Removes the directory at `path`, also while somebody makes files in it.
void removeDirectory(const std::string& path) noexcept;

/// A new, empty directory (0700) below the system's directory for temporary files; removed with all
/// that is in it when this is destroyed.
class TemporaryDirectory {
 public:
  /// After a failure `error` tells why, and there is no directory.
  explicit TemporaryDirectory(std::error_code& error);
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
  ~TemporaryDirectory();

  [[nodiscard]] const std::string& path() const { return path_; }

  /// The path of `name` in the directory.
  [[nodiscard]] std::string pathOf(const std::string& name) const;

 private:
  std::string path_;
};

}  // namespace VarnScripts
