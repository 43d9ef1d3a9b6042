// Files of a test, and what they may be.

#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

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
