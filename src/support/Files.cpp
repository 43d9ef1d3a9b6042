#include "support/Files.h"

#include <fcntl.h>
#include <locale.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <filesystem>

#include "platform/FileDescriptor.h"
#include "platform/Memory.h"

namespace VarnScriptRepository::files {
namespace {

std::error_code lastError() { return {errno, std::generic_category()}; }

/// The error of a path that is no regular file; cleared when it is one.
std::error_code regularFileError(int fd, struct stat& status) {
  if (::fstat(fd, &status) != 0) return lastError();
  if (S_ISREG(status.st_mode)) return {};
  return std::make_error_code(S_ISDIR(status.st_mode) ? std::errc::is_a_directory
                                                      : std::errc::not_supported);
}

/// Appends what is left in `fd` to `bytes`. By way of a small buffer, which stays in the
/// processor's cache: filling the text with zeros to read into it would cost more than the copy.
void readRest(int fd, std::string& bytes, std::error_code& error) {
  std::array<char, 16 * 1024> piece;
  while (true) {
    const ssize_t got =
        platform::retryOnInterrupt([&] { return ::read(fd, piece.data(), piece.size()); });
    if (got < 0) error = lastError();
    if (got <= 0) return;
    bytes.append(piece.data(), static_cast<std::size_t>(got));
  }
}

/// The C locale on this thread, for as long as the object lives. The messages of the operating
/// system's errors change with the locale; without memory for it they stay as they are.
class CLocale {
 public:
  CLocale() {
    static const locale_t cLocale = ::newlocale(LC_ALL_MASK, "C", nullptr);
    if (cLocale != nullptr) before_ = ::uselocale(cLocale);
  }
  CLocale(const CLocale&) = delete;
  CLocale& operator=(const CLocale&) = delete;
  ~CLocale() {
    if (before_ != nullptr) ::uselocale(before_);
  }

 private:
  locale_t before_ = nullptr;
};

}  // namespace

bool exists(const std::string& path) noexcept {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0;
}

std::string readWhole(const std::string& path, std::error_code& error) {
  error.clear();
  // Without O_NONBLOCK the opening of a named pipe would wait for a writer.
  const platform::FileDescriptor fd(platform::retryOnInterrupt(
      [&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK); }));
  if (!fd) {
    error = lastError();
    return {};
  }
  struct stat status {};
  error = regularFileError(fd.get(), status);
  if (error) return {};
  std::string bytes;
  bytes.reserve(static_cast<std::size_t>(status.st_size));
  platform::useLargePages(bytes.data(), bytes.capacity());
  readRest(fd.get(), bytes, error);
  if (error) return {};
  return bytes;
}

void removeItem(const std::string& path, std::error_code& error) {
  std::filesystem::remove_all(path, error);
}

std::string description(const std::error_code& error) {
  const CLocale words;
  return error.message();
}

}  // namespace VarnScriptRepository::files
