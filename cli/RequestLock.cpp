#include "RequestLock.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "AgentUtils.h"
#include "Calls.h"
#include "Directories.h"
#include "FoldedName.h"

namespace VarnScripts {
namespace {

using posix::lastError;
using posix::retryOnInterrupt;

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
      steps.push_back(foldedName(step));
    } else if (!steps.empty()) {
      steps.pop_back();
    }
  }
  std::string canonical;
  for (const std::string& step : steps) canonical.append("/").append(step);
  return canonical;
}

struct flock byteAt(std::int64_t offset, short type) {
  struct flock range {};
  range.l_type = type;
  range.l_whence = SEEK_SET;
  range.l_start = static_cast<off_t>(offset);
  range.l_len = 1;
  return range;
}

// Who keeps others from the byte.
std::optional<int> holderOf(int descriptor, std::int64_t offset) {
  struct flock range = byteAt(offset, F_WRLCK);
  if (::fcntl(descriptor, F_GETLK, &range) != 0 || range.l_type == F_UNLCK) return std::nullopt;
  return static_cast<int>(range.l_pid);
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

std::int64_t fileLockOffset(std::string_view fileName) {
  // Files are locked in the upper half of the offsets, script IDs in the lower one.
  constexpr std::int64_t upperHalf = std::int64_t{1} << 62;
  return upperHalf + lockOffset(canonicalPath(fileName));
}

std::string requestLockPath(const std::string& basePath, const std::string& customer) {
  return VarnScriptRepository::customerDirectory(basePath, customer) + "/varn-scripts.lock";
}

std::optional<int> turnHolder(const std::string& lockPath, std::string_view scriptID) {
  // Without waiting: a FIFO would hold whoever opens it.
  const posix::FileDescriptor file(
      ::open(lockPath.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  return file ? holderOf(file.get(), lockOffset(scriptID)) : std::nullopt;
}

std::string processText(int processID) {
  return processID > 0 ? "process " + std::to_string(processID) : "another process";
}

RequestLock::~RequestLock() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

void RequestLock::acquire(const std::string& basePath, const std::string& customer,
                          const std::vector<std::string>& scriptIDs, std::error_code& error) {
  error.clear();
  path_ = requestLockPath(basePath, customer);
  if (!AgentUtils::FileUtils().createDirectory(posix::directoryOf(path_), true)) {
    error = lastError();
    return;
  }

  descriptor_ = retryOnInterrupt([this] {
    return ::open(path_.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR);
  });
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

  std::set<std::int64_t> offsets;
  for (const std::string& scriptID : scriptIDs) offsets.insert(lockOffset(scriptID));
  for (const std::int64_t offset : offsets) {
    if (takeByte(offset) == 0) continue;
    error = lastError();
    ::close(descriptor_);
    descriptor_ = -1;
    return;
  }
}

void RequestLock::holdFile(std::string_view fileName) {
  if (takeByte(fileLockOffset(fileName)) != 0) throw std::system_error(lastError());
}

bool RequestLock::tryHoldFile(std::string_view fileName) {
  return lockByte(fileLockOffset(fileName), F_SETLK) == 0;
}

void RequestLock::releaseFile(std::string_view fileName) {
  static_cast<void>(lockByte(fileLockOffset(fileName), F_SETLK, F_UNLCK));
}

int RequestLock::takeByte(std::int64_t offset) {
  constexpr std::chrono::milliseconds pause{50};
  for (int looks = 0; looks < 20; ++looks) {
    if (lockByte(offset, F_SETLK) == 0) return 0;
    if (errno != EAGAIN && errno != EACCES) return -1;
    if (!wait_.mayWait) break;
    std::this_thread::sleep_for(pause);
  }
  holder_ = holderOf(descriptor_, offset).value_or(0);
  if (!wait_.mayWait) {
    errno = EAGAIN;
    return -1;
  }
  if (wait_.reported) wait_.reported(holder_);
  return lockByte(offset, F_SETLKW);
}

int RequestLock::lockByte(std::int64_t offset, int command, short type) const {
  struct flock range = byteAt(offset, type);
  return retryOnInterrupt([&] { return ::fcntl(descriptor_, command, &range); });
}

}  // namespace VarnScripts
