// A directory for files that nobody needs when the command is done.

#pragma once

#include <string>
#include <system_error>

namespace VarnScripts {

/// A new, empty directory (0700) below the system's directory for temporary files; removed with all
/// that is in it when this is destroyed.
class TemporaryDirectory {
 public:
  /// After a failure `error` tells why, and there is no directory.
  explicit TemporaryDirectory(std::error_code& error);
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
  ~TemporaryDirectory();

  /// The path of `name` in the directory.
  [[nodiscard]] std::string pathOf(const std::string& name) const;

 private:
  std::string path_;
};

}  // namespace VarnScripts
