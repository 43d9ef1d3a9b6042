#include "RegularFile.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "Calls.h"
#include "WholeFiles.h"
#include "platform/Memory.h"

namespace VarnScripts {
namespace {

using posix::FileDescriptor;
using posix::retryOnInterrupt;

constexpr mode_t kPermissionBits = 07777;

// What every computer has the memory for.
constexpr std::size_t kSmall = std::size_t{1} << 20;

// By how much a text grows that is longer than its file was said to be.
constexpr std::size_t kStep = 65536;

}  // namespace

RegularFile readRegularFile(const std::string& path, LastLink link, std::error_code& error,
                            std::uint64_t mostBytes) {
  const auto fail = [&error](int cause) {
    error.assign(cause, std::generic_category());
    return RegularFile{};
  };
  error.clear();
  // Without waiting: a FIFO would hold whoever opens it.
  const int flags = O_RDONLY | O_NONBLOCK | O_CLOEXEC | (link == LastLink::refuse ? O_NOFOLLOW : 0);
  const FileDescriptor file(retryOnInterrupt([&] { return ::open(path.c_str(), flags); }));
  struct stat status {};
  if (!file || ::fstat(file.get(), &status) != 0) return fail(errno);
  if (!S_ISREG(status.st_mode)) return fail(EINVAL);
  if (static_cast<std::uint64_t>(status.st_size) > mostBytes) return fail(EFBIG);
  const auto size = static_cast<std::size_t>(status.st_size);
  if (size > kSmall && !VarnScriptRepository::platform::canHold(size)) return fail(ENOMEM);

  RegularFile result;
  result.permissions = status.st_mode & kPermissionBits;
  result.owner = status.st_uid;
  // One byte more, so that the read which brings the last one also tells that it is the last.
  result.bytes.resize(size + 1);
  std::size_t held = 0;
  while (true) {
    const ssize_t count = retryOnInterrupt(
        [&] { return ::read(file.get(), result.bytes.data() + held, result.bytes.size() - held); });
    if (count < 0) return fail(errno);
    held += static_cast<std::size_t>(count);
    if (held > mostBytes) return fail(EFBIG);
    if (count == 0 || held == size) break;
    // It grows.
    if (held == result.bytes.size()) result.bytes.resize(held + std::max(held / 2, kStep));
  }
  result.bytes.resize(held);
  return result;
}

std::string readToEnd(const FileDescriptor& file, std::error_code& error, std::uint64_t mostBytes) {
  std::string bytes;
  error.clear();
  std::array<char, kStep> part{};
  while (!error) {
    const ssize_t count =
        retryOnInterrupt([&] { return ::read(file.get(), part.data(), part.size()); });
    if (count == 0) return bytes;
    if (count > 0) {
      bytes.append(part.data(), static_cast<std::size_t>(count));
      if (bytes.size() > mostBytes) error = std::make_error_code(std::errc::file_too_large);
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      // Somebody has left it non-blocking.
      pollfd readable{file.get(), POLLIN, 0};
      if (retryOnInterrupt([&] { return ::poll(&readable, 1, -1); }) < 0) {
        error = posix::lastError();
      }
    } else {
      error = posix::lastError();
    }
  }
  return {};
}

std::string whyNotRead(const std::error_code& error) {
  return error == std::errc::invalid_argument ? "it is not a regular file" : error.message();
}

}  // namespace VarnScripts
