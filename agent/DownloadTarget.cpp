#include "DownloadTarget.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <system_error>
#include <utility>

#include "AgentDirectories.h"
#include "Calls.h"
#include "ServerURL.h"
#include "WholeFiles.h"

namespace AgentUtils {
namespace {

using posix::hasName;
using posix::retryOnInterrupt;

constexpr mode_t kFileMode = 0600;

[[noreturn]] void fail(const std::string& what, int error) {
  throw DownloadFailure(what + ": " + std::generic_category().message(error));
}

int lock(const FileDescriptor& file, int operation) {
  return retryOnInterrupt([&] { return ::flock(file.get(), operation); });
}

void requireReplaceable(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) {
    if (errno == ENOENT) return;
    fail("can't look at " + path, errno);
  }
  if (S_ISREG(status.st_mode) || S_ISLNK(status.st_mode)) return;
  throw DownloadFailure(path + " is not a file and stays");
}

bool mayMakeFileIn(const std::string& directory) {
  return ::faccessat(AT_FDCWD, directory.c_str(), W_OK | X_OK, AT_EACCESS) == 0;
}

void removeUnlessLive(const std::string& path) {
  // Opened without following links or waiting: anybody may have put anything under that name.
  const FileDescriptor file(::open(path.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat status {};
  if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return;
  if (lock(file, LOCK_EX | LOCK_NB) != 0 || !hasName(file, path)) return;
  ::unlink(path.c_str());
}

[[noreturn]] void failToMakeFileIn(const std::string& directory, int error) {
  fail("can't create a file in " + directory, error);
}

}  // namespace

void requireInside(const std::string& toPath, const std::string& basePath) {
  if (toPath.find('\0') != toPath.npos) throw DownloadFailure("the target's name holds a NUL");
  if (toPath.starts_with(basePath + '/') && hasParentComponent(toPath.substr(basePath.size()))) {
    throw DownloadFailure("the target leads out of its directory: " + toPath);
  }
}

void requireTarget(const std::string& path, const std::string& basePath) {
  requireInside(path, basePath);
  requireReplaceable(path);
  const std::string directory = posix::directoryOf(path);
  if (mayMakeFileIn(directory)) return;
  if (errno != ENOENT) failToMakeFileIn(directory, errno);
  if (!mayMakeFileIn(posix::directoryOf(directory)) && errno != ENOENT) {
    failToMakeFileIn(directory, ENOENT);
  }
}

std::string wholeContent(const FileDescriptor& file, std::uint64_t mostBytes) {
  struct stat status {};
  if (::lseek(file.get(), 0, SEEK_SET) != 0 || ::fstat(file.get(), &status) != 0) {
    fail("can't read the file again", errno);
  }
  // What the server has sent may be as large as a download may be: room for that, and no more.
  const auto size = static_cast<std::size_t>(status.st_size);
  if (!posix::canHold(size)) fail("can't read the file again", ENOMEM);
  std::string room;
  if (size <= mostBytes) room.reserve(size);
  std::error_code error;
  std::string bytes = posix::readAll(file.get(), mostBytes, error, std::move(room));
  if (error) fail("can't read the file again", error.value());
  return bytes;
}

DownloadTarget::DownloadTarget(std::string path, std::uint64_t mostBytes, std::string limit)
    : path_(std::move(path)),
      directory_(posix::directoryOf(path_)),
      mostBytes_(mostBytes),
      limit_(std::move(limit)) {
  requireReplaceable(path_);
}

DownloadTarget::~DownloadTarget() {
  if (!temporaryPath_.empty()) ::unlink(temporaryPath_.c_str());
}

const FileDescriptor& DownloadTarget::temporaryFile() {
  if (temporaryPath_.empty()) makeTemporaryFile();
  return file_;
}

void DownloadTarget::makeTemporaryFile() {
  // A swept file is made anew. Twice in a row is the rarest of accidents already.
  constexpr int attempts = 10;
  for (int attempt = 0; attempt < attempts; ++attempt) {
    std::string name = directory_ + '/' + std::string(kDownloadPrefix) + "XXXXXX";
    FileDescriptor file(mkostemp(name.data(), O_CLOEXEC));
    if (!file) failToMakeFileIn(directory_, errno);
    // From here on the destructor removes it.
    temporaryPath_ = std::move(name);
    file_ = std::move(file);
    if (::fchmod(file_.get(), kFileMode) != 0) fail("can't protect " + temporaryPath_, errno);
    if (lock(file_, LOCK_EX) != 0) fail("can't lock " + temporaryPath_, errno);
    if (hasName(file_, temporaryPath_)) return;
  }
  throw DownloadFailure("can't keep a file in " + directory_);
}

void DownloadTarget::count(std::uint64_t& sum, std::size_t count) const {
  if (count > mostBytes_ - sum) {
    throw DownloadFailure(limit_ + " (" + std::to_string(mostBytes_) + " bytes)");
  }
  sum += count;
}

void DownloadTarget::receive(std::size_t count) { this->count(received_, count); }

void DownloadTarget::write(const char* bytes, std::size_t count) {
  this->count(size_, count);
  const FileDescriptor& file = temporaryFile();
  std::error_code error;
  posix::writeAll(file.get(), {bytes, count}, error);
  if (error) fail("can't write to " + temporaryPath_, error.value());
}

void DownloadTarget::commit(Durability durability) {
  const FileDescriptor& file = temporaryFile();
  const bool isSynced = durability == Durability::synced;
  if (isSynced && retryOnInterrupt([&] { return ::fsync(file.get()); }) != 0) {
    fail("can't sync " + temporaryPath_, errno);
  }
  // Once more: what stands there may have changed during the download.
  requireReplaceable(path_);
  if (std::rename(temporaryPath_.c_str(), path_.c_str()) != 0) {
    fail("can't replace " + path_, errno);
  }
  temporaryPath_.clear();
  if (!isSynced) return;
  // The file is in place; a directory that can't be synced (some file systems refuse it) at worst
  // brings back the old file after a loss of power.
  std::error_code ignored;
  posix::syncPath(directory_, ignored);
}

void sweepTemporaryFiles(const std::string& directory) noexcept {
  try {
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(::opendir(directory.c_str()), &closedir);
    if (!entries) return;
    while (const dirent* const entry = ::readdir(entries.get())) {
      if (std::string_view(entry->d_name).starts_with(kDownloadPrefix)) {
        removeUnlessLive(directory + '/' + entry->d_name);
      }
    }
  } catch (...) {
    // Out of memory: the next download sweeps.
  }
}

}  // namespace AgentUtils
