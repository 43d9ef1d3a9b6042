#include "RegularFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "Calls.h"
#include "WholeFiles.h"
#include "platform/Memory.h"

namespace VarnScripts {
namespace {

using posix::FileDescriptor;
using posix::retryOnInterrupt;

constexpr mode_t kPermissionBits = 07777;

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
  if (!VarnScriptRepository::platform::canHold(size)) return fail(ENOMEM);

  RegularFile result;
  result.permissions = status.st_mode & kPermissionBits;
  // It may grow.
  result.bytes = posix::readAll(file.get(), mostBytes, error, size);
  return error ? RegularFile{} : result;
}

std::string whyNotRead(const std::error_code& error) {
  return error == std::errc::invalid_argument ? "it is not a regular file" : error.message();
}

}  // namespace VarnScripts
