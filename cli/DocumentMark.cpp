#include "DocumentMark.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "Digest.h"
#include "Directories.h"
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
  posix::makeFile(path_, recordedPath, S_IRUSR | S_IWUSR, error);
  if (!error) posix::syncDirectory(customerDirectory(), error);
}

std::string DocumentMark::recordedPath() const {
  std::error_code unreadable;
  return posix::readRegularFile(path_, posix::LastLink::refuse, unreadable).bytes;
}

void DocumentMark::remove(std::error_code& error) const {
  error.clear();
  if (::unlink(path_.c_str()) != 0 && errno != ENOENT) error.assign(errno, std::generic_category());
}

}  // namespace VarnScripts
