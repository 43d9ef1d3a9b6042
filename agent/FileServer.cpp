#include "FileServer.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <system_error>

#include "Calls.h"
#include "ServerURL.h"

namespace AgentUtils {
namespace {

using posix::FileDescriptor;

constexpr std::size_t kPieceSize = std::size_t{64} << 10;

[[noreturn]] void fail(const std::string& path, int error) {
  throw DownloadFailure(path + ": " + std::generic_category().message(error));
}

void copyAll(const FileDescriptor& file, const std::string& path, DownloadTarget& target) {
  const auto piece = std::make_unique_for_overwrite<char[]>(kPieceSize);
  while (true) {
    const ssize_t count =
        posix::retryOnInterrupt([&] { return ::read(file.get(), piece.get(), kPieceSize); });
    if (count < 0) fail(path, errno);
    if (count == 0) return;
    target.write(piece.get(), static_cast<std::size_t>(count));
  }
}

}  // namespace

void copyFromFileServer(const std::string& url, DownloadTarget& target) {
  const auto path = pathOfFileURL(url);
  if (!path) throw DownloadFailure("no local path in the URL");
  // Not blocking, or a FIFO would be waited for.
  const FileDescriptor file(::open(path->c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat status {};
  if (!file || ::fstat(file.get(), &status) != 0) fail(*path, errno);
  if (!S_ISREG(status.st_mode)) throw DownloadFailure(*path + " is not a file");
  copyAll(file, *path, target);
  // Somebody may be writing it.
  if (target.size() != static_cast<std::uint64_t>(status.st_size)) {
    throw DownloadFailure(*path + " changed while it was read");
  }
}

}  // namespace AgentUtils
