#include "DocumentMark.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "Calls.h"
#include "Digest.h"
#include "Directories.h"
#include "RegularFile.h"
#include "WholeFiles.h"

namespace VarnScripts {
namespace {

std::string customerDirectory() {
  return VarnScriptRepository::customerDirectory(VarnScriptRepository::basePath(),
                                                 VarnScriptRepository::customerID());
}

}  // namespace

DocumentMark::DocumentMark(const std::string& scriptID)
    : path_(customerDirectory() + "/varn-scripts.unrecorded-" +
            AgentUtils::hexDigest(AgentUtils::usualDigest(), scriptID)) {}

bool DocumentMark::isThere() const {
  struct stat status {};
  return ::lstat(path_.c_str(), &status) == 0 || (errno != ENOENT && errno != ENOTDIR);
}

void DocumentMark::make(const std::string& recordedPath, std::error_code& error) const {
  error.clear();
  const posix::FileDescriptor file(::open(
      path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
  // The umask may have taken away more than it should.
  if (!file || ::fchmod(file.get(), S_IRUSR | S_IWUSR) != 0) {
    error = posix::lastError();
    return;
  }
  posix::writeAll(file.get(), recordedPath, error);
  if (!error && posix::retryOnInterrupt([&] { return ::fsync(file.get()); }) != 0) {
    error = posix::lastError();
  }
  if (!error) posix::syncDirectory(customerDirectory(), error);
}

std::string DocumentMark::recordedPath() const {
  std::error_code unreadable;
  return readRegularFile(path_, LastLink::refuse, unreadable).bytes;
}

void DocumentMark::remove(std::error_code& error) const {
  error.clear();
  if (::unlink(path_.c_str()) != 0 && errno != ENOENT) error.assign(errno, std::generic_category());
}

}  // namespace VarnScripts
