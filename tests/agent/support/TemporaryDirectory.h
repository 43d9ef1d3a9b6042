// A test's own directory, and files in it.

#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

/// A fresh directory, mode 0700, that goes away with everything in it.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }
  /// The path of `name` in it.
  [[nodiscard]] std::string operator/(std::string_view name) const;
  /// The names in it, sorted.
  [[nodiscard]] std::vector<std::string> names() const;

 private:
  std::string path_;
};

/// A umask for as long as it lives.
class Umask {
 public:
  explicit Umask(mode_t mask);
  ~Umask();
  Umask(const Umask&) = delete;
  Umask& operator=(const Umask&) = delete;

 private:
  mode_t previous_;
};

void writeFile(const std::string& path, std::string_view content);

/// The file's content, or "(none)".
[[nodiscard]] std::string readFile(const std::string& path);

/// The permission bits of what is at `path` itself, a link not followed.
[[nodiscard]] mode_t modeOf(const std::string& path);
