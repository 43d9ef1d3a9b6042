#include "support/Files.h"

#include <dirent.h>
#include <fcntl.h>
#include <locale.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <limits>
#include <memory>
#include <new>
#include <string_view>
#include <utility>
#include <vector>

#include "Calls.h"
#include "WholeFiles.h"
#include "platform/Memory.h"

namespace VarnScriptRepository::files {
namespace {

using posix::lastError;
using posix::retryOnInterrupt;

/// Whether `path` is a path at all: the system would take what stands before a NUL for the whole.
bool isPath(const std::string& path) { return path.find('\0') == std::string::npos; }

/// The error of a path that is no regular file; cleared when it is one.
std::error_code regularFileError(int fd, struct stat& status) {
  if (::fstat(fd, &status) != 0) return lastError();
  if (S_ISREG(status.st_mode)) return {};
  return std::make_error_code(S_ISDIR(status.st_mode) ? std::errc::is_a_directory
                                                      : std::errc::not_supported);
}

/// What is in `fd`, `size` bytes by its own account; throws when there is no memory for it.
std::string readFrom(int fd, std::size_t size, std::error_code& error) {
  if (!posix::canHold(size)) throw std::bad_alloc();
  std::string room;
  room.reserve(size);
  platform::useLargePages(room.data(), room.capacity());
  return posix::readAll(fd, std::numeric_limits<std::uint64_t>::max(), error, std::move(room));
}

// ---- Removal ---------------------------------------------------------------------------------

/// Removes `name`, in the directory `at`, unless it is a directory with something in it.
std::error_code removeOne(int at, const char* name) {
  if (::unlinkat(at, name, 0) == 0) return {};
  const std::error_code error = lastError();
  // What a directory is answered with differs between systems.
  if (error != std::errc::is_a_directory && error != std::errc::operation_not_permitted) {
    return error;
  }
  if (::unlinkat(at, name, AT_REMOVEDIR) == 0) return {};
  return errno == ENOTDIR ? error : lastError();
}

/// An open directory; of no use without its stream.
struct Directory {
  std::unique_ptr<DIR, int (*)(DIR*)> stream;
  dev_t device = 0;
  ino_t inode = 0;

  [[nodiscard]] int fd() const { return ::dirfd(stream.get()); }
};

/// The directory `name` in the directory `at`, never by way of a link.
Directory openDirectory(int at, const char* name, std::error_code& error) {
  const int fd = retryOnInterrupt(
      [&] { return ::openat(at, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); });
  struct stat status {};
  DIR* const stream = fd < 0 || ::fstat(fd, &status) != 0 ? nullptr : ::fdopendir(fd);
  if (stream == nullptr) error = lastError();
  if (stream == nullptr && fd >= 0) ::close(fd);
  return {{stream, &::closedir}, status.st_dev, status.st_ino};
}

/// Removes what is in `directory` up to the first directory that has something in it; the result
/// is that one's name, or empty when nothing is left.
std::string removeUpToFullDirectory(const Directory& directory, std::error_code& error) {
  errno = 0;
  while (const dirent* const entry = ::readdir(directory.stream.get())) {
    const char* const name = entry->d_name;
    if (name == std::string_view(".") || name == std::string_view("..")) continue;
    error = removeOne(directory.fd(), name);
    if (error == std::errc::directory_not_empty) {
      error.clear();
      return name;
    }
    if (error) return {};
    errno = 0;
  }
  if (errno != 0) error = lastError();
  return {};
}

/// Removes all that is in the directory at `path`. Two directories are open at a time, whatever the
/// depth; the way up is by "..", and held against the directory that was left.
void emptyDirectory(const std::string& path, std::error_code& error) {
  struct Level {
    dev_t device;
    ino_t inode;
    std::string nameBelow;
  };
  std::vector<Level> above;
  Directory here = openDirectory(AT_FDCWD, path.c_str(), error);
  while (!error) {
    std::string full = removeUpToFullDirectory(here, error);
    if (error || (full.empty() && above.empty())) return;
    if (!full.empty()) {
      Directory below = openDirectory(here.fd(), full.c_str(), error);
      above.push_back({here.device, here.inode, std::move(full)});
      here = std::move(below);
      continue;
    }
    const Level left = std::move(above.back());
    above.pop_back();
    here = openDirectory(here.fd(), "..", error);
    if (error) return;
    const bool isTheOneLeft = here.device == left.device && here.inode == left.inode;
    error = isTheOneLeft ? removeOne(here.fd(), left.nameBelow.c_str())
                         : std::make_error_code(std::errc::no_such_file_or_directory);
  }
}

// ---- Words -----------------------------------------------------------------------------------

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
  return isPath(path) && ::stat(path.c_str(), &status) == 0;
}

std::string readWhole(const std::string& path, std::error_code& error) {
  error.clear();
  if (!isPath(path)) {
    error = std::make_error_code(std::errc::invalid_argument);
    return {};
  }
  // Without O_NONBLOCK the opening of a named pipe would wait for a writer.
  const posix::FileDescriptor fd(
      retryOnInterrupt([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK); }));
  if (!fd) {
    error = lastError();
    return {};
  }
  struct stat status {};
  error = regularFileError(fd.get(), status);
  if (error) return {};
  try {
    return readFrom(fd.get(), static_cast<std::size_t>(status.st_size), error);
  } catch (const std::exception&) {
    error = std::make_error_code(std::errc::not_enough_memory);
  }
  return {};
}

void removeItem(const std::string& path, std::error_code& error) {
  // With a slash behind it a link would stand for what it points to.
  const std::string item = path.substr(0, path.find_last_not_of('/') + 1);
  const std::string_view name = std::string_view(item).substr(item.rfind('/') + 1);
  if (!isPath(item) || name.empty() || name == "." || name == "..") {
    error = std::make_error_code(std::errc::invalid_argument);
    return;
  }
  error = removeOne(AT_FDCWD, item.c_str());
  if (error != std::errc::directory_not_empty) return;
  error.clear();
  emptyDirectory(item, error);
  if (!error) error = removeOne(AT_FDCWD, item.c_str());
}

std::string resolvedDirectory(const std::string& path) {
  if (!isPath(path)) return "";
  const std::unique_ptr<char, decltype(&::free)> resolved(::realpath(path.c_str(), nullptr),
                                                          &::free);
  return resolved ? std::string(resolved.get()) + '/' : "";
}

std::string nameBelow(const std::string& directory, const std::string& path) {
  const std::string top = resolvedDirectory(directory);
  const auto slash = path.rfind('/');
  const std::string last = path.substr(slash + 1);
  if (top.empty() || slash == path.npos || last.empty() || last == "." || last == "..") return "";
  const std::string place = resolvedDirectory(path.substr(0, slash + 1)) + last;
  return place.starts_with(top) ? place.substr(top.size()) : "";
}

std::string description(const std::error_code& error) {
  const CLocale words;
  return error.message();
}

}  // namespace VarnScriptRepository::files
