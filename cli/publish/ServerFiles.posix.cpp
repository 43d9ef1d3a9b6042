#include "publish/ServerFiles.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <memory>
#include <utility>

#include "Calls.h"
#include "Digest.h"
#include "Reason.h"
#include "StandardStreams.h"
#include "WholeFiles.h"
#include "publish/SyncFiles.h"

namespace VarnScripts::publishing {
namespace {

constexpr mode_t kFileMode = S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH;
constexpr mode_t kDirectoryMode = S_IRWXU | S_IRGRP | S_IXGRP | S_IROTH | S_IXOTH;

// Only the holder of the lock makes files of such names, so one that is found is a leftover.
constexpr std::string_view kTemporaryName = ".publishing-";

// Stays for ever: a lock on a file that somebody removes is no lock for who comes later.
constexpr const char* kLockName = ".publishing.lock";
constexpr mode_t kLockMode = S_IRUSR | S_IWUSR;

constexpr const char* kContentParts[] = {"data", "files"};

using posix::directoryOf;
using posix::FileDescriptor;
using posix::lastError;
using posix::LastLink;
using posix::readRegularFile;
using posix::RegularFile;
using posix::retryOnInterrupt;

// The names in a directory; empty with `error` set when it can't be read.
std::vector<std::string> namesIn(const std::string& path, std::error_code& error) {
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(::opendir(path.c_str()), &::closedir);
  if (!directory) {
    error = lastError();
    return {};
  }
  std::vector<std::string> names;
  errno = 0;
  while (const dirent* const item = ::readdir(directory.get())) names.emplace_back(item->d_name);
  if (errno != 0) error = lastError();
  return names;
}

// Makes a directory of that mode whatever the process's mask is; false with `errno`. By its
// descriptor: a link that is put in its place is not followed.
bool makeDirectory(const std::string& path) {
  if (::mkdir(path.c_str(), kDirectoryMode) != 0) return false;
  const FileDescriptor made(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  return made && ::fchmod(made.get(), kDirectoryMode) == 0;
}

// Whether the error says that there is no such name.
bool isNone(const std::error_code& error) {
  return error == std::errc::no_such_file_or_directory || error == std::errc::not_a_directory;
}

int lockWhole(int file, int command, struct flock& lock) {
  lock = {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  return retryOnInterrupt([&] { return ::fcntl(file, command, &lock); });
}

}  // namespace

ServerFiles::~ServerFiles() {
  for (const Pending& pending : pending_) ::unlink(pending.temporary.c_str());
  if (lock_ >= 0) ::close(lock_);
}

std::string ServerFiles::pathOf(const std::string& name) const { return directory_ + "/" + name; }

void ServerFiles::fail(const std::string& path, std::error_code& error) {
  error = lastError();
  failedPath_ = path;
}

void ServerFiles::look(const std::string& outputDirectory, const std::string& repository) {
  directory_ = outputDirectory + "/" + repository;
}

void ServerFiles::openPublished(const std::string& outputDirectory, const std::string& repository,
                                std::error_code& error) {
  look(outputDirectory, repository);
  lock(0, error);
  if (isNone(error)) error.clear();
}

void ServerFiles::open(const std::string& outputDirectory, const std::string& repository,
                       std::error_code& error) {
  error.clear();
  look(outputDirectory, repository);
  createDirectories(directory_, error);
  if (!error && !isOpen()) lock(O_CREAT, error);
  if (error) return;
  for (const char* const part : kContentParts) {
    createDirectories(pathOf(part), error);
    if (error) return;
  }
}

// The missing directories on the way to `path`, and `path` itself.
void ServerFiles::createDirectories(const std::string& path, std::error_code& error) {
  for (auto slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    const std::string directory = path.substr(0, slash);
    struct stat status {};
    const bool exists = ::stat(directory.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
    if (!exists) {
      // Another publishing may have created it by now.
      const bool created = makeDirectory(directory);
      if (!created && errno != EEXIST) return fail(directory, error);
      if (created) syncDirectory(directoryOf(directory), error);
      if (error) return;
    }
    if (slash == std::string::npos) return;
  }
}

// A file of its own, because whoever may open a file can lock it for ever, and everybody may open
// what is served.
void ServerFiles::lock(int flags, std::error_code& error) {
  error.clear();
  const std::string path = pathOf(kLockName);
  // Without waiting: somebody may have put a FIFO there.
  lock_ = retryOnInterrupt([&] {
    return ::open(path.c_str(), flags | O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, kLockMode);
  });
  struct stat file {};
  struct stat directory {};
  if (lock_ < 0 || ::fstat(lock_, &file) != 0) return fail(path, error);
  if (::stat(directory_.c_str(), &directory) != 0) return fail(directory_, error);
  // Root may publish for the one whose directory it is; nobody else's file is a lock.
  const bool isOurs = file.st_uid == ::geteuid() || file.st_uid == directory.st_uid;
  if (!S_ISREG(file.st_mode) || file.st_nlink != 1 || !isOurs) {
    errno = EPERM;
    return fail(path, error);
  }
  // A copy of the tree may have another mode.
  const bool isPrivate = (file.st_mode & ACCESSPERMS) == kLockMode;
  if (!isPrivate && ::fchmod(lock_, kLockMode) != 0) return fail(path, error);

  struct flock held {};
  if (lockWhole(lock_, F_SETLK, held) == 0) return;
  if (errno != EAGAIN && errno != EACCES) return fail(path, error);
  const bool known = lockWhole(lock_, F_GETLK, held) == 0 && held.l_type != F_UNLCK;
  // The process may be one of another computer or container, which has no number here.
  writeErrorLine("varn-scripts: waiting for " + processText(known ? held.l_pid : 0) +
                 ", which publishes to " + directory_);
  if (lockWhole(lock_, F_SETLKW, held) != 0) fail(path, error);
}

std::optional<std::string> ServerFiles::read(const std::string& name, std::error_code& error) {
  RegularFile file = readRegularFile(pathOf(name), LastLink::refuse, error);
  if (!error) return std::move(file.bytes);
  if (isNone(error)) {
    error.clear();
  } else {
    failedPath_ = pathOf(name);
  }
  return std::nullopt;
}

bool ServerFiles::holds(const std::string& name) const {
  std::error_code unreadable;
  const RegularFile file = readRegularFile(pathOf(name), LastLink::refuse, unreadable);
  return !unreadable && file.permissions == kFileMode &&
         AgentUtils::hexDigest(AgentUtils::usualDigest(), file.bytes) == digestIn(name);
}

void ServerFiles::add(const std::string& name, std::string_view bytes, std::error_code& error) {
  error.clear();
  if (!added_.insert(name).second) return;
  const std::string path = pathOf(name);
  std::error_code unreadable;
  const RegularFile old = readRegularFile(path, LastLink::refuse, unreadable);
  if (!unreadable && old.permissions == kFileMode && old.bytes == bytes) return;
  const std::string temporary =
      directoryOf(path) + "/" + std::string(kTemporaryName) + std::to_string(serial_++);
  pending_.push_back({temporary, name});
  writeTemporary(temporary, bytes, error);
}

void ServerFiles::writeTemporary(const std::string& path, std::string_view bytes,
                                 std::error_code& error) {
  ::unlink(path.c_str());
  const FileDescriptor file(
      ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kFileMode));
  if (!file || ::fchmod(file.get(), kFileMode) != 0) return fail(path, error);
  posix::writeAll(file.get(), bytes, error);
  if (error) failedPath_ = path;
}

void ServerFiles::commit(std::error_code& error) {
  error.clear();
  std::vector<std::string> temporaries;
  for (const Pending& pending : pending_) temporaries.push_back(pending.temporary);
  failedPath_ = syncFiles(temporaries, lock_, error);
  if (error) return;
  std::set<std::string> directories;
  for (const Pending& pending : pending_) {
    const std::string path = pathOf(pending.name);
    if (::rename(pending.temporary.c_str(), path.c_str()) != 0) return fail(path, error);
    directories.insert(directoryOf(path));
  }
  written_ += pending_.size();
  pending_.clear();
  for (const std::string& directory : directories) {
    syncDirectory(directory, error);
    if (error) return;
  }
}

void ServerFiles::syncDirectory(const std::string& path, std::error_code& error) {
  posix::syncPath(path, error);
  if (error) failedPath_ = path;
}

void ServerFiles::removeCompressedCopies(const std::string& name, std::error_code& error) {
  error.clear();
  for (const char* const suffix : {".gz", ".br", ".zst"}) {
    const std::string path = pathOf(name) + suffix;
    if (::unlink(path.c_str()) == 0) {
      ++copiesRemoved_;
    } else if (errno != ENOENT) {
      return fail(path, error);
    }
  }
  if (copiesRemoved_ > 0) syncDirectory(directory_, error);
}

void ServerFiles::noteDropped(const ContentNames& names, std::error_code& error) {
  error.clear();
  for (const std::string& name : names) {
    const std::string path = pathOf(name);
    if (::utimensat(AT_FDCWD, path.c_str(), nullptr, AT_SYMLINK_NOFOLLOW) != 0 && errno != ENOENT) {
      return fail(path, error);
    }
  }
}

void ServerFiles::removeContentBut(const ContentNames& named, std::chrono::seconds age,
                                   std::error_code& error) {
  const std::time_t latest = std::time(nullptr) - age.count();
  remove(
      [&](const std::string& name) {
        if (!isContentName(name) || named.contains(name)) return false;
        struct stat status {};
        return ::lstat(pathOf(name).c_str(), &status) == 0 && status.st_mtime <= latest;
      },
      error);
}

void ServerFiles::removeLeftovers(std::error_code& error) {
  remove([](const std::string&) { return false; }, error);
}

// Removes what is unneeded of the content, and leftovers.
void ServerFiles::remove(const std::function<bool(const std::string& name)>& isUnneeded,
                         std::error_code& error) {
  error.clear();
  for (const std::string part : {"", "data/", "files/"}) {
    const std::string directory = part.empty() ? directory_ : directoryOf(pathOf(part));
    const auto names = namesIn(directory, error);
    if (error) {
      failedPath_ = directory;
      return;
    }
    for (const std::string& base : names) {
      const std::string name = part + base;
      if (!base.starts_with(kTemporaryName) && !isUnneeded(name)) continue;
      if (::unlink(pathOf(name).c_str()) != 0 && errno != ENOENT) return fail(pathOf(name), error);
      ++removed_;
    }
  }
}

}  // namespace VarnScripts::publishing
