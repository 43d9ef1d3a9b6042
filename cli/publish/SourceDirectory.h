// The files of a directory of scripts. A script is what lies in the directory itself: no link leads
// out of it.

#pragma once

#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace VarnScripts::publishing {

/// The directory that scripts are read from. Several threads may read at the same time.
class SourceDirectory {
 public:
  explicit SourceDirectory(std::string path) : path_(std::move(path)) {}

  /// The bytes of the script file `name`, which has no slash. A symbolic link that leads out of the
  /// directory is not followed: `error` is `std::errc::operation_not_permitted`. Something that is
  /// no regular file is `std::errc::invalid_argument`, one of more than `mostBytes`
  /// `std::errc::file_too_large`.
  [[nodiscard]] std::string read(const std::string& name, std::error_code& error,
                                 std::uint64_t mostBytes);

  /// The names of the files in it, in any order, without those that links led to when they were
  /// read. Empty when the directory can't be read. When nobody reads any more.
  [[nodiscard]] std::vector<std::string> files() const;

 private:
  /// The file within the directory that the symbolic link `name` leads to.
  [[nodiscard]] std::string resolvedLink(const std::string& name, std::error_code& error);

  const std::string path_;
  std::mutex links_;  ///< of the two below
  std::string root_;  ///< the path without symbolic links; empty until one is met
  std::set<std::string> linked_;
};

}  // namespace VarnScripts::publishing
