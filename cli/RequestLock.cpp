#include "RequestLock.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "publish/Names.h"

namespace VarnScripts {
namespace {

std::error_code lastError() { return {errno, std::generic_category()}; }

// Creates the missing directories that `path` names before its last component.
void createParents(const std::string& path, std::error_code& error) {
  for (auto slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    const std::string directory = path.substr(0, slash);
    // The umask may take away more than it should.
    if (::mkdir(directory.c_str(), S_IRWXU) == 0 && ::chmod(directory.c_str(), S_IRWXU) == 0) {
      continue;
    }
    if (errno == EEXIST) continue;
    // Some systems refuse the creation of what exists for another reason.
    const std::error_code failure = lastError();
    struct stat status {};
    if (::stat(directory.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) continue;
    error = failure;
    return;
  }
}

// One spelling for all that name one file: without empty steps, `.` and `..`, each name folded,
// since a file system may take names that differ in case, or in how a character is composed, for
// one.
std::string canonicalPath(std::string_view path) {
  std::vector<std::string> steps;
  for (std::size_t start = 0; start <= path.size();) {
    const std::size_t end = std::min(path.find('/', start), path.size());
    const std::string_view step = path.substr(start, end - start);
    start = end + 1;
    if (step.empty() || step == ".") continue;
    if (step != "..") {
      // By itself, so that a name that is no UTF-8 leaves the others as they are.
      steps.push_back(publishing::foldedName(step));
    } else if (!steps.empty()) {
      steps.pop_back();
    }
  }
  std::string canonical;
  for (const std::string& step : steps) canonical.append("/").append(step);
  return canonical;
}

}  // namespace

std::int64_t lockOffset(std::string_view scriptID) {
  // FNV-1a, cut to 62 bits.
  std::uint64_t hash = 14695981039346656037U;
  for (const char c : scriptID) {
    hash ^= static_cast<unsigned char>(c);
    hash *= 1099511628211U;
  }
  return static_cast<std::int64_t>(hash >> 2);
}

std::int64_t fileLockOffset(std::string_view filePath) {
  // Files are locked in the upper half of the offsets, script IDs in the lower one.
  constexpr std::int64_t upperHalf = std::int64_t{1} << 62;
  return upperHalf + lockOffset(canonicalPath(filePath));
}

RequestLock::~RequestLock() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

void RequestLock::acquire(const std::string& basePath, const std::string& customer,
                          std::string_view scriptID, std::error_code& error) {
  error.clear();
  path_ = basePath + "/client-data/" + customer + "/varn-scripts.lock";
  createParents(path_, error);
  if (error) return;

  do {
    descriptor_ =
        ::open(path_.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR);
  } while (descriptor_ < 0 && errno == EINTR);
  if (descriptor_ < 0) {
    error = lastError();
    return;
  }
  // The umask may have taken away more than it should. A file of somebody else's, or one with
  // another name besides, stays as it is.
  struct stat status {};
  if (::fstat(descriptor_, &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink == 1 &&
      status.st_uid == ::geteuid()) {
    static_cast<void>(::fchmod(descriptor_, S_IRUSR | S_IWUSR));
  }

  if (lockByte(lockOffset(scriptID)) == 0) return;
  error = lastError();
  ::close(descriptor_);
  descriptor_ = -1;
}

void RequestLock::holdFile(std::string_view filePath) {
  if (lockByte(fileLockOffset(filePath)) != 0) throw std::system_error(lastError());
}

int RequestLock::lockByte(std::int64_t offset) const {
  struct flock range {};
  range.l_type = F_WRLCK;
  range.l_whence = SEEK_SET;
  range.l_start = static_cast<off_t>(offset);
  range.l_len = 1;
  int locked;
  do {
    locked = ::fcntl(descriptor_, F_SETLKW, &range);
  } while (locked < 0 && errno == EINTR);
  return locked;
}

}  // namespace VarnScripts
